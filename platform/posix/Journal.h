// Entries for the systemd journal, in its native protocol: one datagram per entry on the journal's
// socket, each field a line NAME=value, or, for a value that holds a line feed, the name, a line
// feed, the value's length as 64 bits little-endian, the value and a line feed.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>

namespace Osb::Journal {

struct Field {
    std::string_view name;  // upper-case letters, digits and '_', not starting with '_'
    std::string_view value;
};

// The datagram of one entry with `fields` in their order.
std::string Encode(std::initializer_list<Field> fields);

// Sends one entry. False when the journal does not run here (no socket, or nobody serves it) or
// took nothing; the caller then logs elsewhere. Any thread.
bool Send(const std::string& entry);

// The MESSAGE_ID of event `id`: a fixed 128-bit base with the id in its last 32 bits, as 32
// lower-case hex digits.
std::string MessageId(uint32_t id);

// Points Send at `path` instead of the journal's socket; an empty path restores that.
void SetSocketPathForTesting(const std::string& path);

}  // namespace Osb::Journal
