// The built executable run as a child process under the current environment (the test's scratch
// VIGIL_SYSTEM_ROOT included), with its standard output and error captured.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace vigil_test {

// The path of the executable under test.
std::string AgentPath();

struct Finished {
    int status = -1;  // the exit status as the shell sees it (low 8 bits), -1 when killed
    std::string out;
    std::string err;
};

// Runs `program` with `args` to its end; fails the test if it takes more than `timeoutMs`.
Finished RunAgent(const std::vector<std::string>& args, int timeoutMs = 120000,
                  const std::string& program = AgentPath());

// A child that runs on while the test talks to it.
class RunningAgent {
  public:
    // `openFiles`, when not 0, is the child's limit of open descriptors (soft and hard), set
    // before it runs the program.
    explicit RunningAgent(const std::vector<std::string>& args,
                          const std::string& program = AgentPath(), unsigned openFiles = 0);
    ~RunningAgent();
    RunningAgent(const RunningAgent&) = delete;
    RunningAgent& operator=(const RunningAgent&) = delete;

    // Reads standard output until it holds `text`, or `timeoutMs` passed; true when found.
    bool waitForOutput(const std::string& text, int timeoutMs = 20000);
    void signal(int number);
    // Waits for the end (`timeoutMs` at most; then kills and fails) and collects the rest.
    Finished wait(int timeoutMs = 20000);
    pid_t pid() const { return pid_; }

  private:
    void drain(int timeoutMs);
    pid_t pid_ = -1;
    int outFd_ = -1;
    int errFd_ = -1;
    std::string out_;
    std::string err_;
    bool finished_ = false;
};

// The lines of a file, without their line ends; empty when the file does not exist.
std::vector<std::string> FileLines(const std::string& path);

}  // namespace vigil_test
