#include "dictionary/MultibyteReader.h"

#include <cstring>

#include "dictionary/LxErrException.h"
#include "dictionary/TextConversionTable.h"

namespace lexkit_private {

MultibyteReader::MultibyteReader(std::istream& source)
    : DictionaryReader(source),
      bytes_(std::make_unique<unsigned char[]>(kInitialCapacity)),
      byteCapacity_(kInitialCapacity) {}

MultibyteReader::~MultibyteReader() = default;

void MultibyteReader::AppendByte(unsigned char byte) {
    if (byteLength_ + 1 > byteCapacity_) {
        const size_t capacity = GrownCapacity(byteCapacity_, byteLength_ + 1);
        auto grown = std::make_unique<unsigned char[]>(capacity);
        std::memcpy(grown.get(), bytes_.get(), byteLength_);
        bytes_ = std::move(grown);
        byteCapacity_ = capacity;
    }
    bytes_[byteLength_++] = byte;
}

const char16_t* MultibyteReader::ReadLine() {
    byteLength_ = 0;
    bool lineEnd = false;
    for (;;) {
        unsigned char byte;
        size_t count = 1;
        ReadBytes(&byte, count);
        if (count == 0 || byte == 0) break;
        // Lines are split on bytes, before the conversion; in the ANSI code page LF and CR cannot
        // be part of another character.
        if (byte == '\n' || byte == '\r') {
            lineEnd = true;
            break;
        }
        AppendByte(byte);
    }
    if (!lineEnd && byteLength_ == 0) return nullptr;

    ClearLine();
    if (byteLength_ != 0) {
        const char* bytes = reinterpret_cast<const char*>(bytes_.get());
        const auto length = static_cast<uint32_t>(byteLength_);
        uint32_t units = 0;
        uint32_t result = kTextConversionTable.MultiByteLength(bytes, length, units, nullptr);
        if (result == 0) {
            ReserveLine(static_cast<size_t>(units) + 1);  // room for the NUL as well
            result =
                kTextConversionTable.MultiByteToWide(bytes, length, LineBuffer(), units, nullptr);
        }
        if (result != 0) throw LxErrException{result};
        SetLineLength(units);
    }
    return FinishLine();
}

}  // namespace lexkit_private
