// Runs a piece of a test in a child process that has given up root for another user, and brings
// back the text it produced. Tests run as root here; this is how they act as a plain local user.
#pragma once

#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace vigil_test {

struct UserIds {
    uid_t uid;
    gid_t gid;
    std::vector<gid_t> groups;  // supplementary
};

struct ChildOutcome {
    bool cannotSwitch = false;  // the child could not give up root: the caller skips
    int status = -1;            // 0 when `work` returned, 3 when it raised
    std::string output;         // what `work` returned, or the text of what it raised
};

// Forks; the child takes on `user` (supplementary groups, group, then user), runs `work` and sends
// its result back through a pipe. Only the forking thread lives on in the child, so `work` must not
// wait for anything another thread of the test would do.
inline ChildOutcome RunAsUser(const UserIds& user, const std::function<std::string()>& work) {
    int fds[2];
    if (::pipe(fds) != 0) throw std::runtime_error("pipe failed");
    const pid_t child = ::fork();
    if (child < 0) throw std::runtime_error("fork failed");
    if (child == 0) {
        ::close(fds[0]);
        if (::setgroups(user.groups.size(), user.groups.data()) != 0 || ::setgid(user.gid) != 0 ||
            ::setuid(user.uid) != 0 || ::geteuid() == 0) {
            ::_exit(100);
        }
        std::string text;
        int status = 0;
        try {
            text = work();
        } catch (const std::exception& e) {
            text = e.what();
            status = 3;
        } catch (...) {
            text = "unknown exception";
            status = 3;
        }
        for (size_t at = 0; at < text.size();) {
            const ssize_t put = ::write(fds[1], text.data() + at, text.size() - at);
            if (put <= 0) ::_exit(4);
            at += static_cast<size_t>(put);
        }
        ::_exit(status);
    }
    ::close(fds[1]);
    ChildOutcome outcome;
    char buffer[4096];
    for (ssize_t got; (got = ::read(fds[0], buffer, sizeof(buffer))) != 0;) {
        if (got < 0) break;
        outcome.output.append(buffer, static_cast<size_t>(got));
    }
    ::close(fds[0]);
    int status = 0;
    if (::waitpid(child, &status, 0) != child || !WIFEXITED(status)) return outcome;
    outcome.status = WEXITSTATUS(status);
    outcome.cannotSwitch = outcome.status == 100;
    return outcome;
}

}  // namespace vigil_test
