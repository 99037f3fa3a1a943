// The reader of multibyte text files: lines are split on the bytes LF and CR (U+2028 and U+2029
// are no line ends here), and each line is then converted from the system's ANSI code page
// (Windows-1252) to UTF-16. See DictionaryReader.h for the rest.
//
// It owns a byte buffer beside the line buffer, 256 bytes at the start and grown by the same rule;
// both are reused from line to line.
#pragma once

#include <memory>

#include "dictionary/DictionaryReader.h"

namespace lexkit_private {

class MultibyteReader : public DictionaryReader {
  public:
    explicit MultibyteReader(std::istream& source);
    ~MultibyteReader() override;

    // Raises LxErrException if the conversion fails, which a correctly sized target never makes it.
    const char16_t* ReadLine() override;

    size_t ByteCapacityForTesting() const { return byteCapacity_; }

  private:
    void AppendByte(unsigned char byte);

    std::unique_ptr<unsigned char[]> bytes_;
    size_t byteCapacity_;
    size_t byteLength_ = 0;
};

}  // namespace lexkit_private
