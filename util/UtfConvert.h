// Conversions between UTF-16 and UTF-8 for the program's own texts: the locale name, the paths and
// the fixed names of the configuration step.
//
// They work code point by code point and validate nothing, so every input converts and no error
// path exists. They are not the platform's conversions of platform/Utf.h, which keep arbitrary
// bytes intact: text from outside (file names, messages) must go through those.
//
// to_utf8: a unit 0xD800..0xDBFF is joined with the unit after it, whatever that unit is, into
// (high << 10) + next - 0x35FDC00; every other unit, a lone low surrogate included, is a code point
// of its own. A high surrogate that is the last unit stands alone, as a code point of its own
// value. Code points are written in 1 byte below 0x80, 2 below 0x800, 3 below 0x10000, else 4.
//
// to_utf16: the first byte tells the length: below 0x80 one byte, up to 0xDF two, up to 0xEF three,
// up to 0xF7 four (the following bytes give their low six bits, unchecked). A byte from 0xF8 up is
// a code point of its own value (U+00F8..U+00FF). A sequence cut short by the end of the text takes
// zero bits for the bytes that are missing; nothing past the text is read. Code points from 0x10000
// up are written as a pair: 0xD800 + ((cp - 0x10000) >> 10), 0xDC00 + ((cp - 0x10000) & 0x3FF).
//
// A zero unit or byte is a character like any other. Any thread.
#pragma once

#include <string>
#include <string_view>

namespace mst_util {

std::string to_utf8(std::u16string_view wide);
std::u16string to_utf16(std::string_view utf8);

}  // namespace mst_util
