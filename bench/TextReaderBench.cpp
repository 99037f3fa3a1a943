// The text readers and the value passes against baselines doing the same work in the same run:
//   - reading 100,000 lines through each reader, beside std::getline over the same multibyte
//     bytes in the same kind of stream (the cheapest line split that the loader could use);
//   - Unescape (with ExpandEntities behind it) over each line's value, beside copying the same
//     units into a value unchanged.
// Figures are the best of several rounds; the ratios are what to compare between runs.
//
//   TextReaderBench [rounds, default 5]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "dictionary/ByteRunValueRef.h"
#include "dictionary/DictionaryReader.h"
#include "dictionary/Unescape.h"

namespace {

using Clock = std::chrono::steady_clock;
using lexkit_private::ByteRunValueRef;
using lexkit_private::DictionaryReader;

constexpr int kLines = 100000;

std::u16string Text() {
    std::u16string text;
    for (int i = 0; i < kLines; ++i) {
        const std::string line = "\"$$$/Bench/Key_" + std::to_string(i) + "=Value number " +
                                 std::to_string(i) +
                                 " costs 5 #{euro}, ^Q quoted^Q and #{tab}done\"\r\n";
        text.append(line.begin(), line.end());
    }
    return text;
}

std::string Utf16(const std::u16string& text, bool little) {
    std::string bytes;
    bytes.reserve(2 * text.size() + 2);
    for (char16_t u : std::u16string(1, 0xFEFF) + text) {
        bytes.push_back(static_cast<char>(little ? u & 0xFF : u >> 8));
        bytes.push_back(static_cast<char>(little ? u >> 8 : u & 0xFF));
    }
    return bytes;
}

double BestSeconds(int rounds, const std::function<size_t()>& work, size_t& check) {
    double best = 1e30;
    for (int r = 0; r < rounds; ++r) {
        const auto t0 = Clock::now();
        check = work();
        best = std::min(best, std::chrono::duration<double>(Clock::now() - t0).count());
    }
    return best;
}

size_t ReadAll(const std::string& bytes) {
    std::istringstream stream(bytes);
    std::unique_ptr<DictionaryReader> reader(DictionaryReader::Create(stream));
    stream.clear();
    stream.seekg(0);
    size_t units = 0;
    while (const char16_t* line = reader->ReadLine()) {
        units += std::char_traits<char16_t>::length(line);
    }
    return units;
}

size_t GetlineAll(const std::string& bytes) {
    std::istringstream stream(bytes);
    std::string line;
    size_t units = 0;
    while (std::getline(stream, line)) units += line.size();
    return units;
}

}  // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 5;
    const std::u16string text = Text();
    const std::string multibyte(text.begin(), text.end());
    const std::string little = Utf16(text, true);
    const std::string big = Utf16(text, false);

    size_t check = 0;
    const double baseline = BestSeconds(
        rounds, [&] { return GetlineAll(multibyte); }, check);
    std::printf("lines: %d, %zu bytes multibyte\n", kLines, multibyte.size());
    std::printf("%-28s %10.1f ms %12.0f lines/s  ratio 1.00\n", "std::getline (baseline)",
                baseline * 1e3, kLines / baseline);
    const struct {
        const char* name;
        const std::string* bytes;
    } readers[] = {{"MultibyteReader", &multibyte},
                   {"UnicodeReader", &little},
                   {"ByteSwapUnicodeReader", &big}};
    for (const auto& r : readers) {
        const double s = BestSeconds(
            rounds, [&] { return ReadAll(*r.bytes); }, check);
        std::printf("%-28s %10.1f ms %12.0f lines/s  ratio %.2f\n", r.name, s * 1e3, kLines / s,
                    s / baseline);
    }

    // The values as the loader hands them over: behind the first '='.
    std::vector<std::u16string> values;
    for (size_t at = 0; at < text.size();) {
        const size_t end = text.find(u'\n', at);
        const std::u16string line = text.substr(at, end - at);
        values.push_back(line.substr(line.find(u'=') + 1));
        at = end + 1;
    }
    const double copy = BestSeconds(
        rounds,
        [&] {
            size_t units = 0;
            for (const auto& v : values)
                units += ByteRunValueRef::FromUnits(v.data(), v.size()).UnitLength();
            return units;
        },
        check);
    const double passes = BestSeconds(
        rounds,
        [&] {
            size_t units = 0;
            for (const auto& v : values) {
                units += lexkit_private::Unescape(v.data(), static_cast<uint32_t>(v.size()))
                             .UnitLength();
            }
            return units;
        },
        check);
    std::printf("%-28s %10.1f ms %12.0f values/s ratio 1.00\n", "plain value copy (baseline)",
                copy * 1e3, kLines / copy);
    std::printf("%-28s %10.1f ms %12.0f values/s ratio %.2f\n", "Unescape + ExpandEntities",
                passes * 1e3, kLines / passes, passes / copy);
    return check == 0 ? 1 : 0;
}
