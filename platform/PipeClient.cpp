#include "platform/PipeClient.h"

namespace Osb {

bool PipeClient::readExact(void* data, size_t bytes) {
    auto* at = static_cast<uint8_t*>(data);
    while (bytes > 0) {
        size_t got = readSome(at, bytes);
        if (got == 0) return false;
        at += got;
        bytes -= got;
    }
    return true;
}

}  // namespace Osb
