// The cache file through the built executable when a save cannot finish: the process killed at
// random moments under a steady stream of changes. Whatever happens, the file holds one whole list
// that a client was told about, or the list of the request that was under way, and the next start
// loads it.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "platform/Exception.h"
#include "platform/Utf.h"
#include "tests/e2e/AgentProcess.h"
#include "tests/support/PollUntil.h"
#include "tests/support/ScratchRoot.h"
#include "tests/support/Utf16Le.h"
#include "tools/client/AgentConnection.h"

namespace vigil_test {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using List = std::vector<std::string>;

const vigil_client::Guid kGuid{0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5, 0xA6, 0xA7,
                               0xA8, 0xA9, 0xAA, 0xAB, 0xAC, 0xAD, 0xAE, 0xAF};
const std::string kText = "A3A2A1A0-A5A4-A7A6-A9A8-ABAAAFAEADAC";
// Watch the folder alone, report changes, not removals: ", 0, 1, 0, 0, " in the file.
const vigil_client::FolderOptions kOptions{false, true, false};
const char* const kPipe = "durable cache";

const std::string kDataTail = "var/lib/Orvanta/Mirelle Studio/File Agent/";

// The bytes the file must hold for `list`, written out independently of the service's encoder.
std::string FileFor(const List& list) {
    std::string text = "0.5\n";
    for (const std::string& path : list) text += kText + ", 0, 1, 0, 0, " + path + "\n";
    return Utf16Le<std::string>(Osb::Utf8ToUtf16(text));
}

std::string BytesAt(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// `count` existing folders with long names, so that each save has a good deal to write. Each path
// stays below the 249 units a line of the file can carry.
List MakePool(const ScratchRoot& root, int count) {
    List pool;
    for (int i = 0; i < count; ++i) {
        const std::string number = std::to_string(1000 + i);
        const std::string path = root / ("pool/" + std::string(190, 'f') + number + "/");
        fs::create_directories(path);
        pool.push_back(path);
    }
    return pool;
}

// What AddFolders and RemoveFolders do to a client's list, the order included.
List Added(List list, const List& paths) {
    for (const std::string& path : paths) {
        if (std::find(list.begin(), list.end(), path) == list.end()) list.push_back(path);
    }
    return list;
}
List Removed(List list, const List& paths) {
    for (const std::string& path : paths) std::erase(list, path);
    return list;
}

// The opens of files in one folder, as the kernel reports them.
class FolderOpens {
  public:
    explicit FolderOpens(const std::string& folder) {
        fd_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        if (fd_ >= 0) inotify_add_watch(fd_, folder.c_str(), IN_OPEN | IN_CREATE);
    }
    ~FolderOpens() {
        if (fd_ >= 0) close(fd_);
    }
    FolderOpens(const FolderOpens&) = delete;
    FolderOpens& operator=(const FolderOpens&) = delete;

    bool valid() const { return fd_ >= 0; }
    // Forgets what has been reported so far.
    void drain() {
        alignas(inotify_event) char buffer[4096];
        while (read(fd_, buffer, sizeof(buffer)) > 0) {
        }
    }
    // True once a file of the folder is opened or made, within `timeoutMs`.
    bool next(int timeoutMs) {
        pollfd fds{fd_, POLLIN, 0};
        if (poll(&fds, 1, timeoutMs) <= 0) return false;
        drain();
        return true;
    }

  private:
    int fd_ = -1;
};

// One client sending AddFolders and RemoveFolders back to back until the service goes, keeping
// the list the service last acknowledged and the list of the request still unanswered.
class ChangeStream {
  public:
    ChangeStream(const List& pool, List start, uint32_t seed)
        : pool_(pool), acked_(std::move(start)), random_(seed) {
        thread_ = std::thread([this] { run(); });
    }
    ~ChangeStream() { join(); }
    ChangeStream(const ChangeStream&) = delete;
    ChangeStream& operator=(const ChangeStream&) = delete;

    int acks() const { return acks_.load(); }
    bool ended() const { return ended_.load(); }
    void join() {
        if (thread_.joinable()) thread_.join();
    }
    // After join (which orders the thread's writes before the reads): the candidates for the file.
    const List& acked() const { return acked_; }
    const std::optional<List>& unanswered() const { return unanswered_; }
    const std::string& failure() const { return failure_; }

  private:
    void run() {
        try {
            vigil_client::AgentConnection client(Osb::Utf8ToUtf16(kPipe));
            client.hello(kGuid, 1, 0);
            for (;;) {
                List batch;
                const bool add = acked_.size() < 2 || random_() % 2 == 0;
                const List& from = add ? pool_ : acked_;
                // A removal leaves at least one folder: an empty list is not written at all.
                const size_t most = add ? 20 : std::min<size_t>(20, acked_.size() - 1);
                const size_t count = 1 + random_() % most;
                for (size_t i = 0; i < count; ++i) batch.push_back(from[random_() % from.size()]);
                const List next = add ? Added(acked_, batch) : Removed(acked_, batch);
                unanswered_ = next;
                if (add) {
                    client.addFolders(kOptions, batch);
                } else {
                    client.removeFolders(false, batch);
                }
                acked_ = next;
                unanswered_.reset();
                ++acks_;
            }
        } catch (const vigil_client::RequestRefused& refused) {
            failure_ = "a request was refused with " + std::to_string(refused.reply().status);
        } catch (const Osb::Exception&) {
            // The service went away: that is how every stream ends.
        }
        ended_ = true;
    }

    const List& pool_;
    List acked_;
    std::optional<List> unanswered_;
    std::atomic<int> acks_{0};  // polled by the test while the stream runs
    std::atomic<bool> ended_{false};
    std::string failure_;
    std::mt19937 random_;
    std::thread thread_;
};

// Waits `micros` without sleeping through it, so that the moment of a kill is spread finely.
void Spin(int micros) {
    const auto until = Clock::now() + std::chrono::microseconds(micros);
    while (Clock::now() < until) std::this_thread::yield();
}

TEST(CacheDurabilityE2eTest, KilledAtRandomMomentsTheFileIsAlwaysAWholeAcknowledgedList) {
    setenv("LC_ALL", "C", 1);
    ScratchRoot root;
    const std::string data = root / kDataTail;
    const std::string current = data + "WatchFolder.3.cache";
    const std::string temporary = data + "WatchFolder.3.cache.tmp";
    fs::create_directories(data);
    const List pool = MakePool(root, 200);
    FolderOpens opens(data);
    ASSERT_TRUE(opens.valid());

    constexpr int kRounds = 200;
    const uint32_t seed = 20261123;
    std::mt19937 random(seed);
    List model;  // what the file held after the last kill
    int killedInSave = 0;
    int leftTemporary = 0;
    for (int round = 0; round < kRounds; ++round) {
        SCOPED_TRACE("round " + std::to_string(round) + " of seed " + std::to_string(seed));
        RunningAgent agent({"/PORT", kPipe});
        ASSERT_TRUE(agent.waitForOutput("Vigil State: RUNNING\n"));
        // The start has removed what a killed save left, and loaded the file that was there.
        EXPECT_FALSE(fs::exists(fs::symlink_status(temporary)));
        if (round > 0) {
            vigil_client::AgentConnection client(Osb::Utf8ToUtf16(kPipe));
            client.hello(kGuid, 1, 0);
            ASSERT_EQ(client.getFolders(), model);
        }

        // Every round sees at least one acknowledged save. Half the kills come at any moment
        // afterwards, half just after a save has started, where a file written in place would be
        // empty or cut.
        ChangeStream stream(pool, model, seed + static_cast<uint32_t>(round));
        const int target = 1 + static_cast<int>(random() % 3);
        ASSERT_TRUE(PollUntil([&] { return stream.acks() >= target || stream.ended(); }));
        ASSERT_FALSE(stream.ended()) << stream.failure();
        if (round % 2 == 0) {
            Spin(static_cast<int>(random() % 3000));
        } else {
            opens.drain();
            if (opens.next(5000)) ++killedInSave;
            Spin(static_cast<int>(random() % 400));
        }
        agent.signal(SIGKILL);
        agent.wait();
        stream.join();
        ASSERT_EQ(stream.failure(), "");
        if (fs::exists(fs::symlink_status(temporary))) ++leftTemporary;

        const std::string bytes = BytesAt(current);
        if (bytes == FileFor(stream.acked())) {
            model = stream.acked();
        } else if (stream.unanswered() && bytes == FileFor(*stream.unanswered())) {
            model = *stream.unanswered();
        } else {
            FAIL() << "the file holds " << bytes.size() << " bytes, neither the acknowledged list ("
                   << FileFor(stream.acked()).size() << " bytes) nor the unanswered one";
        }
    }
    std::printf("%d rounds, %d killed just after a save began, %d left a temporary file\n", kRounds,
                killedInSave, leftTemporary);
}

}  // namespace
}  // namespace vigil_test
