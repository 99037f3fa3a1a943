#include "dictionary/DictionaryReader.h"

#include <bit>
#include <cstring>

#include "dictionary/ByteSwapUnicodeReader.h"
#include "dictionary/MultibyteReader.h"
#include "dictionary/UnicodeReader.h"

namespace lexkit_private {

DictionaryReader::DictionaryReader(std::istream& source)
    : source_(&source),
      line_(std::make_unique<char16_t[]>(kInitialCapacity)),
      lineCapacity_(kInitialCapacity) {}

DictionaryReader::~DictionaryReader() = default;

namespace {

// One byte of `source`, or -1 at its end. It takes the byte straight from the stream buffer:
// istream::get builds a sentry for every byte, which made reading a large file ten times slower.
// The stream's state at the end is set as get would set it.
int GetByte(std::istream& source) {
    std::streambuf* buffer = source.rdbuf();
    const auto c =
        buffer != nullptr && source.good() ? buffer->sbumpc() : std::istream::traits_type::eof();
    if (c == std::istream::traits_type::eof()) {
        source.setstate(std::ios_base::eofbit | std::ios_base::failbit);
        return -1;
    }
    return static_cast<unsigned char>(c);
}

}  // namespace

DictionaryReader* DictionaryReader::Create(std::istream& source) {
    unsigned char mark[2] = {0, 0};
    size_t count = 0;
    for (; count < 2; ++count) {
        const int c = GetByte(source);
        if (c < 0) break;
        mark[count] = static_cast<unsigned char>(c);
    }
    if (count == 2 &&
        ((mark[0] == 0xFF && mark[1] == 0xFE) || (mark[0] == 0xFE && mark[1] == 0xFF))) {
        // The reader in the machine's order takes the file whose mark reads as U+FEFF here; a
        // Windows-only program could simply read the mark as little-endian.
        const bool fileLittle = mark[0] == 0xFF;
        const bool machineLittle = std::endian::native == std::endian::little;
        if (fileLittle == machineLittle) return new UnicodeReader(source);
        return new ByteSwapUnicodeReader(source);
    }
    // A short read leaves the stream failed, and a failed stream ignores a seek.
    source.clear();
    source.seekg(0);
    return new MultibyteReader(source);
}

void DictionaryReader::ReadBytes(unsigned char* destination, size_t& count) {
    size_t got = 0;
    for (; got < count; ++got) {
        const int c = GetByte(*source_);
        if (c < 0) break;
        destination[got] = static_cast<unsigned char>(c);
    }
    count = got;
}

size_t DictionaryReader::GrownCapacity(size_t capacity, size_t need) {
    while (capacity < need) capacity = capacity + capacity / 2;  // times 1.5, truncated
    return capacity;
}

void DictionaryReader::ReserveLine(size_t need) {
    if (need <= lineCapacity_) return;
    const size_t capacity = GrownCapacity(lineCapacity_, need);
    auto grown = std::make_unique<char16_t[]>(capacity);
    std::memcpy(grown.get(), line_.get(), lineLength_ * sizeof(char16_t));
    line_ = std::move(grown);
    lineCapacity_ = capacity;
}

void DictionaryReader::AppendUnit(char16_t unit) {
    ReserveLine(lineLength_ + 1);
    line_[lineLength_++] = unit;
}

const char16_t* DictionaryReader::FinishLine() {
    ReserveLine(lineLength_ + 1);
    line_[lineLength_] = u'\0';
    return line_.get();
}

}  // namespace lexkit_private
