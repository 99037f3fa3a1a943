// The body of one request as a handler sees it.
//
// `length` is the bodyLength the header announced; handlers compare it with their minimum.
// `available` is how much of it is really in hand: all of it for a message below 16384 bytes in
// all, possibly less for a longer announcement, which is dispatched as soon as its header is in.
// Every read of a field goes through field(), which refuses anything beyond `available` with
// ExInvalidLength, so no handler reads outside the message.
#pragma once

#include <cstdint>

#include "service/VigilExceptions.h"
#include "service/VigilProtocol.h"

namespace Vigil {

struct RequestBody {
    const uint8_t* data = nullptr;
    uint32_t length = 0;
    uint32_t available = 0;

    // True when `bytes` bytes at `offset` are in hand. Safe against wrapping.
    bool has(uint32_t offset, uint32_t bytes) const {
        return offset <= available && bytes <= available - offset;
    }
    // The 32-bit field at `offset`, or ExInvalidLength when it is not in hand.
    uint32_t field(uint32_t offset) const {
        if (!has(offset, 4)) throw ExInvalidLength(OSB_HERE);
        return Protocol::Load32(data + offset);
    }
};

}  // namespace Vigil
