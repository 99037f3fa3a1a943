// The client's reply decoders on arbitrary bodies: the first byte picks the decoder, the rest is
// the body. A decoder either returns or raises DecodeError; anything else is a fault.
#include <cstdint>

#include "tools/client/ClientCodec.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace vigil_client;
    if (size == 0) return 0;
    const Bytes body(data + 1, data + size);
    try {
        switch (data[0] % 5) {
            case 0: DecodeHelloReply(body); break;
            case 1: DecodeStatusReply(body); break;
            case 2: DecodeErrorReply(body); break;
            case 3: DecodeFolderList(body); break;
            default: DecodeChanges(body); break;
        }
    } catch (const DecodeError&) {
    }
    return 0;
}
