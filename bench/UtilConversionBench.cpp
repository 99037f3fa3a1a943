// The configuration step's helpers beside baselines doing the same work in the same run:
// mst_util's unchecked UTF conversions against the platform's validating ones on the same text, and
// the locale search for the last table row against the first (the search is a linear scan).
// Printed as nanoseconds per call and as ratios to the baseline.
//
//   UtilConversionBench [iterations, default 200000]
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "locale/LocaleUtil.h"
#include "platform/Utf.h"
#include "util/UtfConvert.h"

namespace {

using Clock = std::chrono::steady_clock;

// Keeps the optimiser from dropping a result.
volatile size_t sink = 0;

template <typename F>
double NanosPerCall(long iterations, F&& f) {
    const auto start = Clock::now();
    for (long i = 0; i < iterations; ++i) sink = sink + f();
    return std::chrono::duration<double, std::nano>(Clock::now() - start).count() /
           static_cast<double>(iterations);
}

void Report(const char* what, double subject, const char* baselineName, double baseline) {
    std::printf("%-34s %9.1f ns   %-28s %9.1f ns   ratio %.2f\n", what, subject, baselineName,
                baseline, subject / baseline);
}

}  // namespace

int main(int argc, char** argv) {
    const long iterations = argc > 1 ? std::atol(argv[1]) : 200000;
    // A dictionary path as the step composes it, with some text outside ASCII.
    const std::string utf8 =
        "/opt/orvanta/Mirelle Studio/Programme \xC3\xA9t\xC3\xA9/Assets/locale/ja_JP/"
        "\xE8\xBE\x9E\xE6\x9B\xB8/lexicon.dct";
    const std::u16string wide = Osb::Utf8ToUtf16(utf8);
    if (mst_util::to_utf16(utf8) != wide || mst_util::to_utf8(wide) != utf8) {
        std::fprintf(stderr, "the two conversions disagree on the sample text\n");
        return 1;
    }

    Report("mst_util::to_utf16",
           NanosPerCall(iterations, [&] { return mst_util::to_utf16(utf8).size(); }),
           "Osb::Utf8ToUtf16",
           NanosPerCall(iterations, [&] { return Osb::Utf8ToUtf16(utf8).size(); }));
    Report("mst_util::to_utf8",
           NanosPerCall(iterations, [&] { return mst_util::to_utf8(wide).size(); }),
           "Osb::Utf16ToUtf8",
           NanosPerCall(iterations, [&] { return Osb::Utf16ToUtf8(wide).size(); }));
    const std::string last = "ZU_za";
    const std::string first = "AF_za";
    Report(
        "LocaleIndexFromName (row 206)",
        NanosPerCall(iterations, [&] { return size_t{lexkit_private::LocaleIndexFromName(last)}; }),
        "LocaleIndexFromName (row 1)", NanosPerCall(iterations, [&] {
            return size_t{lexkit_private::LocaleIndexFromName(first)};
        }));
    return 0;
}
