// Loading a 2.7 file of 100,000 entries and a UTF-16 text file of 100,000 lines, and lookups per
// second against both stores. Baselines in the same run: copying the file's bytes (for loads) and
// a std::unordered_map of the same entries (for lookups), so the figures are ratios that hold on
// a loaded machine.
//
// Usage: DictionaryBench [entries] [rounds]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <unordered_map>
#include <vector>

#include "dictionary/Dictionary.h"
#include "dictionary/DictionaryWriter.h"
#include "dictionary/MemoryStream.h"

namespace {

using lexkit_private::Dictionary;
using Clock = std::chrono::steady_clock;

double Seconds(Clock::time_point from) {
    return std::chrono::duration<double>(Clock::now() - from).count();
}

template <typename F>
double Median(int rounds, F&& run) {
    std::vector<double> times;
    for (int i = 0; i < rounds; ++i) times.push_back(run());
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

volatile size_t sink;

}  // namespace

int main(int argc, char** argv) {
    const size_t count = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 100000;
    const int rounds = argc > 2 ? std::atoi(argv[2]) : 5;

    std::vector<Dictionary::VisibleEntry> entries;
    std::vector<std::string> lookups;
    for (size_t i = 0; i < count; ++i) {
        // Keys vary near their start, as real ones do ("/private/Vigil/...", "/Vigil/..."): the
        // hash samples at most 7 bytes of a key, so keys alike at every sampled byte share a
        // bucket.
        char prefix[16];
        std::snprintf(prefix, sizeof prefix, "%08zx", (i * 2654435761u) & 0xFFFFFFFFu);
        std::string key = "$$$/" + std::string(prefix) + "/Text_" + std::to_string(i);
        const std::u16string value =
            u"Localised text number " + std::u16string(i % 40, u'x') + u" \u00e9\u20ac";
        entries.push_back({key.substr(3),
                           lexkit_private::ByteRunValueRef::FromUnits(value.data(), value.size())});
        lookups.push_back(key + "=default");
    }
    std::ostringstream binaryOut;
    std::string error;
    lexkit_private::WriteBinaryDictionary(binaryOut, entries, lexkit_private::kByteOrderLittle, "",
                                          error);
    std::ostringstream textOut;
    lexkit_private::WriteTextDictionary(textOut, entries);
    const std::string binary = binaryOut.str();
    const std::string text = textOut.str();

    auto copyBaseline = [](const std::string& bytes) {
        auto start = Clock::now();
        std::vector<char> copy(bytes.begin(), bytes.end());
        sink = sink + static_cast<size_t>(copy[copy.size() / 2]);
        return Seconds(start);
    };
    auto load = [](const std::string& bytes) {
        auto start = Clock::now();
        Dictionary d;
        lexkit_private::MemoryStream stream(bytes.data(), bytes.size());
        d.Load(stream);
        const double t = Seconds(start);
        if (!d.Valid()) std::fprintf(stderr, "load flawed\n");
        return t;
    };
    const double copyBinary = Median(rounds, [&] { return copyBaseline(binary); });
    const double loadBinary = Median(rounds, [&] { return load(binary); });
    const double copyText = Median(rounds, [&] { return copyBaseline(text); });
    const double loadText = Median(rounds, [&] { return load(text); });
    std::printf("entries %zu: 2.7 file %zu bytes, text file %zu bytes\n", count, binary.size(),
                text.size());
    std::printf("load 2.7:  %8.2f ms  (%.0fx a copy of its bytes, %.2f ms)\n", loadBinary * 1e3,
                loadBinary / copyBinary, copyBinary * 1e3);
    std::printf("load text: %8.2f ms  (%.0fx a copy of its bytes, %.2f ms)\n", loadText * 1e3,
                loadText / copyText, copyText * 1e3);

    Dictionary block;
    Dictionary table;
    lexkit_private::MemoryStream binaryStream(binary.data(), binary.size());
    block.Load(binaryStream);
    lexkit_private::MemoryStream textStream(text.data(), text.size());
    table.Load(textStream);
    std::unordered_map<std::string, std::u16string> map;
    for (const auto& e : entries) map.emplace("$$$" + e.key, e.value.Text());

    auto lookupRate = [&](auto&& one) {
        return Median(rounds, [&] {
            auto start = Clock::now();
            size_t total = 0;
            for (const std::string& lookup : lookups) total += one(lookup);
            sink = sink + total;
            return Seconds(start);
        });
    };
    const double mapTime = lookupRate([&](const std::string& t) {
        auto it = map.find(t.substr(0, t.find('=')));
        return it == map.end() ? 0 : it->second.size();
    });
    const double blockTime = lookupRate(
        [&](const std::string& t) { return size_t{block.Find(t.c_str(), nullptr).Length()}; });
    const double tableTime = lookupRate(
        [&](const std::string& t) { return size_t{table.Find(t.c_str(), nullptr).Length()}; });
    const double n = static_cast<double>(count);
    std::printf("lookups/s unordered_map baseline: %10.0f\n", n / mapTime);
    std::printf("lookups/s block store (2.7):      %10.0f  (%.2f of baseline)\n", n / blockTime,
                mapTime / blockTime);
    std::printf("lookups/s hash table (text):      %10.0f  (%.2f of baseline)\n", n / tableTime,
                mapTime / tableTime);
    return 0;
}
