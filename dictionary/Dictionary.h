// The string dictionary: the entries of one or more loaded dictionary files, and lookups of
// "key=default" texts against them.
//
// Two stores exist side by side and only one is searched: the HashTable this class derives from
// (text lines and 1.x files) while the major version is below 2, and the FastArray (2.x files)
// once a 2.x block has been loaded, after which entries of the hash table are no longer seen.
// Loads never raise for bad data: a flaw clears Valid() and the load goes on or stops, keeping
// what arrived complete; a lookup of a key that did not arrive yields its default text. A failed
// text conversion raises LxErrException (see LxErrException.h).
//
// Not thread-safe: loads run before any lookup, and lookups hold the lookup lock (LookupString.h),
// since even a search writes state (the hash table's search memory, the counted values).
#pragma once

#include <cstdint>
#include <istream>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "dictionary/ByteRunValueRef.h"
#include "dictionary/FastArray.h"
#include "dictionary/HashTable.h"

namespace lexkit_private {

class Dictionary : public HashTable {
  public:
    Dictionary();
    ~Dictionary();

    // Loads a file in any form from `stream` (seekable, positioned at its start; not owned): text
    // in UTF-16 of either order or multibyte text, or binary of a known version. The form follows
    // from the content alone.
    void Load(std::istream& stream);
    // Reads the binary header and the layout its version names; any other version loads nothing.
    void LoadBinary(std::istream& stream);
    // Adds one NUL-terminated UTF-16 line of a text file, or clears Valid() for a bad '$' start.
    void AddLine(const char16_t* line);
    // The value of the key in `text` ("[$$$]key[=default]"), or its default (unescaped, entities
    // expanded) on a miss, or the shared empty value. `encoding` is null or points to the encoding
    // number that the default is converted from; null or 0 widens each byte.
    ByteRunValueRef Find(const char* text, const uint32_t* encoding);

    bool Valid() const { return valid_; }
    int8_t MajorVersion() const { return major_; }
    int8_t MinorVersion() const { return minor_; }
    // The header text of the last 2.x file, NUL-terminated, or null.
    const char* HeaderText() const { return headerText_.get(); }
    const FastArray& Array() const { return *fastArray_; }

    // One entry that a lookup of its key finds, in the store that lookups search.
    struct VisibleEntry {
        std::string key;
        ByteRunValueRef value;
    };
    // The entries that lookups reach, each key once, with the value a lookup yields. Entries of a
    // 2.x block without keys are left out, since no key reaches them.
    std::vector<VisibleEntry> VisibleEntries();

  private:
    void LoadVersion1(std::istream& stream, int8_t minor, uint8_t encoding);
    // Appends the run of entries `first`..`last` (linked in file order) in front of `bucket`.
    void LinkRun(uint32_t bucket, HashItem* first, HashItem* last);
    ByteRunValueRef MakeValue1x(std::unique_ptr<unsigned char[]> bytes, uint32_t length,
                                uint8_t encoding) const;

    bool valid_ = true;
    FastArray* fastArray_;  // one reference held from construction to destruction
    int8_t major_ = 0;
    int8_t minor_ = 0;
    std::unique_ptr<char[]> headerText_;
};

}  // namespace lexkit_private
