// Dictionary::Load and AddLine: telling the forms apart, and the text form line by line.

#include <memory>
#include <string>
#include <string_view>

#include "dictionary/ByteRunKey.h"
#include "dictionary/Dictionary.h"
#include "dictionary/DictionaryEntry.h"
#include "dictionary/DictionaryFormat.h"
#include "dictionary/DictionaryReader.h"
#include "dictionary/Unescape.h"

namespace lexkit_private {

void Dictionary::Load(std::istream& stream) {
    // The reader looks at the first two bytes and leaves the stream behind a UTF-16 byte-order
    // mark, or at 0. The magic is looked for from there, so a mark in front of a magic still
    // counts as binary, and the binary reader, starting at 0, then finds no known version.
    std::unique_ptr<DictionaryReader> reader(DictionaryReader::Create(stream));
    char magic[kBinaryMagicLength];
    stream.read(magic, sizeof magic);
    const bool binary = stream.gcount() == static_cast<std::streamsize>(sizeof magic) &&
                        std::string_view(magic, sizeof magic) == kBinaryMagic;
    stream.clear();
    stream.seekg(0);
    if (binary) {
        LoadBinary(stream);
        return;
    }
    // The stream is back at 0, so a UTF-16 reader meets its byte-order mark again: a lone mark on
    // the first line is skipped here, one in front of content stays part of that line.
    while (const char16_t* line = reader->ReadLine()) {
        if (line[0] == u'\0' || (line[0] == 0xFEFF && line[1] == u'\0')) continue;
        AddLine(line);
    }
}

namespace {

// The first quote mark at or behind `from` that has no backslash right before it.
size_t UnescapedQuote(std::u16string_view line, size_t from) {
    for (size_t i = from; i < line.size(); ++i) {
        if (line[i] == u'"' && (i == 0 || line[i - 1] != u'\\')) return i;
    }
    return std::u16string_view::npos;
}

}  // namespace

void Dictionary::AddLine(const char16_t* line) {
    std::u16string_view entry(line);
    if (const size_t open = UnescapedQuote(entry, 0); open != std::u16string_view::npos) {
        const size_t close = UnescapedQuote(entry, open + 1);
        entry =
            entry.substr(open + 1, close == std::u16string_view::npos ? std::u16string_view::npos
                                                                      : close - open - 1);
    }
    if (!entry.empty() && entry[0] == u'$') {
        if (!entry.starts_with(u"$$$")) {
            valid_ = false;
            return;
        }
        entry.remove_prefix(3);
    }
    const size_t equals = entry.find(u'=');
    const std::u16string_view keyUnits = entry.substr(0, equals);
    const std::u16string_view valueUnits =
        equals == std::u16string_view::npos ? std::u16string_view() : entry.substr(equals + 1);
    // Each unit of the key gives its low byte: characters above U+00FF can collide.
    std::string key(keyUnits.size(), '\0');
    for (size_t i = 0; i < keyUnits.size(); ++i) key[i] = static_cast<char>(keyUnits[i] & 0xFF);
    const auto keyLength = static_cast<uint32_t>(key.size());
    const ByteRunValueRef value =
        Unescape(valueUnits.data(), static_cast<uint32_t>(valueUnits.size()));

    if (major_ >= 2) {
        if (fastArray_->Add(reinterpret_cast<const unsigned char*>(key.data()), keyLength,
                            value.Bytes(), value.Length()) == FastArray::kNotFound) {
            valid_ = false;  // a key or value too long for a block's u16 lengths
        }
        return;
    }
    const ByteRunKey probe(key.data(), keyLength, false);
    delete Remove(probe);
    Insert(new DictionaryEntry(key.data(), keyLength, value));
}

}  // namespace lexkit_private
