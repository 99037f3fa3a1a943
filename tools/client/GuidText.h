// The GUID text of the service's own files: the 16 raw bytes as little-endian groups of 4, 2, 2,
// 2, 2 and 4 bytes, with a dash after each of the first four groups. The bytes 00 11 22 ... FF
// read 33221100-5544-7766-9988-BBAAFFEEDDCC. Using the same form as the service's cache lets a
// user copy a GUID from there.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vigil_client {

using Guid = std::array<uint8_t, 16>;

std::string FormatGuid(const Guid& guid);
// Upper- or lower-case digits in the form above; nothing else.
std::optional<Guid> ParseGuid(std::string_view text);

}  // namespace vigil_client
