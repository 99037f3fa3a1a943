// The reader of UTF-16 text files whose units are in the machine's order (see DictionaryReader.h
// for lines and their ends).
//
// A file with an odd number of bytes ends in a lone byte. That byte is no character of the file,
// so it yields U+FFFD, the replacement character, whatever the byte order; the data ends behind
// it. A unit that is a lone surrogate is passed on as it is: the reader splits lines and judges
// nothing else.
#pragma once

#include "dictionary/DictionaryReader.h"

namespace lexkit_private {

class UnicodeReader : public DictionaryReader {
  public:
    explicit UnicodeReader(std::istream& source) : DictionaryReader(source) {}

    const char16_t* ReadLine() override;

    // Reads the next unit into `unit`. True when there is no further unit: no byte came, or the
    // unit is 0. A lone last byte gives U+FFFD and false.
    virtual bool ReadUnit(char16_t& unit);

  protected:
    // ReadUnit's work, with the unit's two bytes swapped when `swap` is set.
    bool ReadUnitInOrder(char16_t& unit, bool swap);
};

}  // namespace lexkit_private
