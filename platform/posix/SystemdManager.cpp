#include "platform/posix/SystemdManager.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "platform/ErrorCode.h"
#include "platform/SystemRoot.h"
#include "platform/posix/FdIo.h"
#include "platform/posix/ServiceFiles.h"
#include "platform/posix/Systemctl.h"

namespace Osb::Scm::Systemd {

namespace {

// Where /INSTALL writes units: the administrator's folder, which outranks a package's.
constexpr const char* kUnitFolder = "/etc/systemd/system";
// Every folder systemd loads units from, in its order; a unit in any of them is installed.
constexpr const char* kUnitFolders[] = {"/etc/systemd/system", "/run/systemd/system",
                                        "/usr/local/lib/systemd/system", "/lib/systemd/system",
                                        "/usr/lib/systemd/system"};
// How long the short questions to systemd may take (show, daemon-reload, enable, disable).
constexpr int kAskMs = 30000;

std::string Unit(const std::string& name) { return name + ".service"; }
std::string UnitPath(const std::string& name) {
    return std::string(kUnitFolder) + "/" + Unit(name);
}

uint32_t Fail(uint32_t code) {
    SetLastError(code);
    return code;
}

// A systemctl call that did not work: what systemctl said goes to standard error, and the code is
// 1053 whether systemd did not answer in time or refused.
uint32_t Refused(const std::string& what, const SystemctlResult& result) {
    if (result.error != 0 && result.error != Err::kServiceRequestTimeout) {
        std::fprintf(stderr, "service manager: systemctl %s could not run (error %u)\n",
                     what.c_str(), static_cast<unsigned>(result.error));
        return Fail(result.error);
    }
    std::fprintf(stderr, "service manager: systemctl %s %s%s%s\n", what.c_str(),
                 result.error != 0 ? "did not finish in time" : "failed",
                 result.errors.empty() ? "" : ": ", result.errors.c_str());
    return Fail(Err::kServiceRequestTimeout);
}

uint32_t Ask(const std::vector<std::string>& args, int timeoutMs = kAskMs) {
    const SystemctlResult result = RunSystemctl(args, timeoutMs);
    if (result.error == 0 && result.exitStatus == 0) return Err::kSuccess;
    std::string what;
    for (const std::string& arg : args) what += (what.empty() ? "" : " ") + arg;
    return Refused(what, result);
}

bool Show(const std::string& name, const std::vector<std::string>& properties,
          std::vector<std::string>& values, uint32_t& code, int timeoutMs) {
    SystemctlResult result;
    if (ShowUnitProperties(Unit(name), properties, values, result, timeoutMs)) return true;
    code = Refused("show " + Unit(name), result);
    return false;
}

bool KnownUser(const std::string& user) {
    std::vector<char> buffer(16384);
    passwd entry = {};
    passwd* found = nullptr;
    return ::getpwnam_r(user.c_str(), &entry, buffer.data(), buffer.size(), &found) == 0 &&
           found != nullptr;
}

// Writes `text` as the unit file `path` through a temporary beside it, 0644 as unit files are.
// With `createNew`, 1073 when the file exists; otherwise it is replaced.
uint32_t WriteUnit(const std::string& path, const std::string& text, bool createNew) {
    std::string temp = std::string(kUnitFolder) + "/.vigil-unit-XXXXXX";
    const int fd = ::mkostemp(temp.data(), O_CLOEXEC);
    if (fd < 0) return SetLastErrorFromErrno(errno, kUnitFolder);
    const bool written = ::fchmod(fd, 0644) == 0 && posix::WriteAll(fd, text) && ::fsync(fd) == 0;
    const int writeErr = errno;
    ::close(fd);
    if (!written) {
        ::unlink(temp.c_str());
        return SetLastErrorFromErrno(writeErr, temp.c_str());
    }
    const int result =
        createNew ? ::link(temp.c_str(), path.c_str()) : ::rename(temp.c_str(), path.c_str());
    const int err = errno;
    ::unlink(temp.c_str());
    if (result == 0) return Err::kSuccess;
    if (createNew && err == EEXIST) return Fail(Err::kServiceExists);
    return SetLastErrorFromErrno(err, path.c_str());
}

SERVICE_STATUS PendingStatus(uint32_t state) {
    SERVICE_STATUS status = StoppedStatus();
    status.dwCurrentState = state;
    return status;
}

}  // namespace

bool Manages() {
    const char* forced = std::getenv("VIGIL_SERVICE_MANAGER");
    if (forced != nullptr && std::strcmp(forced, "own") == 0) return false;
    if (forced != nullptr && std::strcmp(forced, "systemd") == 0) return true;
    return SystemRoot().empty() && ::access("/run/systemd/system", F_OK) == 0;
}

uint32_t CheckWritable() {
    if (::access(kUnitFolder, W_OK) != 0) return SetLastErrorFromErrno(errno, kUnitFolder);
    return Err::kSuccess;
}

uint32_t Find(const std::string& name) {
    if (!ValidUnitName(name)) return Fail(Err::kInvalidName);
    for (const char* folder : kUnitFolders) {
        if (::access((std::string(folder) + "/" + Unit(name)).c_str(), F_OK) == 0) {
            return Err::kSuccess;
        }
    }
    return Fail(Err::kServiceDoesNotExist);
}

uint32_t Install(const std::string& name, const UnitSettings& settings) {
    if (!ValidUnitName(name)) return Fail(Err::kInvalidName);
    if (Find(name) == Err::kSuccess) return Fail(Err::kServiceExists);
    if (!settings.user.empty() && !KnownUser(settings.user)) {
        std::fprintf(stderr, "service manager: the account %s is not known to this system\n",
                     settings.user.c_str());
        return Fail(Err::kInvalidServiceAccount);
    }
    for (const std::string& dependency : settings.dependencies) {
        std::vector<std::string> state;
        uint32_t code = 0;
        if (!ValidUnitName(dependency)) return Fail(Err::kServiceDependencyDeleted);
        if (!Show(dependency, {"LoadState"}, state, code, kAskMs)) return code;
        if (state[0] != "loaded") {
            std::fprintf(stderr, "service manager: systemd has no unit %s (%s)\n",
                         Unit(dependency).c_str(), state[0].c_str());
            return Fail(Err::kServiceDependencyDeleted);
        }
    }
    const std::string path = UnitPath(name);
    if (const uint32_t code = WriteUnit(path, FormatUnit(settings), true); code != 0) return code;
    uint32_t code = Ask({"daemon-reload"});
    if (code == Err::kSuccess && settings.autoStart) code = Ask({"enable", "--", Unit(name)});
    if (code != Err::kSuccess) {
        // Nothing half-installed: the unit goes, and systemd forgets it again if it can.
        ::unlink(path.c_str());
        (void)RunSystemctl({"daemon-reload"}, kAskMs);
        return Fail(code);
    }
    return Err::kSuccess;
}

uint32_t SetDescription(const std::string& name, const std::string& description) {
    const std::string path = UnitPath(name);
    const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        return errno == ENOENT ? Fail(Err::kServiceDoesNotExist)
                               : SetLastErrorFromErrno(errno, path.c_str());
    }
    std::string text;
    const int err = posix::ReadAll(fd, text);
    ::close(fd);
    if (err != 0) return SetLastErrorFromErrno(err, path.c_str());
    if (const uint32_t code = WriteUnit(path, WithDescription(text, description), false);
        code != 0) {
        return code;
    }
    return Ask({"daemon-reload"});
}

uint32_t Remove(const std::string& name) {
    const std::string path = UnitPath(name);
    if (::access(path.c_str(), F_OK) != 0) {
        if (Find(name) != Err::kSuccess) return Fail(Err::kServiceDoesNotExist);
        std::fprintf(stderr,
                     "service manager: %s was not installed by this program (a package's "
                     "unit?); remove it with what installed it\n",
                     Unit(name).c_str());
        return Fail(Err::kAccessDenied);
    }
    if (const uint32_t code = Ask({"disable", "--", Unit(name)}); code != Err::kSuccess)
        return code;
    if (::unlink(path.c_str()) != 0) return SetLastErrorFromErrno(errno, path.c_str());
    const uint32_t code = Ask({"daemon-reload"});
    // A failed unit stays listed until its failure is forgotten; it is gone now.
    (void)RunSystemctl({"reset-failed", "--", Unit(name)}, kAskMs);
    return code;
}

uint32_t Start(const std::string& name, int timeoutMs) {
    if (const uint32_t code = Find(name); code != Err::kSuccess) return code;
    static const std::vector<std::string> kBefore = {"ActiveState",
                                                     "ExecMainStartTimestampMonotonic"};
    std::vector<std::string> before;
    uint32_t code = 0;
    if (!Show(name, kBefore, before, code, timeoutMs)) return code;
    if (before[0] == "active" || before[0] == "reloading" || before[0] == "activating") {
        return Fail(Err::kServiceAlreadyRunning);
    }
    const SystemctlResult started = RunSystemctl({"start", "--", Unit(name)}, timeoutMs);
    if (started.error == 0 && started.exitStatus == 0) return Err::kSuccess;
    if (started.error != 0) return Refused("start " + Unit(name), started);
    std::fprintf(stderr, "service manager: systemctl start %s failed%s%s\n", Unit(name).c_str(),
                 started.errors.empty() ? "" : ": ", started.errors.c_str());
    static const std::vector<std::string> kAfter = {"ExecMainStartTimestampMonotonic",
                                                    "ExecMainCode", "ExecMainStatus", "Requires"};
    std::vector<std::string> after;
    if (!Show(name, kAfter, after, code, timeoutMs)) return code;
    if (after[0] == before[1]) {
        // The process never started: something it waits for failed first.
        return Fail(after[3].empty() ? Err::kExceptionInService : Err::kServiceDependencyFail);
    }
    const int status = std::atoi(after[2].c_str());
    // ExecMainCode 1 is CLD_EXITED: the process left with an exit status of its own.
    if (after[1] == "1" && status != 0) return Fail(static_cast<uint32_t>(status));
    return Fail(Err::kExceptionInService);
}

uint32_t Stop(const std::string& name, int timeoutMs, SERVICE_STATUS& status) {
    if (const uint32_t code = Find(name); code != Err::kSuccess) return code;
    std::vector<std::string> state;
    uint32_t code = 0;
    if (!Show(name, {"ActiveState"}, state, code, timeoutMs)) return code;
    if (state[0] == "activating" || state[0] == "deactivating") {
        status =
            PendingStatus(state[0] == "activating" ? SERVICE_START_PENDING : SERVICE_STOP_PENDING);
        return Fail(Err::kServiceCannotAcceptCtrl);
    }
    if (state[0] != "active" && state[0] != "reloading") return Fail(Err::kServiceNotActive);
    const SystemctlResult stopped = RunSystemctl({"stop", "--", Unit(name)}, timeoutMs);
    if (stopped.error == Err::kServiceRequestTimeout) {
        // The job goes on in systemd; the caller's wait for the stopped state does the rest.
        status = PendingStatus(SERVICE_STOP_PENDING);
        return Err::kSuccess;
    }
    if (stopped.error != 0 || stopped.exitStatus != 0)
        return Refused("stop " + Unit(name), stopped);
    status = StoppedStatus();
    return Err::kSuccess;
}

uint32_t Query(const std::string& name, int timeoutMs, SERVICE_STATUS& status) {
    if (const uint32_t code = Find(name); code != Err::kSuccess) return code;
    std::vector<std::string> state;
    uint32_t code = 0;
    if (!Show(name, {"ActiveState"}, state, code, timeoutMs)) return code;
    if (state[0] == "activating") {
        status = PendingStatus(SERVICE_START_PENDING);
    } else if (state[0] == "deactivating") {
        status = PendingStatus(SERVICE_STOP_PENDING);
    } else if (state[0] == "active" || state[0] == "reloading") {
        EndpointReply reply = {};
        if (CallEndpoint(name, {kOpQuery, 0}, reply, timeoutMs) == Err::kSuccess) {
            if (reply.result != Err::kSuccess) return Fail(reply.result);  // a refused caller
            status = reply.status;
        } else {
            // Running as far as systemd knows, without an endpoint (yet): it can still be stopped.
            status = PendingStatus(SERVICE_RUNNING);
            status.dwControlsAccepted = SERVICE_ACCEPT_STOP;
        }
    } else {
        status = StoppedStatus();
    }
    return Err::kSuccess;
}

}  // namespace Osb::Scm::Systemd
