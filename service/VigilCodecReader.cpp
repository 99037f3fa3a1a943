#include "service/VigilCodecReader.h"

#include <algorithm>
#include <cstring>

#include "service/VigilProtocol.h"

namespace Vigil::Codec {

BodyReader::BodyReader(RequestBody body)
    : data_(body.bytes.data()),
      limit_(std::min<uint64_t>(body.length, body.bytes.size())),
      announced_(body.length) {}

Result BodyReader::u32(uint64_t offset, uint32_t& out) const {
    if (!has(offset, 4)) return Result::kInvalidLength;
    out = Protocol::Load32(data_ + offset);
    return Result::kOk;
}

void BodyReader::copy(uint64_t offset, void* to, size_t bytes) const {
    if (bytes > 0) std::memcpy(to, data_ + offset, bytes);
}

Result BodyReader::terminatedUnits(uint32_t offset, size_t& units) {
    if (auto known = units_.find(offset); known != units_.end()) {
        units = known->second;
        return Result::kOk;
    }
    if (!has(offset, 2)) return Result::kInvalidLength;
    for (uint64_t at = offset;; at += 2) {
        if (!has(at, 2)) return Result::kInvalidDataValues;  // no terminator
        if (data_[at] == 0 && data_[at + 1] == 0) {
            units = static_cast<size_t>((at - offset) / 2);
            units_.emplace(offset, units);
            return Result::kOk;
        }
    }
}

std::u16string BodyReader::text(uint32_t offset, size_t units) const {
    std::u16string out(units, u'\0');
    copy(offset, out.data(), 2 * units);
    return out;
}

Result BodyReader::sizedString(uint64_t offset, uint64_t byteLength, std::u16string& out) const {
    if (!has(offset, byteLength)) return Result::kInvalidLength;
    if (byteLength < 2 || byteLength % 2 != 0) return Result::kInvalidDataValues;
    const uint8_t* p = data_ + offset;
    if (p[byteLength - 2] != 0 || p[byteLength - 1] != 0) return Result::kInvalidDataValues;
    out.assign(static_cast<size_t>(byteLength - 2) / 2, u'\0');
    copy(offset, out.data(), static_cast<size_t>(byteLength - 2));
    return Result::kOk;
}

}  // namespace Vigil::Codec
