#pragma once

#include <cstdint>

#include "service/VigilWatchFolderCacheFormat.h"

namespace vigil_test {

// The GUID whose bytes count up by 0x11 (00 11 22 ... FF). Its text is
// "33221100-5544-7766-9988-BBAAFFEEDDCC", which shows each group's byte order.
inline Vigil::Watch::Guid SequenceGuid() {
    Vigil::Watch::Guid guid;
    for (uint8_t i = 0; i < 16; ++i) guid.bytes[i] = static_cast<uint8_t>(i * 0x11);
    return guid;
}

}  // namespace vigil_test
