// lexicon-tool: compiles text dictionaries into binary 2.7 files and writes any dictionary file
// back out as UTF-16 text. See kUsage below.
#include <cstdio>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "dictionary/Dictionary.h"
#include "dictionary/DictionaryFormat.h"
#include "dictionary/DictionaryWriter.h"
#include "dictionary/MemoryStream.h"
#include "platform/FileSystem.h"
#include "platform/Utf.h"

namespace {

using lexkit_private::Dictionary;

constexpr int kExitBadInput = 1;
constexpr int kExitUsage = 64;

const char kUsage[] = R"(Usage: lexicon-tool COMMAND [options] INPUT OUTPUT

Reads a dictionary file in any form (UTF-16 text with a byte-order mark, multibyte text in
Windows-1252, or binary 1.0, 1.5, 2.x) and writes it in another.

Commands:
  compile INPUT OUTPUT     write a binary 2.7 file (one block, every entry live)
      [--big-endian]         numbers and UTF-16 units big-endian (default little-endian)
      [--header TEXT]        the file's header text (default empty)
  text INPUT OUTPUT        write a UTF-16LE text file with a byte-order mark, one line
                           "key=value" in quote marks per entry

Options for both:
  --utf8                   read INPUT as UTF-8 text (a text file without a byte-order mark
                           is otherwise Windows-1252); a UTF-8 byte-order mark is skipped
  --lenient                write what loaded even if some input lines or tables were bad
  --help                   this text

Text input: one entry per line, "$$$/key=value" or "/key=value", optionally between quote
marks; escapes (\n \r \t \b \" ^n ^T ...) and entities (#{copy} #{U+20AC}) apply to values.
The later of two lines with one key wins. Entries with an empty key are left out.

Exit status: 0 success, 1 unreadable, flawed or unwritable input/output, 64 usage error.
)";

struct Options {
    std::string command;
    std::string input;
    std::string output;
    bool bigEndian = false;
    bool utf8 = false;
    bool lenient = false;
    std::string header;
};

int Usage(const char* problem) {
    if (problem != nullptr) std::fprintf(stderr, "lexicon-tool: %s\n\n", problem);
    std::fputs(kUsage, stderr);
    return kExitUsage;
}

// Parses the command line; returns 0, or the exit code to end with.
int Parse(int argc, char** argv, Options& options) {
    std::vector<std::string> positional;
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            std::fputs(kUsage, stdout);
            return -1;
        } else if (arg == "--big-endian") {
            options.bigEndian = true;
        } else if (arg == "--little-endian") {
            options.bigEndian = false;
        } else if (arg == "--utf8") {
            options.utf8 = true;
        } else if (arg == "--lenient") {
            options.lenient = true;
        } else if (arg == "--header") {
            if (++i == argc) return Usage("--header needs a text");
            options.header = argv[i];
        } else if (arg.starts_with("--")) {
            return Usage(("unknown option " + std::string(arg)).c_str());
        } else {
            positional.emplace_back(arg);
        }
    }
    if (positional.size() != 3) return Usage("expected COMMAND INPUT OUTPUT");
    options.command = positional[0];
    options.input = positional[1];
    options.output = positional[2];
    if (options.command != "compile" && options.command != "text") {
        return Usage(("unknown command " + options.command).c_str());
    }
    return 0;
}

// UTF-8 text becomes UTF-16 in the machine's order behind a byte-order mark, which the loader
// reads as it reads any UTF-16 file. The mark gets a line of its own: in front of an unquoted
// first line it would otherwise become part of that line's key.
std::vector<uint8_t> Utf8ToMarkedUtf16(const std::vector<uint8_t>& bytes) {
    std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    if (text.starts_with("\xEF\xBB\xBF")) text.remove_prefix(3);
    const std::u16string units = u"\uFEFF\n" + Osb::Utf8ToUtf16(text);
    const auto* raw = reinterpret_cast<const uint8_t*>(units.data());
    return std::vector<uint8_t>(raw, raw + units.size() * sizeof(char16_t));
}

int Run(const Options& options) {
    std::vector<uint8_t> bytes;
    if (const uint32_t code = Osb::ReadFileBytes(Osb::Utf8ToUtf16(options.input), bytes)) {
        std::fprintf(stderr, "lexicon-tool: cannot read %s (error %u)\n", options.input.c_str(),
                     code);
        return kExitBadInput;
    }
    if (options.utf8) bytes = Utf8ToMarkedUtf16(bytes);
    Dictionary dictionary;
    lexkit_private::MemoryStream in(bytes.data(), bytes.size());
    dictionary.Load(in);
    if (!dictionary.Valid()) {
        std::fprintf(stderr, "lexicon-tool: %s: %s\n", options.input.c_str(),
                     "some lines or tables are malformed (a bad '$' start, a cut or "
                     "inconsistent binary table)");
        if (!options.lenient) return kExitBadInput;
    }
    std::vector<Dictionary::VisibleEntry> entries = dictionary.VisibleEntries();
    std::erase_if(entries, [](const Dictionary::VisibleEntry& e) { return e.key.empty(); });

    std::ostringstream out;
    if (options.command == "compile") {
        std::string error;
        const int order =
            options.bigEndian ? lexkit_private::kByteOrderBig : lexkit_private::kByteOrderLittle;
        if (!lexkit_private::WriteBinaryDictionary(out, entries, order, options.header, error)) {
            std::fprintf(stderr, "lexicon-tool: %s: %s\n", options.input.c_str(), error.c_str());
            return kExitBadInput;
        }
    } else {
        lexkit_private::WriteTextDictionary(out, entries);
    }
    const std::string result = out.str();
    const std::span<const uint8_t> span(reinterpret_cast<const uint8_t*>(result.data()),
                                        result.size());
    if (const uint32_t code = Osb::WriteFileBytes(Osb::Utf8ToUtf16(options.output), span)) {
        std::fprintf(stderr, "lexicon-tool: cannot write %s (error %u)\n", options.output.c_str(),
                     code);
        return kExitBadInput;
    }
    std::printf("%s: %zu entries\n", options.output.c_str(), entries.size());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (const int parsed = Parse(argc, argv, options)) return parsed < 0 ? 0 : parsed;
    return Run(options);
}
