#include "tests/systemd/NspawnContainer.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

namespace vigil_test {

namespace {

using Clock = std::chrono::steady_clock;

CommandResult Capture(const std::string& command) {
    CommandResult result;
    FILE* pipe = ::popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) return result;
    char buffer[4096];
    size_t got = 0;
    while ((got = std::fread(buffer, 1, sizeof buffer, pipe)) > 0)
        result.output.append(buffer, got);
    const int status = ::pclose(pipe);
    if (status != -1 && WIFEXITED(status)) result.exitStatus = WEXITSTATUS(status);
    return result;
}

}  // namespace

std::string ShellWord(const std::string& text) {
    std::string word = "'";
    for (const char c : text) {
        if (c == '\'') {
            word += "'\\''";
        } else {
            word += c;
        }
    }
    return word + "'";
}

NspawnContainer::NspawnContainer(std::string bindRo, std::string at)
    : bindRo_(std::move(bindRo)), at_(std::move(at)) {}

bool NspawnContainer::boot(std::string& why) {
    if (::geteuid() != 0) {
        why = "booting a container needs root";
        return false;
    }
    if (Capture("command -v systemd-nspawn").exitStatus != 0) {
        why = "systemd-nspawn is not installed (Debian: systemd-container)";
        return false;
    }
    if (::access("/lib/systemd/systemd", X_OK) != 0 &&
        ::access("/usr/lib/systemd/systemd", X_OK) != 0) {
        why = "this root has no systemd to boot";
        return false;
    }
    char folder[] = "/tmp/vigil-nspawn-XXXXXX";
    if (::mkdtemp(folder) == nullptr) {
        why = "no scratch folder";
        return false;
    }
    scratch_ = folder;
    // nspawn refuses the host's root as such; bound elsewhere, in a mount namespace that ends with
    // the container, it is just a folder. The machine name only sets the hostname inside.
    const std::string script =
        "mount --bind / " + ShellWord(scratch_) +
        " && exec systemd-nspawn --quiet --directory=" + ShellWord(scratch_) +
        " --volatile=overlay --keep-unit --register=no --private-network --machine=vigil-e2e " +
        ShellWord("--bind-ro=" + bindRo_ + ":" + at_) + " --boot";
    nspawn_ = ::fork();
    if (nspawn_ == 0) {
        const int null = ::open("/dev/null", O_RDONLY);
        const int log = ::open((scratch_ + ".log").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (null >= 0) ::dup2(null, 0);
        if (log >= 0) {
            ::dup2(log, 1);
            ::dup2(log, 2);
        }
        ::setpgid(0, 0);
        ::execlp("timeout", "timeout", "--signal=KILL", "900", "unshare", "--mount",
                 "--propagation", "private", "sh", "-c", script.c_str(), nullptr);
        ::_exit(127);
    }
    if (nspawn_ < 0) {
        why = "fork failed";
        return false;
    }
    // The container's init is the process named systemd below nspawn; it may take a moment to
    // appear, and systemd a moment more to reach its default target.
    const auto deadline = Clock::now() + std::chrono::seconds(60);
    std::string state;
    while (Clock::now() < deadline) {
        if (init_ <= 0) {
            // timeout's child is nspawn (unshare and sh exec it), whose child is the init.
            const std::string t = std::to_string(nspawn_);
            const std::string found =
                Capture("{ for n in $(cat /proc/" + t + "/task/" + t +
                        "/children); do "
                        "for c in $(cat /proc/$n/task/$n/children); do "
                        "[ \"$(cat /proc/$c/comm)\" = systemd ] && echo $c; done; done; } "
                        "2>/dev/null")
                    .output;
            if (!found.empty()) init_ = std::atoi(found.c_str());
        }
        if (init_ > 0) {
            state = run("systemctl is-system-running").output;
            if (state.rfind("running", 0) == 0 || state.rfind("degraded", 0) == 0) return true;
        }
        int status = 0;
        if (::waitpid(nspawn_, &status, WNOHANG) == nspawn_) {
            nspawn_ = -1;
            why = "the container ended while booting: " +
                  Capture("tail -n 5 " + scratch_ + ".log").output;
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    why = "systemd in the container did not reach a running state within 60 s (init " +
          std::to_string(init_) + ", state: " + state + "); " +
          Capture("tail -n 5 " + scratch_ + ".log").output;
    return false;
}

CommandResult NspawnContainer::run(const std::string& command) const {
    return Capture("nsenter --target " + std::to_string(init_) + " --all /bin/sh -c " +
                   ShellWord(command));
}

NspawnContainer::~NspawnContainer() {
    if (nspawn_ > 0) {
        // nspawn takes SIGTERM as a request to power the container off.
        ::kill(-nspawn_, SIGTERM);
        const auto deadline = Clock::now() + std::chrono::seconds(30);
        int status = 0;
        while (::waitpid(nspawn_, &status, WNOHANG) == 0) {
            if (Clock::now() >= deadline) {
                ::kill(-nspawn_, SIGKILL);
                ::waitpid(nspawn_, &status, 0);
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    }
    if (!scratch_.empty()) {
        ::rmdir(scratch_.c_str());
        ::unlink((scratch_ + ".log").c_str());
    }
}

}  // namespace vigil_test
