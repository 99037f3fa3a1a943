// The notifications to systemd: what `systemctl status` shows as the service's status line.
#include <cstdio>
#include <string>

#include "platform/ServiceNotify.h"
#include "service/VigilClientTable.h"
#include "service/VigilService.h"
#include "service/VigilWatchFolderDatabase.h"

namespace Vigil {

namespace {

// "Running: 3 folders watched, 1 client connected". The folders are those with a running watch:
// a folder whose watch could not start (gone, unreadable) is not counted.
std::string Counts(const char* state) {
    const size_t folders = Watch::ProcessDatabase().activeWatches();
    const uint32_t clients = ConnectedClients();
    char line[160];
    std::snprintf(line, sizeof(line), "%s: %zu folder%s watched, %u client%s connected", state,
                  folders, folders == 1 ? "" : "s", static_cast<unsigned>(clients),
                  clients == 1 ? "" : "s");
    return line;
}

}  // namespace

void Service::announce(ServiceState state, bool ready, uint32_t failure) {
    if (!Osb::ServiceNotifyWanted()) return;
    std::string message;
    switch (state) {
        case ServiceState::kStartPending:
            message = "STATUS=Starting";
            break;
        case ServiceState::kRunning:
            message = "STATUS=" + Counts("Running");
            // After the status: systemd takes the start as done at READY=1, and the status line
            // it shows from then on is this one.
            if (ready) message += "\nREADY=1";
            break;
        case ServiceState::kPausePending:
            message = "STATUS=Pausing";
            break;
        case ServiceState::kPaused:
            message = "STATUS=" + Counts("Paused");
            break;
        case ServiceState::kContinuePending:
            message = "STATUS=Continuing";
            break;
        case ServiceState::kStopPending:
            message = "STOPPING=1\nSTATUS=Stopping";
            break;
        case ServiceState::kStopped:
            if (failure == 0) {
                message = "STATUS=Stopped";
            } else {
                char line[96];
                std::snprintf(line, sizeof(line), "STATUS=Stopped after a failure: error %u",
                              static_cast<unsigned>(failure));
                message = line;
            }
            break;
    }
    Osb::ServiceNotify(message);
}

}  // namespace Vigil
