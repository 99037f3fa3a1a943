// The one bounds-checking reader of request and reply bodies.
//
// A RequestBody is what a handler is given: `length` is the bodyLength the header announced, which
// handlers compare with their minimum, and `bytes` is what of it is really in hand: all of it for a
// message below kMaxRequestBytes in all, possibly less for a longer announcement, which is
// dispatched as soon as its header is in. Reads stop at the smaller of the two, so nothing beyond
// the message and nothing beyond the announcement is ever read.
//
// All offsets and sizes are taken as 64-bit, so an offset plus a count times a stride computed from
// 32-bit fields of the client cannot wrap.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

namespace Vigil::Codec {

enum class Result : uint8_t {
    kOk,
    kInvalidLength,      // a minimum not met, or something beyond the body
    kInvalidDataValues,  // inside the body, but not to be taken
};

struct RequestBody {
    std::span<const uint8_t> bytes;
    uint32_t length = 0;

    RequestBody() = default;
    RequestBody(std::span<const uint8_t> whole)  // NOLINT: a plain span is a whole body
        : bytes(whole), length(static_cast<uint32_t>(whole.size())) {}
    RequestBody(const std::vector<uint8_t>& whole)  // NOLINT: as the span above
        : RequestBody(std::span<const uint8_t>(whole)) {}
    RequestBody(std::span<const uint8_t> inHand, uint32_t announced)
        : bytes(inHand), length(announced) {}
};

class BodyReader {
  public:
    explicit BodyReader(RequestBody body);

    // The announced bodyLength, for the minimum checks.
    uint32_t announced() const { return announced_; }
    // True when `bytes` bytes at `offset` lie inside the body.
    bool has(uint64_t offset, uint64_t bytes) const {
        return offset <= limit_ && bytes <= limit_ - offset;
    }
    // The 32-bit field at `offset`; kInvalidLength when it is not inside.
    Result u32(uint64_t offset, uint32_t& out) const;
    // Copies `bytes` bytes at `offset`, which the caller has checked with has().
    void copy(uint64_t offset, void* to, size_t bytes) const;

    // Units of the string at `offset` up to its zero unit, the terminator not counted:
    // kInvalidLength when not even its first unit is inside, kInvalidDataValues when the body ends
    // before the terminator. Lengths are remembered, so a string named by many entries is scanned
    // once.
    Result terminatedUnits(uint32_t offset, size_t& units);
    // The string at `offset` of `units` units, as terminatedUnits() measured it.
    std::u16string text(uint32_t offset, size_t units) const;

    // A string located by offset and byteLength, byteLength counting the terminator:
    // kInvalidLength beyond the body, kInvalidDataValues for an odd or too short byteLength or a
    // last unit that is not zero.
    Result sizedString(uint64_t offset, uint64_t byteLength, std::u16string& out) const;

  private:
    const uint8_t* data_ = nullptr;
    uint64_t limit_ = 0;
    uint32_t announced_ = 0;
    std::unordered_map<uint32_t, size_t> units_;
};

}  // namespace Vigil::Codec
