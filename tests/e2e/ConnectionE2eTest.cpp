// The executable's connections end to end: what clients that leave early, never read their
// replies or come in numbers cost the process (descriptors, memory, CPU, read from /proc), and the
// order of its connection traces.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "platform/PipeClient.h"
#include "platform/SystemRoot.h"
#include "service/VigilProtocol.h"
#include "tests/e2e/AgentProcess.h"
#include "tests/support/PollUntil.h"
#include "tests/support/ScratchRoot.h"
#include "tools/client/AgentConnection.h"
#include "tools/client/ClientCodec.h"

namespace vigil_test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using vigil_client::Bytes;
using vigil_client::Frame;
using Vigil::Protocol::Load32;
namespace P = Vigil::Protocol;

// Under the sanitizers freed memory is held back (quarantine) and shadowed, so resident memory
// says nothing of the service's own.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kMemoryMeasured = false;
#else
constexpr bool kMemoryMeasured = true;
#endif

const vigil_client::Guid kGuid{{0xC0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15}};
const std::string kPipe = "connection pipe";
const std::u16string kPipe16 = u"connection pipe";

// Figures of a running process from /proc.
std::vector<std::string> DescriptorTargets(pid_t pid) {
    std::vector<std::string> targets;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd", ec)) {
        targets.push_back(fs::read_symlink(entry.path(), ec).string());
    }
    return targets;
}
size_t Descriptors(pid_t pid) { return DescriptorTargets(pid).size(); }
size_t Sockets(pid_t pid) {
    size_t n = 0;
    for (const std::string& target : DescriptorTargets(pid)) n += target.rfind("socket:", 0) == 0;
    return n;
}
long ResidentKb(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
    }
    return -1;
}
// User and system time in clock ticks.
long CpuTicks(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string field;
    long utime = 0, stime = 0;
    for (int i = 3; i <= 15 && fields >> field; ++i) {
        if (i == 14) utime = std::stol(field);
        if (i == 15) stime = std::stol(field);
    }
    return utime + stime;
}

Bytes Hello() { return Frame(P::kHello, 1, 0, vigil_client::EncodeHello(1, 0, kGuid)); }
// `count` GetChanges requests that leave the names pending, one after the other.
Bytes GetChanges(uint32_t clientId, uint32_t count, uint32_t firstRequestId = 10) {
    Bytes stream;
    for (uint32_t i = 0; i < count; ++i) {
        Bytes m = Frame(P::kGetChanges, firstRequestId + i, clientId,
                        vigil_client::EncodeGetChanges(false));
        stream.insert(stream.end(), m.begin(), m.end());
    }
    return stream;
}

// Reads one whole reply within `timeoutMs`; false when none came or the service closed.
bool ReadReply(Osb::PipeClient& pipe, Bytes& reply, int timeoutMs = 10000) {
    reply.resize(P::kHeaderBytes);
    if (!pipe.waitReadable(timeoutMs) || !pipe.readExact(reply.data(), P::kHeaderBytes)) {
        return false;
    }
    reply.resize(P::kHeaderBytes + Load32(reply.data() + 4));
    return pipe.readExact(reply.data() + P::kHeaderBytes, reply.size() - P::kHeaderBytes);
}

// Connects and says Hello; the id the reply gave, or 0.
uint32_t ConnectAndHello(std::unique_ptr<Osb::PipeClient>& pipe) {
    pipe = Osb::PipeClient::Connect(kPipe16);
    Bytes hello = Hello();
    pipe->writeAll(hello.data(), hello.size());
    Bytes reply;
    return ReadReply(*pipe, reply) ? Load32(reply.data() + 12) : 0;
}

class ConnectionE2eTest : public ::testing::Test {
  protected:
    void SetUp() override {
        unsetenv("VIGIL_SERVICE");
        setenv("LC_ALL", "C", 1);
    }

    void start(unsigned openFiles = 0) {
        agent_.emplace(std::vector<std::string>{"/PORT", kPipe}, AgentPath(), openFiles);
        ASSERT_TRUE(agent_->waitForOutput("Vigil State: RUNNING\n"));
        pid_ = agent_->pid();
    }

    // Makes `count` files with long names in a folder that kGuid watches, and waits until all are
    // pending, so that every GetChanges of kGuid is answered with a large reply. Returns the size of
    // that reply.
    size_t makeLargeChanges(int count) {
        const std::string folder = root_ / "photos";
        fs::create_directories(folder);
        vigil_client::AgentConnection setup(kPipe16);
        setup.hello(kGuid, 1, 0);
        setup.addFolders({}, {folder});
        Bytes body;
        size_t names = 0;
        auto pendingReach = [&](int wanted) {
            return PollUntil([&] {
                names = 0;
                for (const auto& changes : setup.getChanges(false, &body)) {
                    names += changes.names.size();
                }
                return names >= static_cast<size_t>(wanted);
            });
        };
        // The watch begins on the watch thread after the reply: a first file reported shows it
        // running (one made before it is missed, so another is made at each look).
        int probes = 0;
        if (!PollUntil([&] {
                std::ofstream(folder + "/first" + std::to_string(++probes));
                return !setup.getChanges(false).empty();
            })) {
            ADD_FAILURE() << "the folder's watch did not start";
        }
        names = 0;
        for (const auto& changes : setup.getChanges(false)) names += changes.names.size();
        const int before = static_cast<int>(names);
        // In batches, each awaited before the next, so that the kernel's event queue never
        // overflows (which would silence the folder) on a busy machine.
        for (int made = 0; made < count;) {
            for (const int end = std::min(count, made + 250); made < end; ++made) {
                std::ofstream(folder + "/" + std::string(90, 'n') + std::to_string(100000 + made));
            }
            if (!pendingReach(before + made)) {
                ADD_FAILURE() << names << " names pending of " << before + made;
                break;
            }
        }
        return body.size() + P::kHeaderBytes;
    }

    ScratchRoot root_;
    std::optional<RunningAgent> agent_;
    pid_t pid_ = -1;
};

// With 64 descriptors the service runs out while clients keep coming: its accept thread then
// waits instead of trying again and again, and once the clients leave, new ones are served.
TEST_F(ConnectionE2eTest, OutOfDescriptorsAcceptingIdlesAndResumesWhenClientsLeave) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizers' runtime needs descriptors of its own";
#endif
    constexpr unsigned kOpenFiles = 64;
    start(kOpenFiles);
    std::vector<std::unique_ptr<Osb::PipeClient>> clients;
    for (int i = 0; i < 100; ++i) clients.push_back(Osb::PipeClient::Connect(kPipe16));
    ASSERT_TRUE(PollUntil([&] { return Descriptors(pid_) >= kOpenFiles; }))
        << Descriptors(pid_) << " descriptors";

    // A window of 1.5 s in which nothing happens, the last client waiting in the backlog.
    const long before = CpuTicks(pid_);
    EXPECT_FALSE(clients.back()->waitReadable(1500));
    const long spent = CpuTicks(pid_) - before;
    EXPECT_LE(spent, sysconf(_SC_CLK_TCK) / 10) << spent << " ticks of CPU while out of descriptors";

    clients.clear();
    std::unique_ptr<Osb::PipeClient> late;
    EXPECT_NE(ConnectAndHello(late), 0u);
    EXPECT_LT(Descriptors(pid_), kOpenFiles);
    if (HasFailure()) {
        agent_->signal(SIGTERM);
        ADD_FAILURE() << "the service's standard error: " << agent_->wait().err;
    }
}

// Clients that say Hello, ask twice for a large reply and close without reading either give back
// their descriptors, and after a first round of the same clients, their memory. Then one client
// sends hundreds of requests with large replies and reads none of them: the service stops reading
// it near the bound, so its memory stays flat, while another client is answered at once. When the
// first one reads at last, every reply comes, in order.
TEST_F(ConnectionE2eTest, ClientsThatLeaveOrNeverReadCostBoundedDescriptorsAndMemory) {
    start();
    const size_t socketsAlone = Sockets(pid_);
    const size_t replyBytes = makeLargeChanges(2000);
    ASSERT_GT(replyBytes, 300u * 1024);
    auto leaveUnread = [&](int clients) {
        for (int i = 0; i < clients; ++i) {
            std::unique_ptr<Osb::PipeClient> pipe;
            const uint32_t id = ConnectAndHello(pipe);
            ASSERT_NE(id, 0u) << "client " << i << " was not answered";
            Bytes requests = GetChanges(id, 2);
            pipe->writeAll(requests.data(), requests.size());
        }
    };
    leaveUnread(100);
    ASSERT_TRUE(PollUntil([&] { return Sockets(pid_) == socketsAlone; }))
        << Sockets(pid_) << " sockets, " << socketsAlone << " before the clients";
    const size_t descriptors = Descriptors(pid_);
    const long warmKb = ResidentKb(pid_);
    leaveUnread(1000);
    EXPECT_TRUE(PollUntil([&] { return Sockets(pid_) == socketsAlone; }))
        << Sockets(pid_) << " sockets, " << socketsAlone << " before the clients";
    EXPECT_EQ(Descriptors(pid_), descriptors);
    const long allowedKb = warmKb + warmKb / 10 + 16 * 1024;
    EXPECT_TRUE(!kMemoryMeasured || PollUntil([&] { return ResidentKb(pid_) <= allowedKb; }, 5s))
        << ResidentKb(pid_) << " kB resident, " << warmKb << " kB before the 1,000 clients";

    constexpr uint32_t kRequests = 300;
    std::unique_ptr<Osb::PipeClient> greedy;
    const uint32_t greedyId = ConnectAndHello(greedy);
    ASSERT_NE(greedyId, 0u);
    // One reply read, so the memory of building one is in the starting level.
    Bytes first = GetChanges(greedyId, 1, 9);
    greedy->writeAll(first.data(), first.size());
    Bytes reply;
    ASSERT_TRUE(ReadReply(*greedy, reply));
    const long startKb = ResidentKb(pid_);

    Bytes requests = GetChanges(greedyId, kRequests);
    greedy->writeAll(requests.data(), requests.size());
    std::unique_ptr<Osb::PipeClient> other;
    const uint32_t otherId = ConnectAndHello(other);
    ASSERT_NE(otherId, 0u);
    for (uint32_t r = 1; r <= 20; ++r) {
        Bytes noop = Frame(P::kConnectionNoop, r, otherId, vigil_client::EncodeEmptyRequest());
        other->writeAll(noop.data(), noop.size());
        ASSERT_TRUE(ReadReply(*other, reply, 2000)) << "noop " << r;
        EXPECT_EQ(Load32(reply.data() + 8), r);
    }
    // All the replies together are 60 times the limit; a few of them are allowed.
    const long limitKb = startKb + static_cast<long>(8 * replyBytes / 1024) + 8 * 1024;
    EXPECT_FALSE(kMemoryMeasured && PollUntil([&] { return ResidentKb(pid_) > limitKb; }, 3s))
        << ResidentKb(pid_) << " kB resident, " << startKb << " kB before, "
        << kRequests * replyBytes / 1024 << " kB of replies asked for";

    for (uint32_t r = 0; r < kRequests; ++r) {
        ASSERT_TRUE(ReadReply(*greedy, reply)) << "reply " << r;
        EXPECT_EQ(Load32(reply.data()), P::kGetChangesReply);
        EXPECT_EQ(Load32(reply.data() + 8), 10 + r);
        EXPECT_GE(reply.size(), replyBytes);  // a late name of the setup may join
    }
}

// A raw connection, for a client that stops reading before it asks.
int ConnectRaw(const std::u16string& pipe) {
    std::string path;
    if (Osb::PipeSocketPath(pipe, path) != 0) return -1;
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// Many short connections that end in each way a connection can end: every one is traced as
// connected, then as disconnected, once each and in that order.
TEST_F(ConnectionE2eTest, EveryConnectionIsTracedConnectedThenDisconnectedOnceEach) {
    start();
    const size_t socketsAlone = Sockets(pid_);
    makeLargeChanges(500);  // the setup connection is the first traced one
    enum Ending { kAtOnce, kAfterHello, kRepliesUnread, kStopsReading, kEndings };
    constexpr int kConnections = 400;
    std::vector<int> stoppedReading;
    for (int i = 0; i < kConnections; ++i) {
        switch (static_cast<Ending>(i % kEndings)) {
            case kAtOnce: {
                auto pipe = Osb::PipeClient::Connect(kPipe16);
                break;
            }
            case kAfterHello: {
                std::unique_ptr<Osb::PipeClient> pipe;
                ASSERT_NE(ConnectAndHello(pipe), 0u);
                break;
            }
            case kRepliesUnread: {
                std::unique_ptr<Osb::PipeClient> pipe;
                const uint32_t id = ConnectAndHello(pipe);
                ASSERT_NE(id, 0u);
                Bytes requests = GetChanges(id, 2);
                pipe->writeAll(requests.data(), requests.size());
                break;
            }
            case kStopsReading: {
                // The reply to Hello cannot be delivered; the connection stays open on this side.
                const int fd = ConnectRaw(kPipe16);
                ASSERT_GE(fd, 0);
                stoppedReading.push_back(fd);
                ASSERT_EQ(shutdown(fd, SHUT_RD), 0);
                Bytes hello = Hello();
                ASSERT_EQ(write(fd, hello.data(), hello.size()), static_cast<ssize_t>(hello.size()));
                break;
            }
            case kEndings:
                break;
        }
    }
    // A fresh table gives the n-th connection the id 0x401 + n; the setup connection was 0x401.
    for (int i = kStopsReading; i < kConnections; i += kEndings) {
        if (!agent_->waitForOutput("- Client Disconnect : " + std::to_string(0x402 + i) + "\n")) {
            ADD_FAILURE() << "connection " << i << " stopped reading and was not disconnected";
            break;
        }
    }
    for (int fd : stoppedReading) close(fd);
    ASSERT_TRUE(PollUntil([&] { return Sockets(pid_) == socketsAlone; }))
        << Sockets(pid_) << " sockets, " << socketsAlone << " before the clients";
    agent_->signal(SIGTERM);
    const Finished end = agent_->wait();

    std::map<std::string, std::vector<std::string>> traces;  // id -> its traces, in order
    std::istringstream lines(end.out);
    for (std::string line; std::getline(lines, line);) {
        for (const std::string kind : {"Connect", "Disconnect"}) {
            const std::string prefix = "- Client " + kind + " : ";
            if (line.rfind(prefix, 0) == 0) traces[line.substr(prefix.size())].push_back(kind);
        }
    }
    EXPECT_EQ(traces.size(), static_cast<size_t>(kConnections + 1));
    for (const auto& [id, kinds] : traces) {
        EXPECT_EQ(kinds, (std::vector<std::string>{"Connect", "Disconnect"})) << "client " << id;
    }
}

}  // namespace
}  // namespace vigil_test
