// The watch engine under load, in one process: the service's pipe server, dispatch and watch
// database on a scratch root, driven by the client library over the real socket. Each figure is
// printed beside a baseline of the same run: the writer alone, and a minimal raw inotify reader
// doing the same work.
//
//   WatchEngineBench [files, default 100000] [phases, default abdec] [rounds of (a), default 5]
//   WATCH_BENCH_DIR=/dev/shm WatchEngineBench ...   (the folder to write under; default the temporary one)
//
// (a) a burst of file creations, flat and spread over 100 directories made during the burst
//     under a subtree watch: names lost, time from the last file to all names in GetChanges,
//     service CPU per 100k files, writer slow-down;
// (b) one file's creation to its name in a GetChanges reply, polling: p50 and p99;
// (c) a subtree watch on an existing tree of 20,000 directories: time to establish and memory;
// (d) a GetChanges reply of 1,000,000 pending names: built, sent and received;
// (e) 30,000 changes arriving while the watch thread waits behind the database lock.
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <unordered_set>
#include <vector>

#include "platform/IoDevicePipeServer.h"
#include "platform/Platform.h"
#include "platform/Utf.h"
#include "service/VigilClientAccept.h"
#include "service/VigilDispatch.h"
#include "service/VigilProtocol.h"
#include "service/VigilWatchFolderDatabase.h"
#include "tools/client/AgentConnection.h"
#include "tools/client/ClientCodec.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using vigil_client::AgentConnection;

double Seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

double CpuSeconds(int who) {
    rusage usage{};
    getrusage(who, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// CPU seconds of every thread of the process but the calling one, from /proc: the service's
// threads while the writer is not running, or has been joined (an ended thread is not listed).
double OtherThreadsCpuSeconds() {
    const std::string self = std::to_string(gettid());
    double ticks = 0;
    for (const auto& task : fs::directory_iterator("/proc/self/task")) {
        if (task.path().filename() == self) continue;
        std::ifstream stat(task.path() / "stat");
        std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
        const size_t close = text.rfind(')');
        if (close == std::string::npos) continue;
        // After the command's ')': state is field 3; utime and stime are fields 14 and 15.
        std::istringstream fields(text.substr(close + 2));
        std::string field;
        for (int i = 3; i <= 15 && fields >> field; ++i) {
            if (i >= 14) ticks += std::atof(field.c_str());
        }
    }
    return ticks / double(sysconf(_SC_CLK_TCK));
}

long RssKiB() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) return std::atol(line.c_str() + 6);
    }
    return 0;
}

void Create(const std::string& path) {
    int fd = ::open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
    if (fd >= 0) ::close(fd);
}

// The writer: `files` creations, flat or spread over 100 directories made as it goes. Returns its
// own CPU and wall time; `lastFile` is when the last creation returned.
struct WriterRun {
    double wall = 0, cpu = 0;
    Clock::time_point lastFile;
};
WriterRun Write(const std::string& dir, int files, bool spread) {
    WriterRun run;
    const double cpu0 = CpuSeconds(RUSAGE_THREAD);
    const auto start = Clock::now();
    const int perDir = spread ? files / 100 : files;
    for (int i = 0; i < files; ++i) {
        std::string sub = dir;
        if (spread) {
            sub += "d" + std::to_string(i / perDir) + "/";
            if (i % perDir == 0) fs::create_directory(sub);
        }
        Create(sub + "f" + std::to_string(i));
    }
    run.lastFile = Clock::now();
    run.wall = Seconds(run.lastFile - start);
    run.cpu = CpuSeconds(RUSAGE_THREAD) - cpu0;
    return run;
}

struct BurstRound;

std::string Fresh(const std::string& base, const std::string& name) {
    std::string dir = base + "/" + name + "/";
    fs::remove_all(dir);
    fs::create_directories(dir);
    return dir;
}

// The raw reader: inotify on `dir` and on each new subdirectory, which it scans once its watch is
// in place so that files made there before are not missed; it counts the distinct files created.
struct RawReader {
    explicit RawReader(const std::string& dir) : fd(inotify_init1(IN_CLOEXEC)) {
        add(dir);
        thread = std::thread([this] { loop(); });
    }
    void add(const std::string& dir) {
        int wd = inotify_add_watch(fd, dir.c_str(), IN_CREATE | IN_DELETE | IN_ATTRIB | IN_MOVE);
        dirs[wd] = dir;
    }
    void seen(std::string name) {
        if (names.insert(std::move(name)).second) ++files;
    }
    void loop() {
        alignas(inotify_event) char buffer[65536];
        while (!stop) {
            ssize_t got = ::read(fd, buffer, sizeof buffer);
            if (got <= 0) continue;
            for (ssize_t at = 0; at < got;) {
                auto* event = reinterpret_cast<inotify_event*>(buffer + at);
                if (event->mask & IN_ISDIR) {
                    const std::string sub = dirs[event->wd] + event->name + "/";
                    add(sub);
                    for (const auto& entry : fs::directory_iterator(sub))
                        seen(sub + entry.path().filename().string());
                } else if (event->mask & IN_CREATE) {
                    seen(dirs[event->wd] + event->name);
                }
                if (event->mask & IN_Q_OVERFLOW) overflowed = true;
                at += sizeof(inotify_event) + event->len;
            }
        }
    }
    void finish() {
        stop = true;
        Create(dirs.begin()->second + "wake");
        thread.join();
        ::close(fd);
    }
    int fd;
    std::map<int, std::string> dirs;
    std::unordered_set<std::string> names;
    std::atomic<bool> stop{false};
    std::atomic<long> files{0};
    std::atomic<bool> overflowed{false};
    std::thread thread;
};

class Bench {
  public:
    Bench() {
        // WATCH_BENCH_DIR picks the file system written to; the temporary folder by default.
        const char* base = std::getenv("WATCH_BENCH_DIR");
        const fs::path under = base && *base ? fs::path(base) : fs::temp_directory_path();
        root_ = (under / ("watch-bench-" + std::to_string(getpid()))).string();
        std::printf("scratch folder %s\n", root_.c_str());
        fs::create_directories(root_ + "/data");
        setenv("VIGIL_SYSTEM_ROOT", root_.c_str(), 1);
        Osb::Config config;
        config.applicationName = u"Orvanta Vigil Watch 14.0";
        config.serving = true;
        Osb::PlatformInit(config);
        Vigil::InitDispatch();
        Vigil::Watch::ProcessDatabase().open(Osb::Utf8ToUtf16(root_ + "/data/"));
        pipe_ = u"watch-bench-" + Osb::Utf8ToUtf16(std::to_string(getpid()));
        server_ = Osb::IoDevicePipeServer::Create(pipe_, Osb::MakeSmart<Vigil::ClientAccept>());
    }
    ~Bench() {
        Vigil::Watch::ProcessDatabase().close();
        Vigil::TermDispatch();
        server_.reset();
        Osb::PlatformUninit();
        fs::remove_all(root_);
    }
    std::unique_ptr<AgentConnection> connect(uint8_t seed) {
        auto connection = std::make_unique<AgentConnection>(pipe_);
        vigil_client::Guid guid{};
        guid.fill(seed);
        connection->hello(guid, 1, 0);
        return connection;
    }
    void settle() {
        while (!Vigil::Watch::ProcessDatabase().startsSettledForTesting())
            std::this_thread::yield();
    }

    BurstRound burstRound(int files, bool spread, int round);
    void burst(int files, bool spread, int rounds);
    void latency();
    void bigTree();
    void bigReply();
    void busyThread();

    std::string root_;
    std::u16string pipe_;
    Osb::SmartPointer<Osb::IoDevicePipeServer> server_;
};

// One GetChanges with clear; the names go into `seen`.
void CollectOnce(AgentConnection& client, std::unordered_set<std::string>& seen) {
    for (auto& folder : client.getChanges(true)) {
        for (auto& name : folder.names) seen.insert(std::move(name));
    }
}

// Collects with clear until `want` distinct names are in or `deadline` passes; distinct names
// counted.
size_t Collect(AgentConnection& client, std::unordered_set<std::string>& seen, size_t want,
               Clock::time_point deadline) {
    while (seen.size() < want && Clock::now() < deadline) CollectOnce(client, seen);
    return seen.size();
}

// One round of (a): the writer alone, beside the raw reader, and beside the service, in that order.
struct BurstRound {
    double alone = 0, withRaw = 0, withService = 0;  // writer wall seconds
    long rawLost = 0, serviceLost = 0;
    bool rawOverflowed = false;
    double rawLag = 0, serviceLag = 0;  // seconds from the last file to every name seen
    double serviceCpu = 0, serviceThreadsCpu = 0;  // seconds per 100k files
};

BurstRound Bench::burstRound(int files, bool spread, int round) {
    BurstRound result;
    // Every run writes into a folder of its own and nothing is deleted until the end: on ext4 a
    // creation soon after many deletions searches past the deleted inodes, and the writer's pace
    // would then depend on the order of the runs. The order is reversed every other round, so
    // that a drift of the machine's pace within a round does not favour one of the runs.
    const std::string tag = (spread ? "-spread-" : "-flat-") + std::to_string(round);
    auto runAlone = [&] {
        result.alone = Write(Fresh(root_, "alone" + tag), files, spread).wall;
    };
    auto runRaw = [&] {
        std::string rawDir = Fresh(root_, "raw" + tag);
        RawReader raw(rawDir);
        const WriterRun withRaw = Write(rawDir, files, spread);
        while (raw.files < files && Clock::now() - withRaw.lastFile < std::chrono::seconds(10)) {
            std::this_thread::sleep_for(std::chrono::microseconds(50));
        }
        result.rawLag = Seconds(Clock::now() - withRaw.lastFile);
        result.withRaw = withRaw.wall;
        result.rawLost = long(files) - raw.files;
        result.rawOverflowed = raw.overflowed;
        raw.finish();
    };
    auto runService = [&] {
        std::string dir = Fresh(root_, "svc" + tag);
        auto client = connect(uint8_t(spread ? 2 : 1));
        client->addFolders({spread, true, false}, {dir});
        settle();
        std::unordered_set<std::string> seen;
        std::mutex doneMutex;
        std::condition_variable doneCondition;
        bool writing = true;
        WriterRun withService;
        const double processCpu0 = CpuSeconds(RUSAGE_SELF);
        const double serviceThreadsCpu0 = OtherThreadsCpuSeconds();
        double clientCpu = 0;
        std::thread writer([&] {
            withService = Write(dir, files, spread);
            std::lock_guard<std::mutex> lock(doneMutex);
            writing = false;
            doneCondition.notify_one();
        });
        {
            const double clientCpu0 = CpuSeconds(RUSAGE_THREAD);
            // Collected as it comes, paced every 20 ms so the replies stay small; the pause ends at
            // once when the writer is done, so the figure below is not the pacing's.
            for (;;) {
                CollectOnce(*client, seen);
                std::unique_lock<std::mutex> lock(doneMutex);
                if (!doneCondition.wait_for(lock, std::chrono::milliseconds(20),
                                            [&] { return !writing; }))
                    continue;
                break;
            }
            writer.join();
            Collect(*client, seen, size_t(files), Clock::now() + std::chrono::seconds(10));
            clientCpu = CpuSeconds(RUSAGE_THREAD) - clientCpu0;
        }
        result.serviceLag = Seconds(Clock::now() - withService.lastFile);
        result.withService = withService.wall;
        size_t fileNames = 0;
        for (const std::string& name : seen) {
            const size_t slash = name.rfind('/');
            if (name[slash == std::string::npos ? 0 : slash + 1] == 'f') ++fileNames;
        }
        result.serviceLost = long(files) - long(fileNames);
        const double perFiles = 100000.0 / files;
        result.serviceCpu =
            (CpuSeconds(RUSAGE_SELF) - processCpu0 - withService.cpu - clientCpu) * perFiles;
        result.serviceThreadsCpu = (OtherThreadsCpuSeconds() - serviceThreadsCpu0) * perFiles;
        client->removeFolders(spread, {dir});
    };
    if (round % 2 == 0) {
        runAlone();
        runRaw();
        runService();
    } else {
        runService();
        runRaw();
        runAlone();
    }
    return result;
}

template <typename Field>
double Median(const std::vector<BurstRound>& rounds, Field field) {
    std::vector<double> values;
    for (const BurstRound& round : rounds) values.push_back(field(round));
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

void Bench::burst(int files, bool spread, int rounds) {
    // The machine's pace drifts between runs, so the runs are interleaved over several rounds and
    // each figure is the median of its rounds; the slow-downs are taken within a round.
    std::vector<BurstRound> results;
    for (int round = 0; round < rounds; ++round) results.push_back(burstRound(files, spread, round));
    long serviceLost = 0, rawLost = 0;
    bool rawOverflowed = false;
    for (const BurstRound& r : results) {
        serviceLost = std::max(serviceLost, r.serviceLost);
        rawLost = std::max(rawLost, r.rawLost);
        rawOverflowed = rawOverflowed || r.rawOverflowed;
    }
    std::printf("(a) %d creations, %s; medians of %d rounds\n", files,
                spread ? "100 dirs, subtree" : "flat", rounds);
    std::printf(
        "    writer alone %.3f s; with raw inotify x%.2f; with service x%.2f (target <= x1.20)\n",
        Median(results, [](const BurstRound& r) { return r.alone; }),
        Median(results, [](const BurstRound& r) { return r.withRaw / r.alone; }),
        Median(results, [](const BurstRound& r) { return r.withService / r.alone; }));
    std::printf("      by round (alone s, raw x, service x):");
    for (const BurstRound& r : results)
        std::printf(" (%.3f, %.2f, %.2f)", r.alone, r.withRaw / r.alone, r.withService / r.alone);
    std::printf("\n    names lost, worst round: service %ld (target 0), raw reader %ld%s\n",
                serviceLost, rawLost, rawOverflowed ? " (overflowed)" : "");
    std::printf(
        "    last file to all visible: service %.2f ms (target <= 10 ms; includes the "
        "collection of the backlog), raw reader %.2f ms\n",
        Median(results, [](const BurstRound& r) { return r.serviceLag; }) * 1e3,
        Median(results, [](const BurstRound& r) { return r.rawLag; }) * 1e3);
    std::printf("    service CPU %.3f s per 100k files (target <= 0.6 s); by thread %.3f s\n",
                Median(results, [](const BurstRound& r) { return r.serviceCpu; }),
                Median(results, [](const BurstRound& r) { return r.serviceThreadsCpu; }));
}

void Bench::latency() {
    std::string dir = Fresh(root_, "latency");
    auto client = connect(3);
    client->addFolders({false, true, false}, {dir});
    settle();
    std::vector<double> service, rawTimes;
    for (int i = 0; i < 1000; ++i) {
        const std::string name = "l" + std::to_string(i);
        const auto start = Clock::now();
        Create(dir + name);
        bool found = false;
        while (!found) {
            for (auto& folder : client->getChanges(true)) {
                for (auto& n : folder.names) found = found || n == name;
            }
        }
        service.push_back(Seconds(Clock::now() - start) * 1e6);
    }
    client->removeFolders(false, {dir});
    std::string rawDir = Fresh(root_, "latency-raw");
    int fd = inotify_init1(IN_CLOEXEC);
    inotify_add_watch(fd, rawDir.c_str(), IN_CREATE);
    alignas(inotify_event) char buffer[4096];
    for (int i = 0; i < 1000; ++i) {
        const auto start = Clock::now();
        Create(rawDir + "l" + std::to_string(i));
        if (::read(fd, buffer, sizeof buffer) > 0)
            rawTimes.push_back(Seconds(Clock::now() - start) * 1e6);
    }
    ::close(fd);
    auto pct = [](std::vector<double> v, double p) {
        std::sort(v.begin(), v.end());
        return v[size_t(p * double(v.size() - 1))];
    };
    std::printf("(b) creation to name in a GetChanges reply, 1000 files\n");
    std::printf(
        "    service p50 %.0f us (target <= 300), p99 %.0f us (target <= 1000); raw "
        "inotify p50 %.0f us, p99 %.0f us; p50 ratio x%.1f\n",
        pct(service, 0.5), pct(service, 0.99), pct(rawTimes, 0.5), pct(rawTimes, 0.99),
        pct(service, 0.5) / pct(rawTimes, 0.5));
}

void Bench::bigTree() {
    std::string dir = Fresh(root_, "tree");
    for (int i = 0; i < 200; ++i) {
        for (int j = 0; j < 99; ++j)
            fs::create_directories(dir + std::to_string(i) + "/" + std::to_string(j));
    }  // 200 + 19,800 = 20,000 directories
    auto client = connect(4);
    double times[2] = {0, 0};
    long rss[2] = {0, 0};
    for (int round = 0; round < 2; ++round) {  // the second is warm
        const long rss0 = RssKiB();
        const auto start = Clock::now();
        client->addFolders({true, true, false}, {dir});
        settle();
        times[round] = Seconds(Clock::now() - start);
        rss[round] = RssKiB() - rss0;
        if (round == 0) client->removeFolders(true, {dir});
    }
    const auto rawStart = Clock::now();
    int fd = inotify_init1(IN_CLOEXEC);
    size_t watches = 0;
    for (auto& entry : fs::recursive_directory_iterator(dir)) {
        if (entry.is_directory())
            watches += inotify_add_watch(fd, entry.path().c_str(), IN_CREATE) >= 0;
    }
    const double rawTime = Seconds(Clock::now() - rawStart);
    ::close(fd);
    client->removeFolders(true, {dir});
    std::printf("(c) subtree watch on 20,000 existing directories\n");
    std::printf(
        "    established in %.3f s cold, %.3f s warm (target <= 0.5 s); raw inotify walk %.3f "
        "s (%zu watches), warm ratio x%.2f; memory +%ld KiB cold, +%ld KiB warm (target "
        "<= 16384 KiB)\n",
        times[0], times[1], rawTime, watches, times[1] / rawTime, rss[0], rss[1]);
}

void Bench::bigReply() {
    std::string dir = Fresh(root_, "reply");
    auto client = connect(5);
    client->addFolders({false, true, false}, {dir});
    vigil_client::Guid guid{};
    guid.fill(5);
    Vigil::Watch::Guid key;
    std::copy(guid.begin(), guid.end(), key.bytes.begin());
    std::vector<std::u16string> names;
    for (int i = 0; i < 1000000; ++i)
        names.push_back(u"name-" + Osb::Utf8ToUtf16(std::to_string(i)) + u".txt");
    Vigil::Watch::ProcessDatabase().addChanges(key, Osb::Utf8ToUtf16(dir), names);
    const auto start = Clock::now();
    auto reply =
        client->request(Vigil::Protocol::kGetChanges, vigil_client::EncodeGetChanges(true));
    const double took = Seconds(Clock::now() - start);
    const size_t bytes = reply.body.size() + Vigil::Protocol::kHeaderBytes;

    // Baseline: the same bytes through a socket pair, written whole and read whole.
    int pair[2];
    socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair);
    std::vector<uint8_t> out(bytes, 1), in(bytes);
    const auto rawStart = Clock::now();
    std::thread sender([&] {
        for (size_t at = 0; at < bytes;)
            at += size_t(std::max<ssize_t>(0, ::write(pair[0], out.data() + at, bytes - at)));
    });
    for (size_t at = 0; at < bytes;)
        at += size_t(std::max<ssize_t>(0, ::read(pair[1], in.data() + at, bytes - at)));
    sender.join();
    const double rawTook = Seconds(Clock::now() - rawStart);
    ::close(pair[0]);
    ::close(pair[1]);
    client->removeFolders(false, {dir});
    std::printf("(d) GetChanges reply of 1,000,000 names, %.1f MiB\n", double(bytes) / (1 << 20));
    std::printf(
        "    built, sent and received in %.3f s (target < 0.5 s); raw socket transfer of the "
        "same bytes %.3f s (x%.1f)\n",
        took, rawTook, took / rawTook);
}

void Bench::busyThread() {
    std::string dir = Fresh(root_, "busy");
    auto client = connect(6);
    client->addFolders({false, true, false}, {dir});
    settle();
    Create(dir + "first");  // a completion that will wait behind the lock
    Vigil::Watch::ProcessDatabase().runLockedForTesting([&] {
        for (int i = 0; i < 30000; ++i) Create(dir + "b" + std::to_string(i));
    });
    std::unordered_set<std::string> seen;
    Collect(*client, seen, 30001, Clock::now() + std::chrono::seconds(10));
    client->removeFolders(false, {dir});
    std::printf("(e) 30,000 creations while the watch thread waits behind the database lock\n");
    std::printf("    names lost: %ld (target 0)\n", 30001L - long(seen.size()));
}

}  // namespace

int main(int argc, char** argv) {
    const int files = argc > 1 ? std::atoi(argv[1]) : 100000;
    // Phases to run, by letter; (c) first when alone, so its memory is not served from the heap
    // that earlier phases freed.
    const std::string phases = argc > 2 ? argv[2] : "abdec";
    const int rounds = std::max(1, argc > 3 ? std::atoi(argv[3]) : 5);
    Bench bench;
    for (char phase : phases) {
        if (phase == 'a') {
            bench.burst(files, false, rounds);
            bench.burst(files, true, rounds);
        }
        if (phase == 'b') bench.latency();
        if (phase == 'c') bench.bigTree();
        if (phase == 'd') bench.bigReply();
        if (phase == 'e') bench.busyThread();
    }
    return 0;
}
