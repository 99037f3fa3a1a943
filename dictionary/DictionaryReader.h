// Reads a text dictionary file line by line, as NUL-terminated UTF-16.
//
// Create looks at the first two bytes of the stream and picks the reader of the file's encoding:
//   FF FE  UTF-16 little-endian        FE FF  UTF-16 big-endian
//   other  multibyte text in the system's ANSI code page (a UTF-8 byte-order mark is not told
//          apart: such a file is multibyte text like any other)
// A UTF-16 reader reads units in the machine's order (UnicodeReader) or swaps them
// (ByteSwapUnicodeReader), whichever the file's order asks for on this machine.
//
// Line ends are not part of a line. They are LF and CR for every encoding, and U+2028 and U+2029
// for UTF-16 too; CR LF therefore gives a line and then an empty line, which the loader skips.
// A unit or byte 0 ends the data for one call: behind text it ends the line and the next call goes
// on after it; at the start of a line ReadLine yields null. A line has no length limit.
//
// Ownership and threads: the reader does not own the stream, which must outlive it; it owns its
// line buffer. A reader belongs to one load on one thread. Reading never fails: the end of the
// stream, a read error and a lone byte all end or finish the data, and ReadLine yields null as
// often as it is called at the end. Only a failed text conversion raises (LxErrException).
#pragma once

#include <cstddef>
#include <istream>
#include <memory>

namespace lexkit_private {

class DictionaryReader {
  public:
    DictionaryReader(const DictionaryReader&) = delete;
    DictionaryReader& operator=(const DictionaryReader&) = delete;
    virtual ~DictionaryReader();

    // A new reader for `source`, owned by the caller, deleted through the virtual destructor.
    // Reads up to two bytes. Behind a UTF-16 byte-order mark the stream stays behind it; otherwise
    // (also with fewer than two bytes) the stream's error state is cleared and it is put back at
    // offset 0. The loader rewinds the stream after this, so a UTF-16 reader then meets the mark as
    // the first unit of its first line.
    static DictionaryReader* Create(std::istream& source);

    // The next line, NUL-terminated, in the reader's own buffer: valid until the next call or the
    // reader's destruction. Null at the end of the data.
    virtual const char16_t* ReadLine() = 0;

    // The line buffer's capacity in units: 256 at the start, then grown by half (truncated) as
    // often as a line needs: 256, 384, 576, 864, ...
    size_t LineCapacityForTesting() const { return lineCapacity_; }

  protected:
    explicit DictionaryReader(std::istream& source);

    // The one source of bytes of all readers: reads up to `count` bytes one at a time from the
    // stream's buffer, stops at the end of the stream (leaving the stream in the state that
    // istream::get leaves it in there), and sets `count` to the number read.
    void ReadBytes(unsigned char* destination, size_t& count);

    // The line buffer: `lineLength_` units in use, room for `lineCapacity_`.
    void ClearLine() { lineLength_ = 0; }
    void AppendUnit(char16_t unit);
    // Grows the line buffer to at least `need` units by the growth rule above, keeping its content.
    void ReserveLine(size_t need);
    // Terminates the line with a NUL (not counted in its length) and returns the buffer.
    const char16_t* FinishLine();
    char16_t* LineBuffer() { return line_.get(); }
    size_t LineLength() const { return lineLength_; }
    void SetLineLength(size_t length) { lineLength_ = length; }

    // The capacity that the growth rule reaches from `capacity` for `need` elements.
    static size_t GrownCapacity(size_t capacity, size_t need);

    static constexpr size_t kInitialCapacity = 256;

  private:
    std::istream* source_;  // not owned
    std::unique_ptr<char16_t[]> line_;
    size_t lineCapacity_;
    size_t lineLength_ = 0;
};

}  // namespace lexkit_private
