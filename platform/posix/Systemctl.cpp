#include "platform/posix/Systemctl.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

#include "platform/ErrorCode.h"

extern char** environ;

namespace Osb::Scm {

namespace {

using Clock = std::chrono::steady_clock;

void CloseBoth(int (&fds)[2]) {
    if (fds[0] >= 0) ::close(fds[0]);
    if (fds[1] >= 0) ::close(fds[1]);
}

// Reads both pipes until both are at their end or the deadline passes; false at the deadline.
bool Drain(int out, int err, std::string& output, std::string& errors, Clock::time_point deadline) {
    pollfd entries[2] = {{out, POLLIN, 0}, {err, POLLIN, 0}};
    std::string* sinks[2] = {&output, &errors};
    int open = 2;
    while (open > 0) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) return false;
        const int ready = ::poll(entries, 2, static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return false;
        for (int i = 0; i < 2; ++i) {
            if (entries[i].fd < 0 || entries[i].revents == 0) continue;
            char buffer[4096];
            const ssize_t got = ::read(entries[i].fd, buffer, sizeof buffer);
            if (got < 0 && errno == EINTR) continue;
            if (got <= 0) {
                entries[i].fd = -1;
                --open;
                continue;
            }
            // systemctl's answers are short; a runaway one is cut rather than held whole.
            if (sinks[i]->size() < (1u << 20)) sinks[i]->append(buffer, static_cast<size_t>(got));
        }
    }
    return true;
}

}  // namespace

SystemctlResult RunSystemctl(const std::vector<std::string>& args, int timeoutMs) {
    SystemctlResult result;
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    std::vector<char*> argv;
    std::string program = "systemctl";
    std::string noAsk = "--no-ask-password";
    argv.push_back(program.data());
    argv.push_back(noAsk.data());
    for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);

    int out[2] = {-1, -1};
    int err[2] = {-1, -1};
    if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0) {
        result.error = ErrorFromErrno(errno);
        CloseBoth(out);
        CloseBoth(err);
        return result;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_adddup2(&actions, err[1], 2);
    pid_t child = -1;
    const int spawned =
        ::posix_spawnp(&child, "systemctl", &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    ::close(err[1]);
    if (spawned != 0) {
        result.error = ErrorFromErrno(spawned);
        ::close(out[0]);
        ::close(err[0]);
        return result;
    }
    const bool ended = Drain(out[0], err[0], result.output, result.errors, deadline);
    ::close(out[0]);
    ::close(err[0]);
    if (!ended) ::kill(child, SIGKILL);
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (!ended) {
        result.error = Err::kServiceRequestTimeout;
        return result;
    }
    if (WIFEXITED(status)) result.exitStatus = WEXITSTATUS(status);
    while (!result.errors.empty() && result.errors.back() == '\n') result.errors.pop_back();
    return result;
}

bool ShowUnitProperties(const std::string& unit, const std::vector<std::string>& properties,
                        std::vector<std::string>& values, SystemctlResult& result, int timeoutMs) {
    std::vector<std::string> args{"show"};
    for (const std::string& property : properties) {
        args.push_back("-p");
        args.push_back(property);
    }
    args.push_back("--");
    args.push_back(unit);
    result = RunSystemctl(args, timeoutMs);
    if (result.error != 0 || result.exitStatus != 0) return false;
    values.assign(properties.size(), std::string());
    size_t start = 0;
    while (start < result.output.size()) {
        size_t end = result.output.find('\n', start);
        if (end == std::string::npos) end = result.output.size();
        const std::string_view line(result.output.data() + start, end - start);
        const size_t equals = line.find('=');
        for (size_t i = 0; equals != std::string_view::npos && i < properties.size(); ++i) {
            if (line.substr(0, equals) == properties[i]) values[i] = line.substr(equals + 1);
        }
        start = end + 1;
    }
    return true;
}

}  // namespace Osb::Scm
