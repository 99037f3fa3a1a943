// The service's output under the manager: a log that rotates at its size, loses no line and tears
// none, and that only its owner may read.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/posix/OutputCapture.h"
#include "platform/posix/RotatingLog.h"
#include "tests/platform/FakeServiceFixture.h"
#include "tests/support/FileText.h"
#include "tests/support/ScopedUmask.h"

namespace {

using namespace Osb;
using vigil_test::PollUntil;

bool Exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

// The last bytes of `path`: enough to see the line a writer ends with, without reading megabytes.
std::string Tail(const std::string& path, size_t bytes) {
    std::ifstream in(path, std::ios::ate);
    const auto size = static_cast<size_t>(std::max<std::streamoff>(0, in.tellg()));
    in.seekg(static_cast<std::streamoff>(size - std::min(size, bytes)));
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

off_t SizeOf(const std::string& path) {
    struct stat info = {};
    return stat(path.c_str(), &info) == 0 ? info.st_size : -1;
}

// The files of a rotating log, oldest first: PATH.keep .. PATH.1, PATH (those that exist).
std::vector<std::string> Generations(const std::string& path, int keep) {
    std::vector<std::string> files;
    for (int n = keep; n >= 1; --n) {
        if (Exists(path + "." + std::to_string(n))) files.push_back(path + "." + std::to_string(n));
    }
    if (Exists(path)) files.push_back(path);
    return files;
}

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// A writer's line: "WRITER NUMBER " and then `fill` to the end, nothing else.
bool ParseNumbered(std::string_view line, char fill, int& writer, int& number) {
    auto take = [&line](int& value) {
        const size_t blank = line.find(' ');
        if (blank == 0 || blank == std::string_view::npos ||
            line.substr(0, blank).find_first_not_of("0123456789") != std::string_view::npos) {
            return false;
        }
        value = std::stoi(std::string(line.substr(0, blank)));
        line.remove_prefix(blank + 1);
        return true;
    };
    return take(writer) && take(number) && !line.empty() &&
           line.find_first_not_of(fill) == std::string_view::npos;
}

TEST(RotatingLogTest, RotatesBetweenLinesAndKeepsTheNewestFiles) {
    struct Row {
        const char* what;
        uint64_t limit;
        int keep;
        int lines;       // written, "line N" padded to 20 bytes with its line feed
        size_t chunk;    // bytes per write(), cutting lines anywhere
        int firstKept;   // the oldest line left in the files
        size_t files;    // files left
    };
    // 20-byte lines and a limit of 100: five lines per file.
    const Row rows[] = {
        {"below the limit", 100, 3, 5, 7, 0, 1},
        {"one line over", 100, 3, 6, 20, 0, 2},
        {"every file full", 100, 3, 20, 13, 0, 4},
        {"oldest dropped", 100, 2, 23, 1, 10, 3},
        {"limit not a multiple of the line", 90, 2, 12, 33, 0, 3},
    };
    for (const Row& row : rows) {
        vigil_test::ScratchRoot root;
        const std::string path = root / "out.log";
        std::string text;
        for (int n = 0; n < row.lines; ++n) {
            std::string line = "line " + std::to_string(n);
            line.resize(19, '.');
            text += line + "\n";
        }
        {
            Scm::RotatingLog log(path, row.limit, row.keep);
            ASSERT_EQ(log.open(), 0u) << row.what;
            for (size_t at = 0; at < text.size(); at += row.chunk) {
                log.write(std::string_view(text).substr(at, row.chunk));
            }
        }
        const std::vector<std::string> files = Generations(path, row.keep);
        EXPECT_EQ(files.size(), row.files) << row.what;
        EXPECT_FALSE(Exists(path + "." + std::to_string(row.keep + 1))) << row.what;
        std::string kept;
        for (const std::string& file : files) {
            const std::string part = vigil_test::FileText(file);
            EXPECT_LE(part.size(), row.limit) << row.what << " " << file;
            EXPECT_TRUE(part.empty() || part.back() == '\n') << row.what << ": torn line in " << file;
            kept += part;
        }
        EXPECT_EQ(kept, text.substr(static_cast<size_t>(row.firstKept) * 20)) << row.what;
    }
}

TEST(RotatingLogTest, AnOverlongLineGoesAloneAndAnUnendedOneWaitsForFlush) {
    vigil_test::ScratchRoot root;
    const std::string path = root / "out.log";
    Scm::RotatingLog log(path, 10, 2);
    ASSERT_EQ(log.open(), 0u);
    log.write("short\n");
    log.write("a line longer than the limit\n");
    log.write("tail without end");
    EXPECT_EQ(vigil_test::FileText(path + ".1"), "short\n");
    EXPECT_EQ(vigil_test::FileText(path), "a line longer than the limit\n")
        << "the waiting piece went out";
    log.flush();
    EXPECT_EQ(vigil_test::FileText(path + ".1"), "a line longer than the limit\n");
    EXPECT_EQ(vigil_test::FileText(path + ".2"), "short\n");
    EXPECT_EQ(vigil_test::FileText(path), "tail without end");
}

TEST(RotatingLogTest, FilesAreTheOwnersAloneWhateverTheUmask) {
    vigil_test::ScratchRoot root;
    const std::string path = root / "out.log";
    // A file left readable by everybody is narrowed when opened.
    std::ofstream(path + ".old") << "";
    ASSERT_EQ(chmod((path + ".old").c_str(), 0644), 0);
    const mode_t previous = umask(0);
    {
        Scm::RotatingLog log(path, 10, 2);
        Scm::RotatingLog old(path + ".old", 10, 2);
        EXPECT_EQ(log.open(), 0u);
        EXPECT_EQ(old.open(), 0u);
        log.write("first line\nsecond line\n");
    }
    umask(previous);
    for (const std::string& file : {path, path + ".1", path + ".old"}) {
        EXPECT_EQ(vigil_test::ModeOf(file.c_str()), 0600) << file;
    }
    // Never through a link: a planted one is refused and what it points at stays untouched.
    ASSERT_EQ(symlink((root / "elsewhere").c_str(), (root / "linked.log").c_str()), 0);
    Scm::RotatingLog linked(root / "linked.log", 100, 1);
    EXPECT_EQ(linked.open(), Err::kAccessDenied);
    EXPECT_FALSE(Exists(root / "elsewhere"));
}

// Standard output and error of this process, put back when the object goes.
class SavedOutput {
public:
    SavedOutput() : out_(dup(1)), err_(dup(2)) {}
    ~SavedOutput() {
        dup2(out_, 1);
        dup2(err_, 2);
        close(out_);
        close(err_);
    }

private:
    int out_;
    int err_;
};

TEST(OutputCaptureTest, ConcurrentWritersLoseNoLineAtRotationsOrAtTheHandOver) {
    vigil_test::ScratchRoot root;
    const std::string path = root / "out.log";
    constexpr int kThreads = 4;
    constexpr int kLines = 2000;
    constexpr int kKeep = 100;  // room for everything: no line may be missing
    {
        SavedOutput saved;
        Scm::OutputCapture capture;
        ASSERT_EQ(capture.begin(path, 4096, kKeep), 0u);
        std::vector<std::thread> writers;
        for (int t = 0; t < kThreads; ++t) {
            writers.emplace_back([t] {
                for (int n = 0; n < kLines; ++n) {
                    std::string line = std::to_string(t) + " " + std::to_string(n) + " ";
                    line.resize(39, '-');
                    line += '\n';
                    // Standard error too: both are captured.
                    [[maybe_unused]] const ssize_t written =
                        write(n % 2 == 0 ? 1 : 2, line.data(), line.size());
                }
            });
        }
        for (std::thread& writer : writers) writer.join();
        const char last[] = "written before the hand-over\n";
        ASSERT_EQ(write(1, last, sizeof(last) - 1), static_cast<ssize_t>(sizeof(last) - 1));
        capture.end();
        const char after[] = "written after the hand-over\n";
        ASSERT_EQ(write(1, after, sizeof(after) - 1), static_cast<ssize_t>(sizeof(after) - 1));
    }
    const std::vector<std::string> files = Generations(path, kKeep);
    ASSERT_GT(files.size(), 10u) << "the capture did not rotate";
    ASSERT_FALSE(Exists(path + "." + std::to_string(kKeep)));
    std::map<int, int> next;  // per writer, the number of the line expected next
    std::vector<std::string> others;
    for (const std::string& file : files) {
        const std::string text = vigil_test::FileText(file);
        EXPECT_LE(text.size(), 4096u) << file;
        EXPECT_EQ(vigil_test::ModeOf(file.c_str()), 0600) << file;
        for (const std::string& line : Lines(text)) {
            int writer = 0;
            int number = 0;
            if (!ParseNumbered(line, '-', writer, number)) {
                others.push_back(line);
                continue;
            }
            ASSERT_EQ(line.size(), 39u) << "torn: " << line;
            EXPECT_EQ(number, next[writer]++) << "out of order or lost: " << line;
        }
    }
    for (int t = 0; t < kThreads; ++t) EXPECT_EQ(next[t], kLines) << "writer " << t;
    EXPECT_EQ(others, (std::vector<std::string>{"written before the hand-over",
                                                "written after the hand-over"}));
}

class ServiceLogTest : public vigil_test::FakeServiceTest {};

TEST_F(ServiceLogTest, ServiceOutputRotatesAtItsSizeWithNothingLost) {
    // Two writers of 60000 lines of 100 bytes: 12 MB, past the 10 MiB of one file.
    constexpr int kLines = 60000;
    setenv("FAKE_SERVICE_MODE", "chatter", 1);
    setenv("FAKE_SERVICE_LINES", std::to_string(kLines).c_str(), 1);
    ASSERT_TRUE(start()) << ErrorCode();
    const std::string path = Scm::LogPath("Fake");
    ASSERT_TRUE(PollUntil([&] { return Tail(path, 200).find("chatter done") != std::string::npos; },
                          std::chrono::seconds(60)));
    unsetenv("FAKE_SERVICE_LINES");

    ASSERT_TRUE(Exists(path + ".1")) << "no rotation; the log has " << SizeOf(path) << " bytes";
    EXPECT_FALSE(Exists(path + ".2"));
    std::map<int, int> next;
    for (const std::string& file : {path + ".1", path}) {
        EXPECT_LE(SizeOf(file), static_cast<off_t>(Scm::kServiceLogLimit)) << file;
        EXPECT_EQ(vigil_test::ModeOf(file.c_str()), 0600) << file;
        for (const std::string& line : Lines(vigil_test::FileText(file))) {
            if (line.rfind("chatter ", 0) != 0 || line == "chatter done") continue;
            int writer = 0;
            int number = 0;
            ASSERT_TRUE(ParseNumbered(std::string_view(line).substr(8), 'x', writer, number))
                << "torn: " << line.substr(0, 120);
            ASSERT_EQ(line.size(), 99u) << "torn: " << line.substr(0, 120);
            ASSERT_TRUE(writer == 0 || writer == 1) << line.substr(0, 120);
            ASSERT_EQ(number, next[writer]++) << "out of order or lost: " << line.substr(0, 120);
        }
    }
    EXPECT_EQ(next[0], kLines);
    EXPECT_EQ(next[1], kLines);
}

}  // namespace
