// ConnectionNoop round trips against the service's pipe server, beside a minimal echo server on the
// same kind of socket, measured in one run: throughput and latency with 1 and with 64 concurrent
// clients, printed as figures and as ratios to the echo server.
//
//   ConnectionNoopBench [seconds-per-measurement, default 3]
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench/EchoServer.h"
#include "platform/IoDevicePipeServer.h"
#include "platform/PipeClient.h"
#include "platform/Platform.h"
#include "service/VigilClientAccept.h"
#include "service/VigilDispatch.h"
#include "service/VigilProtocol.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace Vigil::Protocol;

struct Result {
    double perSecond = 0;
    double p50us = 0;
    double p99us = 0;
};

// One client: Hello (for the service), then Noop round trips until the deadline.
void RunClient(const std::u16string& pipe, bool sayHello, Clock::time_point start,
               Clock::time_point end, std::vector<double>& latencies) {
    auto client = Osb::PipeClient::Connect(pipe);
    uint8_t message[40] = {};
    uint8_t reply[64];
    uint32_t id = 0;
    if (sayHello) {
        StoreHeader(message, {kHello, 24, 1, 0});
        Store32(message + 20, 1);
        client->writeAll(message, 40);
        if (!client->readExact(reply, 40)) return;
        id = Load32(reply + 12);
    }
    StoreHeader(message, {kConnectionNoop, 4, 2, id});
    Store32(message + kHeaderBytes, 0);
    std::this_thread::sleep_until(start);
    while (Clock::now() < end) {
        auto t0 = Clock::now();
        client->writeAll(message, 20);
        if (!client->readExact(reply, 20)) return;
        latencies.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
    }
}

Result Measure(const std::u16string& pipe, bool sayHello, int clients, double seconds) {
    std::vector<std::vector<double>> latencies(static_cast<size_t>(clients));
    for (auto& l : latencies) l.reserve(1 << 20);
    auto start = Clock::now() + std::chrono::milliseconds(200);
    auto end =
        start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    std::vector<std::thread> threads;
    for (int i = 0; i < clients; ++i) {
        threads.emplace_back(RunClient, pipe, sayHello, start, end,
                             std::ref(latencies[static_cast<size_t>(i)]));
    }
    for (auto& t : threads) t.join();
    std::vector<double> all;
    for (auto& l : latencies) all.insert(all.end(), l.begin(), l.end());
    Result r;
    if (all.empty()) return r;
    std::sort(all.begin(), all.end());
    r.perSecond = static_cast<double>(all.size()) / seconds;
    r.p50us = all[all.size() / 2];
    r.p99us = all[std::min(all.size() - 1, all.size() * 99 / 100)];
    return r;
}

}  // namespace

int main(int argc, char** argv) {
    double seconds = argc > 1 ? std::atof(argv[1]) : 3.0;
    if (seconds <= 0) seconds = 3.0;

    std::string root =
        std::filesystem::temp_directory_path() / ("vigil-bench-" + std::to_string(::getpid()));
    std::filesystem::create_directories(root + "/var/lib");
    setenv("VIGIL_SYSTEM_ROOT", root.c_str(), 1);

    Osb::Config config;
    config.applicationName = u"Orvanta Vigil Watch 14.0";
    config.serving = true;
    if (const char* threads = std::getenv("VIGIL_IO_THREADS")) {
        config.ioThreads = static_cast<uint32_t>(std::atoi(threads));
    }
    Osb::PlatformInit(config);
    Vigil::InitDispatch();
    auto server =
        Osb::IoDevicePipeServer::Create(u"bench-service", Osb::MakeSmart<Vigil::ClientAccept>());
    vigil_bench::EchoServer echo(u"bench-echo");

    // The service prints a trace line per connection; keep the report readable.
    std::fflush(stdout);
    std::printf("ConnectionNoop round trips, %.1f s per measurement, medians of 3 rounds\n",
                seconds);
    std::printf("%-8s %-8s %14s %10s %10s\n", "clients", "server", "round trips/s", "p50 us",
                "p99 us");
    // Service and echo take turns, three rounds each, so that a noisy moment of the shared
    // machine touches both; the medians of the rounds are compared.
    auto median = [](std::vector<double> v) {
        std::sort(v.begin(), v.end());
        return v[v.size() / 2];
    };
    bool ok = true;
    for (int clients : {1, 64}) {
        std::vector<double> rate[2], p50[2], p99[2];
        for (int round = 0; round < 3; ++round) {
            Result results[2] = {Measure(u"bench-service", true, clients, seconds),
                                 Measure(u"bench-echo", false, clients, seconds)};
            for (int k = 0; k < 2; ++k) {
                rate[k].push_back(results[k].perSecond);
                p50[k].push_back(results[k].p50us);
                p99[k].push_back(results[k].p99us);
            }
        }
        const char* names[2] = {"service", "echo"};
        for (int k = 0; k < 2; ++k) {
            std::printf("%-8d %-8s %14.0f %10.1f %10.1f\n", clients, names[k], median(rate[k]),
                        median(p50[k]), median(p99[k]));
        }
        double throughputRatio = median(rate[0]) / median(rate[1]);
        double latencyRatio = median(p50[0]) / median(p50[1]);
        std::printf("         ratio    throughput %.2f of echo, p50 %.2fx echo\n", throughputRatio,
                    latencyRatio);
        if (clients == 64 && throughputRatio < 0.5) ok = false;
        if (clients == 1 && (latencyRatio > 2.0 || median(p50[0]) >= 60.0)) ok = false;
    }
    std::printf(
        "targets (64 clients >= 0.5x echo throughput; 1 client p50 <= 2x echo and < 60 us): %s\n",
        ok ? "met" : "NOT met");

    Vigil::TermDispatch();
    server.reset();
    Osb::PlatformUninit();
    std::filesystem::remove_all(root);
    return 0;
}
