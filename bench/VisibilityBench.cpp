// What the visibility rule costs a client of a plain user, beside the same requests from a client
// of user 0 in the same run (which is judged by nothing). Each GetChanges is measured twice: by a
// client driven in this process, so the figure is the handler's own, and as a client process sees
// it, a round trip over the pipe with the reply decoded. The handler's figure for a clear has a
// floor above 1.3: the rule asks the kernel once per directory (about 1 us each, 100 here) while
// the root client's clear only moves the list and encodes it (about 0.25 ms); the client's view
// is the one the target holds for.
//
//   GetChanges: 10,000 pending names in 100 subdirectories of one watched folder, collected in one
//   step (clear) and left pending; one decision per directory for the plain user's client.
//   AddFolders: a subtree of 20,000 directories, from the request to its reply and to the end of
//   the watch thread's start of every watch.
//
// Runs as root (the plain user is taken on by switching the handler thread's credentials). Prints
// medians of interleaved rounds and the ratios.
//
//   VisibilityBench [rounds, default 9]
#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "platform/IoDevicePipeServer.h"
#include "platform/Platform.h"
#include "platform/Utf.h"
#include "service/VigilClient.h"
#include "service/VigilClientAccept.h"
#include "service/VigilClientTable.h"
#include "service/VigilDispatch.h"
#include "service/VigilProtocol.h"
#include "service/VigilWatchFolderDatabase.h"
#include "tools/client/AgentConnection.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using namespace Vigil::Protocol;
using Bytes = std::vector<uint8_t>;

void Put32(Bytes& out, uint32_t value) {
    uint8_t b[4];
    Store32(b, value);
    out.insert(out.end(), b, b + 4);
}

Bytes Message(uint32_t code, uint32_t clientId, const Bytes& body) {
    // Sized once and filled in place (GCC 12 warns falsely on a vector insert after 16 bytes).
    Bytes m(kHeaderBytes + body.size());
    StoreHeader(m.data(), {code, static_cast<uint32_t>(body.size()), 1, clientId});
    std::memcpy(m.data() + kHeaderBytes, body.data(), body.size());
    return m;
}

// AddFolders with options (subtree, changed) of one path.
Bytes AddBody(const std::u16string& path) {
    Bytes body;
    for (uint32_t v : {1u, 1u, 0u, 0u, 1u, 12u, 28u}) Put32(body, v);
    Put32(body, 40);
    Put32(body, static_cast<uint32_t>(2 * path.size() + 2));
    Put32(body, 5);
    for (char16_t unit : path) {
        body.push_back(static_cast<uint8_t>(unit));
        body.push_back(static_cast<uint8_t>(unit >> 8));
    }
    body.push_back(0);
    body.push_back(0);
    return body;
}

// A Client without a socket: requests go in through onData, the last reply's size comes back.
struct DrivenClient {
    explicit DrivenClient(const Osb::PeerIdentity& peer, uint8_t seed) {
        client = Vigil::Client::create(Osb::SmartPointer<Osb::IoDevice>(), peer);
        client->setSendHookForTesting([this](const Osb::SmartPointer<Osb::IoRequest>& request) {
            lastCode = LoadHeader(request->buffer()).code;
            lastBytes = request->length();
        });
        guid.bytes.fill(seed);
        Bytes hello;
        Put32(hello, 0);
        Put32(hello, 1);
        hello.insert(hello.end(), guid.bytes.begin(), guid.bytes.end());
        send(Message(kHello, 0, hello));
    }
    void send(const Bytes& message) {
        client->onData(static_cast<uint32_t>(message.size()), message.data());
    }
    Osb::SmartPointer<Vigil::Client> client;
    Vigil::Watch::Guid guid;
    uint32_t lastCode = 0;
    uint32_t lastBytes = 0;
};

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

double Milliseconds(const std::function<void()>& work) {
    const auto start = Clock::now();
    work();
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

void WaitUntil(const std::function<bool()>& done) {
    while (!done()) std::this_thread::sleep_for(std::chrono::microseconds(200));
}

// The GetChanges reply with the bench's 10,000 names, header included.
constexpr size_t kFullReplyBytes = 515920;

// A client process with the GUID of `seed`, as the plain user or as root, that makes one
// GetChanges round trip over the pipe per command it reads ('k' keeps the names, 'c' clears them)
// and writes back its time in milliseconds; the parent refills the names between commands, so
// every clear finds the same 10,000 names.
class ClientProcess {
  public:
    ClientProcess(const std::u16string& pipe, uint8_t seed, const Osb::PeerIdentity* as) {
        int commands[2], times[2];
        if (::pipe(commands) != 0 || ::pipe(times) != 0) return;
        pid_ = ::fork();
        if (pid_ == 0) {
            ::close(commands[1]);
            ::close(times[0]);
            ::_exit(Serve(pipe, seed, as, commands[0], times[1]));
        }
        ::close(commands[0]);
        ::close(times[1]);
        commands_ = commands[1];
        times_ = times[0];
    }
    ~ClientProcess() {
        if (commands_ >= 0) ::close(commands_);  // the child ends at the end of its commands
        if (times_ >= 0) ::close(times_);
        if (pid_ > 0) ::waitpid(pid_, nullptr, 0);
    }
    // One round trip's time in milliseconds, or a negative number when the child failed or its
    // reply was not the whole list.
    double trip(bool clear) {
        const char command = clear ? 'c' : 'k';
        double ms = -1;
        if (::write(commands_, &command, 1) != 1) return -1;
        if (::read(times_, &ms, sizeof ms) != static_cast<ssize_t>(sizeof ms)) return -1;
        return ms;
    }

  private:
    static int Serve(const std::u16string& pipe, uint8_t seed, const Osb::PeerIdentity* as,
                     int commands, int times) {
        if (as != nullptr) {
            std::vector<gid_t> groups(as->groups.begin(), as->groups.end());
            if (::setgroups(groups.size(), groups.data()) != 0 || ::setgid(as->gid) != 0 ||
                ::setuid(as->uid) != 0) {
                return 1;
            }
        }
        try {
            vigil_client::AgentConnection connection(pipe);
            vigil_client::Guid guid;
            guid.fill(seed);
            connection.hello(guid, 1, 0);
            const vigil_client::Bytes keep = vigil_client::EncodeGetChanges(false);
            const vigil_client::Bytes clear = vigil_client::EncodeGetChanges(true);
            char command = 0;
            while (::read(commands, &command, 1) == 1) {
                size_t bytes = 0;
                double ms = Milliseconds([&] {
                    bytes = connection.request(kGetChanges, command == 'c' ? clear : keep)
                                .body.size();
                });
                // Every reply must carry the whole list, or the figures compare unlike work.
                if (bytes + kHeaderBytes != kFullReplyBytes) ms = -1;
                if (::write(times, &ms, sizeof ms) != static_cast<ssize_t>(sizeof ms)) return 3;
            }
        } catch (...) {
            return 2;
        }
        return 0;
    }

    pid_t pid_ = -1;
    int commands_ = -1;
    int times_ = -1;
};

}  // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 9;
    char pattern[] = "/tmp/vgl-visibility-bench.XXXXXX";
    if (mkdtemp(pattern) == nullptr) return 1;
    const std::string root = pattern;
    fs::permissions(root, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                              fs::perms::others_read | fs::perms::others_exec);
    fs::create_directories(root + "/data");
    setenv("VIGIL_SYSTEM_ROOT", root.c_str(), 1);
    Osb::Config config;
    config.applicationName = u"Orvanta Vigil Watch 14.0";
    config.serving = true;
    Osb::PlatformInit(config);
    Vigil::InitDispatch();
    Vigil::Watch::Database& database = Vigil::Watch::ProcessDatabase();
    database.open(Osb::Utf8ToUtf16(root + "/data/"));

    Osb::PeerIdentity plain;
    plain.known = true;
    plain.uid = 61001;
    plain.gid = 61001;
    plain.groups = {61002};
    DrivenClient rootClient(Osb::ProcessIdentity(), 1);
    DrivenClient plainClient(plain, 2);

    // GetChanges: the folder's names, 100 to a directory, interleaved as a burst leaves them.
    const std::string changes = root + "/changes/";
    for (int d = 0; d < 100; ++d) fs::create_directories(changes + "dir-" + std::to_string(d));
    const std::u16string changesPath = Osb::Utf8ToUtf16(changes);
    std::vector<std::u16string> names;
    for (int i = 0; i < 10000; ++i) {
        names.push_back(u"dir-" + Osb::Utf8ToUtf16(std::to_string(i % 100)) + u"/IMG_" +
                        Osb::Utf8ToUtf16(std::to_string(i)) + u".jpg");
    }
    for (DrivenClient* c : {&rootClient, &plainClient}) {
        c->send(Message(kAddFolders, c->client->id, AddBody(changesPath)));
        if (c->lastCode != kAddFoldersReply) {
            std::fprintf(stderr, "AddFolders refused (code 0x%08X)\n", c->lastCode);
            return 1;
        }
    }
    Bytes clearBody, keepBody;
    Put32(clearBody, 1);
    Put32(keepBody, 0);
    std::vector<double> rootClear, plainClear, rootKeep, plainKeep;
    uint32_t rootReply = 0, plainReply = 0;
    for (int r = 0; r < rounds; ++r) {
        for (DrivenClient* c : {&rootClient, &plainClient}) {
            database.addChanges(c->guid, changesPath, names);
        }
        // Alternate who goes first, so neither always meets warm caches.
        auto measure = [&](DrivenClient& c, const Bytes& body) {
            return Milliseconds([&] { c.send(Message(kGetChanges, c.client->id, body)); });
        };
        if (r % 2 == 0) {
            rootKeep.push_back(measure(rootClient, keepBody));
            plainKeep.push_back(measure(plainClient, keepBody));
        } else {
            plainKeep.push_back(measure(plainClient, keepBody));
            rootKeep.push_back(measure(rootClient, keepBody));
        }
        if (r % 2 == 0) {
            rootClear.push_back(measure(rootClient, clearBody));
            rootReply = rootClient.lastBytes;
            plainClear.push_back(measure(plainClient, clearBody));
            plainReply = plainClient.lastBytes;
        } else {
            plainClear.push_back(measure(plainClient, clearBody));
            plainReply = plainClient.lastBytes;
            rootClear.push_back(measure(rootClient, clearBody));
            rootReply = rootClient.lastBytes;
        }
    }
    if (rootReply != plainReply || rootReply != kFullReplyBytes) {
        std::fprintf(stderr, "the replies differ: %u and %u bytes\n", rootReply, plainReply);
        return 1;
    }
    std::printf("GetChanges, 10,000 names in 100 directories (%u-byte reply), median of %d:\n",
                rootReply, rounds);
    std::printf("  clear  root %8.3f ms  plain user %8.3f ms  ratio %.2f (target <= 1.3)\n",
                Median(rootClear), Median(plainClear), Median(plainClear) / Median(rootClear));
    std::printf("  keep   root %8.3f ms  plain user %8.3f ms  ratio %.2f (target <= 1.3)\n",
                Median(rootKeep), Median(plainKeep), Median(plainKeep) / Median(rootKeep));

    // The same request as a client sees it: a round trip over the pipe, reply decoding included.
    const std::u16string pipe = u"visibility-bench-" + Osb::Utf8ToUtf16(std::to_string(getpid()));
    auto server = Osb::IoDevicePipeServer::Create(pipe, Osb::MakeSmart<Vigil::ClientAccept>());
    for (DrivenClient* c : {&rootClient, &plainClient}) {
        database.addChanges(c->guid, changesPath, names);
    }
    {
        ClientProcess rootProcess(pipe, 1, nullptr);
        ClientProcess plainProcess(pipe, 2, &plain);
        std::vector<double> trips[2][2];  // [clear][plain]
        for (int r = 0; r < 3 * rounds; ++r) {
            for (const bool clear : {false, true}) {
                for (int turn = 0; turn < 2; ++turn) {
                    // Alternate who goes first, as above.
                    const bool plainTurn = (turn == 0) == (r % 2 == 1);
                    const double ms = (plainTurn ? plainProcess : rootProcess).trip(clear);
                    if (ms < 0) {
                        std::fprintf(stderr, "a client process failed\n");
                        return 1;
                    }
                    trips[clear][plainTurn].push_back(ms);
                    if (clear) {
                        database.addChanges((plainTurn ? plainClient : rootClient).guid,
                                            changesPath, names);
                    }
                }
            }
        }
        for (const bool clear : {false, true}) {
            const std::vector<double>& rootTrips = trips[clear][0];
            const std::vector<double>& plainTrips = trips[clear][1];
            std::printf(
                "  pipe round trip, %s, median of %zu: root %8.3f ms  plain user %8.3f ms  "
                "ratio %.2f (target <= 1.3)\n",
                clear ? "clear" : "keep ", rootTrips.size(), Median(rootTrips),
                Median(plainTrips), Median(plainTrips) / Median(rootTrips));
        }
    }
    server.reset();

    // AddFolders of a subtree of 20,000 directories: 20 x 1,000.
    const std::string tree = root + "/tree/";
    for (int a = 0; a < 20; ++a) {
        for (int b = 0; b < 1000; ++b) {
            fs::create_directories(tree + "a" + std::to_string(a) + "/b" + std::to_string(b));
        }
    }
    const std::u16string treePath = Osb::Utf8ToUtf16(tree);
    std::vector<double> rootReplyMs, plainReplyMs, rootSettledMs, plainSettledMs;
    const int treeRounds = rounds;
    for (int r = 0; r < treeRounds; ++r) {
        for (int turn = 0; turn < 2; ++turn) {
            const bool plainTurn = (turn == 0) == (r % 2 == 1);
            DrivenClient& c = plainTurn ? plainClient : rootClient;
            double replied = 0;
            const double settled = Milliseconds([&] {
                replied = Milliseconds(
                    [&] { c.send(Message(kAddFolders, c.client->id, AddBody(treePath))); });
                WaitUntil([&] { return database.startsSettledForTesting(); });
            });
            if (c.lastCode != kAddFoldersReply) {
                std::fprintf(stderr, "AddFolders of the tree refused\n");
                return 1;
            }
            (plainTurn ? plainReplyMs : rootReplyMs).push_back(replied);
            (plainTurn ? plainSettledMs : rootSettledMs).push_back(settled);
            database.removeFolders(c.guid, {{treePath, {}}});
            // The watch thread lets go of 20,000 kernel watches: let it finish before the next
            // round's request, which would otherwise wait for the thread's lock.
            WaitUntil([&] {
                return database.activeWatches() <= 2 &&
                       database.startsSettledForTesting();
            });
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    }
    std::printf("AddFolders, a subtree of 20,000 directories, median of %d:\n", treeRounds);
    std::printf("  reply          root %8.3f ms  plain user %8.3f ms  ratio %.2f (target <= 1.5)\n",
                Median(rootReplyMs), Median(plainReplyMs),
                Median(plainReplyMs) / Median(rootReplyMs));
    std::printf("  watches ready  root %8.3f ms  plain user %8.3f ms  ratio %.2f (target <= 1.5)\n",
                Median(rootSettledMs), Median(plainSettledMs),
                Median(plainSettledMs) / Median(rootSettledMs));

    database.close();
    Vigil::TermDispatch();
    rootClient.client.reset();
    plainClient.client.reset();
    Vigil::ResetClientTableForTesting();
    Osb::PlatformUninit();
    fs::remove_all(root);
    return 0;
}
