#include "dictionary/UnicodeReader.h"

namespace lexkit_private {

bool UnicodeReader::ReadUnit(char16_t& unit) { return ReadUnitInOrder(unit, false); }

bool UnicodeReader::ReadUnitInOrder(char16_t& unit, bool swap) {
    unsigned char bytes[2];
    size_t count = 2;
    ReadBytes(bytes, count);
    if (count == 0) return true;
    if (count == 1) {
        // A lone last byte is half a unit of unknown worth; the replacement character shows the
        // damage instead of guessing the missing half. The next call finds no byte.
        unit = 0xFFFD;
        return false;
    }
    char16_t value;
    unsigned char* raw = reinterpret_cast<unsigned char*>(&value);
    raw[0] = bytes[swap ? 1 : 0];
    raw[1] = bytes[swap ? 0 : 1];
    unit = value;
    return unit == 0;
}

const char16_t* UnicodeReader::ReadLine() {
    ClearLine();
    char16_t unit;
    // ReadUnit is virtual: ByteSwapUnicodeReader changes this loop through it alone.
    while (!ReadUnit(unit)) {
        if (unit == u'\n' || unit == u'\r' || unit == 0x2028 || unit == 0x2029) return FinishLine();
        AppendUnit(unit);
    }
    if (LineLength() == 0) return nullptr;
    return FinishLine();
}

}  // namespace lexkit_private
