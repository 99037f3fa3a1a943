#include "tools/client/GuidText.h"

namespace vigil_client {

namespace {

// The byte printed at each of the 16 digit pairs, in text order.
constexpr int kByteOfPair[16] = {3, 2, 1, 0, 5, 4, 7, 6, 9, 8, 11, 10, 15, 14, 13, 12};
// Dashes follow the pairs 4, 6, 8 and 10.
constexpr bool DashAfter(int pair) { return pair == 3 || pair == 5 || pair == 7 || pair == 9; }

int HexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

}  // namespace

std::string FormatGuid(const Guid& guid) {
    static const char kDigits[] = "0123456789ABCDEF";
    std::string text;
    for (int pair = 0; pair < 16; ++pair) {
        uint8_t b = guid[kByteOfPair[pair]];
        text.push_back(kDigits[b >> 4]);
        text.push_back(kDigits[b & 15]);
        if (DashAfter(pair)) text.push_back('-');
    }
    return text;
}

std::optional<Guid> ParseGuid(std::string_view text) {
    if (text.size() != 36) return std::nullopt;
    Guid guid{};
    size_t at = 0;
    for (int pair = 0; pair < 16; ++pair) {
        int hi = HexValue(text[at]);
        int lo = HexValue(text[at + 1]);
        if (hi < 0 || lo < 0) return std::nullopt;
        guid[kByteOfPair[pair]] = static_cast<uint8_t>(hi * 16 + lo);
        at += 2;
        if (DashAfter(pair)) {
            if (text[at] != '-') return std::nullopt;
            ++at;
        }
    }
    return guid;
}

}  // namespace vigil_client
