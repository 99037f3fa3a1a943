#include "tests/e2e/AgentProcess.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>

namespace vigil_test {

namespace {

using Clock = std::chrono::steady_clock;

pid_t Spawn(const std::string& program, const std::vector<std::string>& args, unsigned openFiles,
            int& outFd, int& errFd) {
    int out[2];
    int err[2];
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) return -1;
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(program.c_str()));
    for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    pid_t pid = -1;
    if (openFiles != 0) {
        // A descriptor limit must be in place before the agent runs, which only a fork can do.
        pid = fork();
        if (pid == 0) {
            dup2(out[1], 1);
            dup2(err[1], 2);
            const rlimit limit{openFiles, openFiles};
            if (setrlimit(RLIMIT_NOFILE, &limit) != 0) _exit(126);
            execv(program.c_str(), argv.data());
            _exit(127);
        }
    } else {
        // posix_spawn rather than fork: a test built with a sanitizer has a huge address space,
        // and copying its page tables for every child made tests that start the agent hundreds of
        // times slow for nothing.
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, out[1], 1);
        posix_spawn_file_actions_adddup2(&actions, err[1], 2);
        if (posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), environ) != 0) {
            pid = -1;
        }
        posix_spawn_file_actions_destroy(&actions);
    }
    close(out[1]);
    close(err[1]);
    outFd = out[0];
    errFd = err[0];
    return pid;
}

// Reads what is there from both streams; false once both are at their end.
bool ReadSome(int& outFd, int& errFd, std::string& out, std::string& err, int timeoutMs) {
    pollfd fds[2] = {{outFd, POLLIN, 0}, {errFd, POLLIN, 0}};
    if (outFd < 0 && errFd < 0) return false;
    if (poll(fds, 2, timeoutMs) <= 0) return true;
    char buffer[4096];
    int* ends[2] = {&outFd, &errFd};
    std::string* sinks[2] = {&out, &err};
    for (int i = 0; i < 2; ++i) {
        if (*ends[i] < 0 || (fds[i].revents & (POLLIN | POLLHUP)) == 0) continue;
        const ssize_t got = read(*ends[i], buffer, sizeof(buffer));
        if (got > 0) {
            sinks[i]->append(buffer, static_cast<size_t>(got));
        } else {
            close(*ends[i]);
            *ends[i] = -1;
        }
    }
    return outFd >= 0 || errFd >= 0;
}

int ExitStatus(int raw) { return WIFEXITED(raw) ? WEXITSTATUS(raw) : -1; }

}  // namespace

std::string AgentPath() { return VIGIL_AGENT_PATH; }

Finished RunAgent(const std::vector<std::string>& args, int timeoutMs, const std::string& program) {
    RunningAgent agent(args, program);
    return agent.wait(timeoutMs);
}

RunningAgent::RunningAgent(const std::vector<std::string>& args, const std::string& program,
                           unsigned openFiles) {
    pid_ = Spawn(program, args, openFiles, outFd_, errFd_);
    if (pid_ < 0) ADD_FAILURE() << "cannot start " << program;
}

RunningAgent::~RunningAgent() {
    if (!finished_ && pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    if (outFd_ >= 0) close(outFd_);
    if (errFd_ >= 0) close(errFd_);
}

bool RunningAgent::waitForOutput(const std::string& text, int timeoutMs) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (out_.find(text) == std::string::npos) {
        if (Clock::now() >= deadline) return false;
        if (!ReadSome(outFd_, errFd_, out_, err_, 50)) return out_.find(text) != std::string::npos;
    }
    return true;
}

void RunningAgent::signal(int number) { kill(pid_, number); }

Finished RunningAgent::wait(int timeoutMs) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (ReadSome(outFd_, errFd_, out_, err_, 50)) {
        if (Clock::now() >= deadline) {
            ADD_FAILURE() << "the agent did not end within " << timeoutMs << " ms";
            kill(pid_, SIGKILL);
            break;
        }
    }
    int raw = 0;
    waitpid(pid_, &raw, 0);
    finished_ = true;
    return {ExitStatus(raw), out_, err_};
}

std::vector<std::string> FileLines(const std::string& path) {
    std::ifstream in(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

}  // namespace vigil_test
