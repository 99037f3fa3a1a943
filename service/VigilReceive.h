// Cutting a connection's byte stream into messages.
//
// ReceiveBytes is the whole reassembly as a function of its input: tests and fuzzers feed it
// bytes, split and corrupted at will, without a socket. The rules:
//   - Below 16 buffered bytes the header is awaited.
//   - A message whose total (bodyLength + 16, computed without wrapping) is below 16384 is awaited
//     until all of it is buffered, then dispatched and consumed.
//   - A header announcing 16384 bytes or more is dispatched at once with whatever has arrived, and
//     everything buffered is then discarded; what follows of it is read as new messages. The
//     dispatcher is told how many bytes are really there, and must read no further.
//   - Incoming data never passes the buffer's end: it is appended in pieces that fit, and the
//     messages they complete are taken out between the pieces, so no byte is lost or refused.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <utility>

#include "service/VigilProtocol.h"

namespace Vigil {

struct ReceiveBuffer {
    uint32_t buffered = 0;  // bytes held; a message begins at buffer[0]
    uint8_t buffer[Protocol::kMaxRequestBytes];
};

// Appends `bytes` bytes at `data` and calls dispatch(message, available) for each message cut,
// where `message` points at its header and `available` (at least 16) is the number of its bytes
// present: its whole total, or less for an announced total of 16384 or more. A message is consumed
// even when dispatch raises; the exception then leaves with the rest unprocessed but safely
// buffered.
//
// Before each dispatch ready() is asked; when it says no, the message stays at the front of the
// buffer and the call returns the number of bytes of `data` taken in so far: the caller keeps the
// rest and hands it back (or 0 bytes, to go on with what is buffered) once ready() would say yes.
// Otherwise the result is `bytes`.
template <typename Ready, typename Dispatcher>
uint32_t ReceiveBytesWhile(ReceiveBuffer& rx, const uint8_t* data, uint32_t bytes, Ready&& ready,
                           Dispatcher&& dispatch) {
    constexpr uint32_t kCapacity = Protocol::kMaxRequestBytes;
    uint32_t taken = 0;
    do {
        uint32_t piece = std::min(bytes - taken, kCapacity - rx.buffered);
        if (piece > 0) std::memcpy(rx.buffer + rx.buffered, data + taken, piece);
        rx.buffered += piece;
        taken += piece;

        while (rx.buffered >= Protocol::kHeaderBytes) {
            uint64_t total = uint64_t{Protocol::Load32(rx.buffer + 4)} + Protocol::kHeaderBytes;
            if (total > rx.buffered && total < kCapacity) break;  // awaiting the rest
            if (!ready()) return taken;

            uint32_t available = total < rx.buffered ? static_cast<uint32_t>(total) : rx.buffered;
            // A guard consumes the message after dispatch, also when dispatch raises, so the loop
            // never meets the same message twice. Bytes move only when more follow the message.
            struct Consume {
                ReceiveBuffer& rx;
                uint32_t used;
                ~Consume() {
                    if (used < rx.buffered) {
                        std::memmove(rx.buffer, rx.buffer + used, rx.buffered - used);
                        rx.buffered -= used;
                    } else {
                        rx.buffered = 0;
                    }
                }
            } consume{rx, available};
            dispatch(static_cast<const uint8_t*>(rx.buffer), available);
        }
    } while (taken < bytes);
    return taken;
}

// ReceiveBytesWhile that is always ready: every byte is taken in.
template <typename Dispatcher>
void ReceiveBytes(ReceiveBuffer& rx, const uint8_t* data, uint32_t bytes, Dispatcher&& dispatch) {
    ReceiveBytesWhile(rx, data, bytes, [] { return true; }, std::forward<Dispatcher>(dispatch));
}

}  // namespace Vigil
