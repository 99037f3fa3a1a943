// MirelleStudioFileAgent: serves the pipe in the foreground until Ctrl+C (SIGINT) or SIGTERM.
//
//   MirelleStudioFileAgent [/PORT name]
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>

#include "platform/IoDevicePipeServer.h"
#include "platform/Platform.h"
#include "platform/Sleep.h"
#include "platform/Utf.h"
#include "service/VigilClientAccept.h"
#include "service/VigilDispatch.h"
#include "service/VigilService.h"

namespace {

std::atomic<bool> stopRequested{false};

extern "C" void OnStopSignal(int) { stopRequested = true; }

}  // namespace

int main(int argc, char** argv) {
    std::u16string pipeName = u"\\\\.\\pipe\\Orvanta Vigil Watch 14.0";
    for (int i = 1; i + 1 < argc; ++i) {
        if (std::strcmp(argv[i], "/PORT") == 0 || std::strcmp(argv[i], "-PORT") == 0) {
            pipeName = Osb::Utf8ToUtf16(argv[i + 1]);
        }
    }
    std::signal(SIGINT, OnStopSignal);
    std::signal(SIGTERM, OnStopSignal);

    try {
        Vigil::Service service(pipeName);
        Osb::Config config;
        config.applicationName = u"Orvanta Vigil Watch 14.0";
        config.serving = true;
        config.interactive = true;
        Osb::PlatformInit(config);
        std::printf("Vigil Startup ...\n");
        std::fflush(stdout);
        Vigil::InitDispatch();
        auto server =
            Osb::IoDevicePipeServer::Create(pipeName, Osb::MakeSmart<Vigil::ClientAccept>());
        while (!stopRequested) Osb::SleepEx(200, true);
        Vigil::TermDispatch();
        server.reset();
        Osb::PlatformUninit();
        std::printf("Vigil Shutdown ...\n");
        std::fflush(stdout);
    } catch (const Osb::Exception& e) {
        std::fprintf(stderr, "MirelleStudioFileAgent: %s\n", Osb::Utf16ToUtf8(e.what()).c_str());
        return 1;
    }
    return 0;
}
