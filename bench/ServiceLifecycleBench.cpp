// The service process from launch to exit, beside a baseline process doing the least the same
// kind of work in the same run:
//   start-up   launch -> the pipe accepts a connection, against launch -> exit of the same
//              executable printing its usage text (the cost of exec and the C++ runtime alone);
//   shutdown   stop signal -> exit, against a signal to an idle `sleep` process -> exit;
//   idle       CPU time used over an idle period (a flag; 60 s by default) and resident memory,
//              against the same period of an idle `sleep` process.
// With --folders N the service first gets N watched folders from one client and is restarted, so
// that start-up includes loading them from its cache.
//
//   ServiceLifecycleBench [--rounds N] [--idle-seconds S] [--folders N]
//
// Runs in a scratch system root of its own; CI never runs it.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/Exception.h"
#include "platform/PipeClient.h"
#include "platform/Utf.h"
#include "tools/client/AgentConnection.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

std::string agentPath;

pid_t Launch(const std::vector<std::string>& args, bool quiet = true) {
    const pid_t pid = fork();
    if (pid == 0) {
        if (quiet) {
            const int devnull = ::open("/dev/null", O_WRONLY);
            dup2(devnull, 1);
            dup2(devnull, 2);
        }
        std::vector<char*> argv;
        for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
        argv.push_back(nullptr);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    return pid;
}

double Ms(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

bool Connects(const std::u16string& pipe) {
    try {
        Osb::PipeClient::Connect(pipe);
        return true;
    } catch (const Osb::Exception&) {
        return false;
    }
}

// utime + stime of `pid`, in seconds.
double CpuSeconds(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string field;
    unsigned long long utime = 0, stime = 0;
    for (int i = 3; i <= 15 && fields >> field; ++i) {
        if (i == 14) utime = std::stoull(field);
        if (i == 15) stime = std::stoull(field);
    }
    return static_cast<double>(utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

long RssKiB(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
    }
    return -1;
}

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values.empty() ? 0 : values[values.size() / 2];
}

// Watches `count` folders below `base` for one client GUID, through the pipe, in batches.
void AddFolders(const std::u16string& pipe, const fs::path& base, int count) {
    vigil_client::AgentConnection client(pipe);
    client.hello(*vigil_client::ParseGuid("B3E7C8A0-0001-4000-8000-000000000001"), 1, 0);
    std::vector<std::string> batch;
    for (int i = 0; i < count; ++i) {
        const fs::path folder = base / ("folder-" + std::to_string(i));
        fs::create_directories(folder);
        batch.push_back(folder.string() + "/");
        if (batch.size() == 50 || i + 1 == count) {
            client.addFolders(vigil_client::FolderOptions{}, batch);
            batch.clear();
        }
    }
    std::printf("watched folders now: %zu\n", client.getFolders().size());
}

}  // namespace

int main(int argc, char** argv) {
    int rounds = 5;
    int idleSeconds = 60;
    int folders = 0;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--rounds") == 0) rounds = std::atoi(argv[i + 1]);
        if (std::strcmp(argv[i], "--idle-seconds") == 0) idleSeconds = std::atoi(argv[i + 1]);
        if (std::strcmp(argv[i], "--folders") == 0) folders = std::atoi(argv[i + 1]);
    }
    agentPath = fs::canonical("/proc/self/exe").parent_path().parent_path() /
                "service/MirelleStudioFileAgent";
    char pattern[] = "/tmp/vglbench.XXXXXX";
    const std::string root = mkdtemp(pattern);
    fs::create_directories(root + "/var/lib");
    setenv("VIGIL_SYSTEM_ROOT", root.c_str(), 1);
    unsetenv("VIGIL_SERVICE");
    const std::u16string pipe = u"lifecycle bench";

    if (folders > 0) {
        const pid_t seeding = Launch({agentPath, "/PORT", "lifecycle bench"});
        while (!Connects(pipe)) std::this_thread::yield();
        AddFolders(pipe, root + "/watched", folders);
        kill(seeding, SIGINT);
        waitpid(seeding, nullptr, 0);
    }

    std::vector<double> startMs, baseStartMs, stopMs, baseStopMs;
    for (int round = 0; round < rounds; ++round) {
        auto t0 = Clock::now();
        pid_t usage = Launch({agentPath, "/BOGUS"});
        waitpid(usage, nullptr, 0);
        baseStartMs.push_back(Ms(Clock::now() - t0));

        t0 = Clock::now();
        const pid_t agent = Launch({agentPath, "/PORT", "lifecycle bench"});
        while (!Connects(pipe)) std::this_thread::yield();
        startMs.push_back(Ms(Clock::now() - t0));

        // Let the wait loop run, at a different phase of its one-second sleep each round, so that
        // the stop is measured as a client of a settled service sees it.
        std::this_thread::sleep_for(std::chrono::milliseconds(1000 + 1000 * round / rounds));
        t0 = Clock::now();
        kill(agent, SIGINT);
        waitpid(agent, nullptr, 0);
        stopMs.push_back(Ms(Clock::now() - t0));

        const pid_t sleeper = Launch({"sleep", "100"});
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        t0 = Clock::now();
        kill(sleeper, SIGINT);
        waitpid(sleeper, nullptr, 0);
        baseStopMs.push_back(Ms(Clock::now() - t0));
    }
    std::printf("folders in the watch database: %d, rounds: %d\n", folders, rounds);
    std::printf(
        "start-up  launch->pipe accepting  median %8.2f ms   baseline (usage run) %6.2f ms"
        "   ratio %.1f\n",
        Median(startMs), Median(baseStartMs), Median(startMs) / Median(baseStartMs));
    std::printf(
        "shutdown  stop signal->exit       median %8.2f ms   baseline (sleep)     %6.2f ms"
        "   ratio %.1f\n",
        Median(stopMs), Median(baseStopMs), Median(stopMs) / Median(baseStopMs));

    const pid_t agent = Launch({agentPath, "/PORT", "lifecycle bench"});
    while (!Connects(pipe)) std::this_thread::yield();
    // The watches of a loaded database are set up on the watch thread after the pipe accepts;
    // idle starts once that has settled.
    std::this_thread::sleep_for(std::chrono::seconds(3));
    const pid_t sleeper = Launch({"sleep", std::to_string(idleSeconds + 10)});
    const double agentCpu0 = CpuSeconds(agent), sleeperCpu0 = CpuSeconds(sleeper);
    std::this_thread::sleep_for(std::chrono::seconds(idleSeconds));
    const double agentCpu = CpuSeconds(agent) - agentCpu0;
    const double sleeperCpu = CpuSeconds(sleeper) - sleeperCpu0;
    std::printf(
        "idle      %d s: CPU %.3f s (%.4f %% of one core), baseline (sleep) %.3f s;"
        " RSS %ld KiB, baseline %ld KiB\n",
        idleSeconds, agentCpu, 100.0 * agentCpu / idleSeconds, sleeperCpu, RssKiB(agent),
        RssKiB(sleeper));
    kill(agent, SIGINT);
    kill(sleeper, SIGKILL);
    waitpid(agent, nullptr, 0);
    waitpid(sleeper, nullptr, 0);
    fs::remove_all(root);
    return 0;
}
