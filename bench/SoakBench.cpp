// A soak of the service process: 1,024 clients on its Unix socket for a long while, each in a loop
// of sessions: connect, Hello, now and then remove and add its folder again, ask for its folders
// and for the changes that a writer thread keeps making in the folders, send malformed messages
// (answered with Error), and now and then close early with replies unread.
//
//   SoakBench [seconds, default 600] [clients, default 1024] [warm-up seconds, default 0]
//
// Printed: requests answered per second; requests that got no answer (a reply missing after
// 30 s, or the connection ended under a request that was waited for), which must be 0;
// connections refused; and the service's resident memory, descriptors and threads at a first
// checkpoint (minute 1, or a third of a shorter run) and at the end, counted after the warm-up
// (the same load, run first so that a short run is not measuring the allocator's first growth). Both are taken with every
// client paused between sessions and the service's sockets back to their number before the
// clients, so they compare like with like; they must stay within 5 %. The exit status is 1 when a
// request went unanswered, a reply was wrong, the service did not settle, or a figure grew by more
// than 5 %.
//
// Refusals: the client table holds at most 1,024 clients, and a client that closes and connects
// again at once can find its old entry still there (the service has not yet seen the close): the
// service then drops the new connection before any reply. So a session normally ends by closing
// its sending side and waiting for the service to close (a connection the service keeps counts as
// "not closed", a failure); only after a session that closes early, with replies unread, can the
// next connection be refused. Such a connection is counted as refused and tried again after a
// pause; it is not an unanswered request. Any other missing reply is.
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/Exception.h"
#include "platform/PipeClient.h"
#include "service/VigilProtocol.h"
#include "tools/client/ClientCodec.h"

namespace {

namespace fs = std::filesystem;
namespace P = Vigil::Protocol;
using Clock = std::chrono::steady_clock;
using vigil_client::Bytes;
using vigil_client::Frame;

const std::u16string kPipe = u"soak bench";
constexpr int kReplyTimeoutMs = 30000;

struct Counters {
    std::atomic<uint64_t> answered{0};
    std::atomic<uint64_t> unanswered{0};
    std::atomic<uint64_t> wrong{0};
    std::atomic<uint64_t> refused{0};
    std::atomic<uint64_t> sessions{0};
    std::atomic<uint64_t> abandoned{0};  // replies left unread on purpose
    std::atomic<uint64_t> unclosed{0};   // connections the service did not close after their end
};

// Lets the main thread hold the writer and every client between two sessions, with the changes
// collected, so that what the service holds at a checkpoint does not depend on the moment.
class Gate {
  public:
    enum class Step { kSession, kCollect, kOver };

    // Called by a client between sessions. While held: kCollect once per hold (the client
    // collects its pending changes), then waits for the release.
    Step next(uint64_t& holdsSeen) {
        std::unique_lock<std::mutex> lock(mutex_);
        if (clientsHeld_ && holdsSeen != holds_) {
            holdsSeen = holds_;
            return Step::kCollect;
        }
        if (clientsHeld_) {
            ++waiting_;
            changed_.notify_all();
            changed_.wait(lock, [&] { return !clientsHeld_; });
            --waiting_;
        }
        return over_ ? Step::kOver : Step::kSession;
    }
    // Called by the writer before each file: waits while held. False once the run is over.
    bool writerMayGo() {
        std::unique_lock<std::mutex> lock(mutex_);
        if (writerHeld_) {
            writerWaits_ = true;
            changed_.notify_all();
            changed_.wait(lock, [&] { return !writerHeld_; });
            writerWaits_ = false;
        }
        return !over_;
    }
    // Holds the writer, then the clients, and returns once all `clients` wait.
    void hold(int clients) {
        std::unique_lock<std::mutex> lock(mutex_);
        writerHeld_ = true;
        changed_.wait(lock, [&] { return writerWaits_; });
        clientsHeld_ = true;
        ++holds_;
        changed_.wait(lock, [&] { return waiting_ == clients; });
    }
    void release(bool over) {
        std::lock_guard<std::mutex> lock(mutex_);
        writerHeld_ = false;
        clientsHeld_ = false;
        over_ = over;
        changed_.notify_all();
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool writerHeld_ = false;   // guarded by mutex_
    bool writerWaits_ = false;  // guarded by mutex_
    bool clientsHeld_ = false;  // guarded by mutex_
    bool over_ = false;         // guarded by mutex_
    uint64_t holds_ = 0;        // guarded by mutex_
    int waiting_ = 0;           // guarded by mutex_
};

struct ProcessFigures {
    long rssKb = 0;
    long descriptors = 0;
    long threads = 0;
    long sockets = 0;
};

ProcessFigures Measure(pid_t pid) {
    ProcessFigures figures;
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmRSS:", 0) == 0) figures.rssKb = std::stol(line.substr(6));
        if (line.rfind("Threads:", 0) == 0) figures.threads = std::stol(line.substr(8));
    }
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd", ec)) {
        ++figures.descriptors;
        figures.sockets += fs::read_symlink(entry.path(), ec).string().rfind("socket:", 0) == 0;
    }
    return figures;
}

class SoakClient {
  public:
    SoakClient(int index, std::string folder, Counters& counters)
        : folder_(std::move(folder)), counters_(counters), rng_(index) {
        guid_.fill(0x5A);
        guid_[0] = static_cast<uint8_t>(index);
        guid_[1] = static_cast<uint8_t>(index >> 8);
    }

    void run(Gate& gate) {
        uint64_t holdsSeen = 0;
        for (;;) {
            switch (gate.next(holdsSeen)) {
                case Gate::Step::kSession:
                    session(false);
                    break;
                case Gate::Step::kCollect:
                    session(true);
                    break;
                case Gate::Step::kOver:
                    return;
            }
        }
    }

  private:
    enum class Outcome { kAnswered, kRefused, kLost };

    // Sends one request and waits for its reply; false when the session cannot go on.
    bool ask(Osb::PipeClient& pipe, uint32_t code, const Bytes& body, uint32_t expected) {
        const uint32_t requestId = ++requestId_;
        Bytes message = Frame(code, requestId, id_, body);
        try {
            pipe.writeAll(message.data(), message.size());
        } catch (const Osb::Exception&) {
            counters_.unanswered++;
            return false;
        }
        Bytes reply;
        if (read(pipe, reply) != Outcome::kAnswered) {
            counters_.unanswered++;
            return false;
        }
        counters_.answered++;
        if (P::Load32(reply.data()) != expected || P::Load32(reply.data() + 8) != requestId) {
            counters_.wrong++;
        }
        return true;
    }

    Outcome read(Osb::PipeClient& pipe, Bytes& reply) {
        try {
            reply.resize(P::kHeaderBytes);
            if (!pipe.waitReadable(kReplyTimeoutMs)) return Outcome::kLost;
            if (!pipe.readExact(reply.data(), P::kHeaderBytes)) return Outcome::kRefused;
            reply.resize(P::kHeaderBytes + P::Load32(reply.data() + 4));
            if (!pipe.readExact(reply.data() + P::kHeaderBytes, reply.size() - P::kHeaderBytes)) {
                return Outcome::kLost;
            }
            return Outcome::kAnswered;
        } catch (const Osb::Exception&) {
            return Outcome::kLost;
        }
    }

    // One connection: a mix of requests, or with `collectOnly` just Hello and a GetChanges that
    // clears. Refused connections are tried again.
    void session(bool collectOnly) {
        std::unique_ptr<Osb::PipeClient> pipe;
        for (int tries = 0; !(pipe = connect()); ++tries) {
            if (tries == 1000) return;  // the service is gone: unanswered Hellos count it
        }
        if (collectOnly) {
            if (watching_ && !ask(*pipe, P::kGetChanges, vigil_client::EncodeGetChanges(true),
                                  P::kGetChangesReply)) {
                return;
            }
            leave(*pipe);
            return;
        }
        counters_.sessions++;

        if (!watching_ || rng_() % 50 == 0) {
            if (watching_ && !ask(*pipe, P::kRemoveFolders,
                                  vigil_client::EncodeRemoveFolders(false, {folder_}),
                                  P::kRemoveFoldersReply)) {
                return;
            }
            if (!ask(*pipe, P::kAddFolders, vigil_client::EncodeAddFolders(1, {}, {folder_}),
                     P::kAddFoldersReply)) {
                return;
            }
            watching_ = true;
        }
        const int steps = 3 + static_cast<int>(rng_() % 6);
        for (int step = 0; step < steps; ++step) {
            bool going = true;
            switch (rng_() % 6) {
                case 0:
                    going = ask(*pipe, P::kConnectionNoop, vigil_client::EncodeEmptyRequest(),
                                P::kConnectionNoopReply);
                    break;
                case 1:
                    going = ask(*pipe, P::kGetFolders, vigil_client::EncodeEmptyRequest(),
                                P::kGetFoldersReply);
                    break;
                case 2:
                case 3:
                    going = ask(*pipe, P::kGetChanges, vigil_client::EncodeGetChanges(true),
                                P::kGetChangesReply);
                    break;
                case 4:  // a body shorter than the request's least
                    going = ask(*pipe, P::kConnectionNoop, Bytes(3, 0), P::kError);
                    break;
                case 5:  // a request of a family and number that does not exist
                    going = ask(*pipe, 0x00010105, Bytes(4, 0), P::kError);
                    break;
            }
            if (!going) return;
        }
        if (rng_() % 8 == 0) {
            // Leaves with replies unread.
            Bytes stream;
            for (int i = 0; i < 3; ++i) {
                Bytes m = Frame(P::kGetFolders, ++requestId_, id_, vigil_client::EncodeEmptyRequest());
                stream.insert(stream.end(), m.begin(), m.end());
            }
            try {
                pipe->writeAll(stream.data(), stream.size());
                counters_.abandoned += 3;
            } catch (const Osb::Exception&) {
                counters_.unanswered++;
            }
            return;
        }
        leave(*pipe);
    }

    // Ends a connection the way a well-behaved client does: the service reads the end, takes the
    // client out of its table and closes in turn, and this client waits for that close, so its
    // next connection never finds its old place still taken.
    void leave(Osb::PipeClient& pipe) {
        try {
            pipe.closeSending();
            uint8_t byte;
            if (pipe.waitReadable(kReplyTimeoutMs) && pipe.readSome(&byte, 1) == 0) return;
        } catch (const Osb::Exception&) {
            return;  // reset by the service's close
        }
        counters_.unclosed++;
    }

    // Connects and says Hello; null when the connection was refused (then after a pause that
    // grows with each refusal in a row) or the Hello went unanswered.
    std::unique_ptr<Osb::PipeClient> connect() {
        std::unique_ptr<Osb::PipeClient> pipe;
        try {
            pipe = Osb::PipeClient::Connect(kPipe);
            Bytes hello = Frame(P::kHello, ++requestId_, 0, vigil_client::EncodeHello(1, 0, guid_));
            pipe->writeAll(hello.data(), hello.size());
        } catch (const Osb::Exception&) {
            refuse();
            return nullptr;
        }
        Bytes reply;
        switch (read(*pipe, reply)) {
            case Outcome::kRefused:
                // Closed before any reply: the table was full.
                refuse();
                return nullptr;
            case Outcome::kLost:
                counters_.unanswered++;
                return nullptr;
            case Outcome::kAnswered:
                counters_.answered++;
                break;
        }
        refusedInARow_ = 0;
        if (P::Load32(reply.data()) != P::kHelloReply) {
            counters_.wrong++;
            return nullptr;
        }
        id_ = P::Load32(reply.data() + 12);
        return pipe;
    }

    void refuse() {
        counters_.refused++;
        // Time for the service to see the close of this client's previous connection.
        std::this_thread::sleep_for(std::chrono::milliseconds(1 << std::min(refusedInARow_++, 6)));
    }

    std::string folder_;
    Counters& counters_;
    std::minstd_rand rng_;
    vigil_client::Guid guid_{};
    uint32_t id_ = 0;
    uint32_t requestId_ = 0;
    int refusedInARow_ = 0;
    bool watching_ = false;
};

// Makes files in the clients' folders, round robin, keeping at most `keep` of them.
void WriteFiles(const std::vector<std::string>& folders, Gate& gate) {
    std::vector<std::string> made;
    const size_t keep = 2000;
    for (uint64_t n = 0; gate.writerMayGo(); ++n) {
        const std::string path = folders[n % folders.size()] + "/f" + std::to_string(n);
        std::ofstream(path).put('x');
        made.push_back(path);
        if (made.size() > keep) {
            std::error_code ec;
            fs::remove(made[made.size() - 1 - keep], ec);
        }
        std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
}

void RaiseOpenFiles(rlim_t wanted) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_max != RLIM_INFINITY && limit.rlim_max < wanted) wanted = limit.rlim_max;
    limit.rlim_cur = std::max(limit.rlim_cur, wanted);
    setrlimit(RLIMIT_NOFILE, &limit);
}

// Waits until the service's sockets are back to `sockets`; false after 30 s.
bool Settle(pid_t pid, long sockets) {
    const auto deadline = Clock::now() + std::chrono::seconds(30);
    while (Measure(pid).sockets != sockets) {
        if (Clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

double Growth(long first, long last) {
    return first > 0 ? 100.0 * static_cast<double>(last - first) / static_cast<double>(first) : 0;
}

}  // namespace

int main(int argc, char** argv) {
    const int seconds = argc > 1 ? std::atoi(argv[1]) : 600;
    const int clients = argc > 2 ? std::atoi(argv[2]) : 1024;
    const int warmUp = argc > 3 ? std::atoi(argv[3]) : 0;
    if (seconds <= 0 || clients <= 0 || warmUp < 0) {
        std::fprintf(stderr, "usage: SoakBench [seconds] [clients] [warm-up seconds]\n");
        return 64;
    }
    const int checkpoint = std::min(60, seconds / 3);
    RaiseOpenFiles(static_cast<rlim_t>(clients) * 2 + 256);

    char pattern[] = "/tmp/soak-bench-XXXXXX";
    const std::string root = mkdtemp(pattern);
    fs::create_directories(root + "/var/lib");
    setenv("VIGIL_SYSTEM_ROOT", root.c_str(), 1);
    std::vector<std::string> folders;
    for (int i = 0; i < clients; ++i) {
        folders.push_back(root + "/folders/c" + std::to_string(i));
        fs::create_directories(folders.back());
    }

    const std::string agent =
        fs::canonical("/proc/self/exe").parent_path().parent_path() / "service" /
        "MirelleStudioFileAgent";
    const pid_t pid = fork();
    if (pid == 0) {
        // The traces and the dumps of the malformed requests' errors.
        std::freopen("/dev/null", "w", stdout);
        std::freopen("/dev/null", "w", stderr);
        execl(agent.c_str(), agent.c_str(), "/PORT", "soak bench", static_cast<char*>(nullptr));
        _exit(127);
    }
    // A first connection, answered, shows the service up; its sockets without it are the level
    // that every checkpoint waits for.
    long socketsAlone = -1;
    for (int i = 0; i < 2000 && socketsAlone < 0; ++i) {
        try {
            auto probe = Osb::PipeClient::Connect(kPipe);
            Bytes hello = Frame(P::kHello, 1, 0, vigil_client::EncodeHello(1, 0, {}));
            probe->writeAll(hello.data(), hello.size());
            uint8_t reply[40];
            if (probe->readExact(reply, sizeof(reply))) socketsAlone = Measure(pid).sockets - 1;
        } catch (const Osb::Exception&) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    int status = 1;
    if (socketsAlone < 0 || !Settle(pid, socketsAlone)) {
        std::fprintf(stderr, "the service did not start\n");
    } else {
        Counters counters;
        Gate gate;
        std::vector<std::unique_ptr<SoakClient>> soakClients;
        for (int i = 0; i < clients; ++i) {
            soakClients.push_back(std::make_unique<SoakClient>(i, folders[i], counters));
        }
        std::vector<std::thread> threads;
        for (auto& client : soakClients) threads.emplace_back([&] { client->run(gate); });
        std::thread writer([&] { WriteFiles(folders, gate); });

        // The warm-up runs the same load before the clock starts, so that a short run compares
        // figures past the allocator's first growth.
        const auto start = Clock::now() + std::chrono::seconds(warmUp);
        auto checkpointAt = [&](int at, bool last) {
            std::this_thread::sleep_until(start + std::chrono::seconds(at));
            gate.hold(clients);
            const bool settled = Settle(pid, socketsAlone);
            // The service gives its free heap back once a second after clients have left; both
            // figures are taken past that moment, so that neither catches the space that the
            // last sessions freed and the next second returns.
            std::this_thread::sleep_for(std::chrono::milliseconds(2500));
            ProcessFigures figures = Measure(pid);
            if (!last) gate.release(false);
            return std::make_pair(settled, figures);
        };
        const auto [settledFirst, first] = checkpointAt(checkpoint, false);
        const auto [settledLast, last] = checkpointAt(seconds, true);
        const double elapsed =
            std::chrono::duration<double>(Clock::now() - start).count() + warmUp;
        gate.release(true);
        for (std::thread& t : threads) t.join();
        writer.join();

        const double rssGrowth = Growth(first.rssKb, last.rssKb);
        const double fdGrowth = Growth(first.descriptors, last.descriptors);
        const double threadGrowth = Growth(first.threads, last.threads);
        std::printf("SoakBench: %d clients, %.0f s (%d s of warm-up)\n", clients, elapsed, warmUp);
        std::printf("  requests answered   %llu (%.0f per second), sessions %llu\n",
                    static_cast<unsigned long long>(counters.answered.load()),
                    static_cast<double>(counters.answered.load()) / elapsed,
                    static_cast<unsigned long long>(counters.sessions.load()));
        std::printf("  unanswered          %llu\n",
                    static_cast<unsigned long long>(counters.unanswered.load()));
        std::printf("  wrong replies       %llu\n",
                    static_cast<unsigned long long>(counters.wrong.load()));
        std::printf("  not closed          %llu (connections the service kept after their end)\n",
                    static_cast<unsigned long long>(counters.unclosed.load()));
        std::printf("  refused connections %llu (after an early close, its place still taken)\n",
                    static_cast<unsigned long long>(counters.refused.load()));
        std::printf("  left unread         %llu replies\n",
                    static_cast<unsigned long long>(counters.abandoned.load()));
        std::printf("  service at %3d s    RSS %ld kB, %ld descriptors, %ld threads%s\n",
                    checkpoint, first.rssKb, first.descriptors, first.threads,
                    settledFirst ? "" : " (sockets did not settle)");
        std::printf("  service at end      RSS %ld kB, %ld descriptors, %ld threads%s\n",
                    last.rssKb, last.descriptors, last.threads,
                    settledLast ? "" : " (sockets did not settle)");
        std::printf("  growth              RSS %+.1f %%, descriptors %+.1f %%, threads %+.1f %%\n",
                    rssGrowth, fdGrowth, threadGrowth);
        const bool flat = rssGrowth <= 5 && fdGrowth <= 5 && threadGrowth <= 5;
        status = counters.unanswered == 0 && counters.wrong == 0 && counters.unclosed == 0 &&
                         settledFirst && settledLast && flat
                     ? 0
                     : 1;
        std::printf("SoakBench: %s\n", status == 0 ? "PASS" : "FAIL");
    }
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
    std::error_code ec;
    fs::remove_all(root, ec);
    return status;
}
