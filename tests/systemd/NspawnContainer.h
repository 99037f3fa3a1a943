// A booted systemd for end-to-end tests: systemd-nspawn --boot of this machine's own root, bound at
// a scratch folder in a mount namespace of its own, with a throw-away overlay over it
// (--volatile=overlay: nothing done inside reaches the machine), no network and no registration
// with the host's machined. Commands run inside through nsenter. The container is shut down when
// the object goes, and `timeout` stops it by itself should the test process die first.
#pragma once

#include <sys/types.h>

#include <string>

namespace vigil_test {

struct CommandResult {
    int exitStatus = -1;  // -1 when the command did not end normally
    std::string output;   // standard output and error together
};

class NspawnContainer {
  public:
    // `bindRo` is a host folder that appears read-only at `at` inside.
    NspawnContainer(std::string bindRo, std::string at);
    ~NspawnContainer();
    NspawnContainer(const NspawnContainer&) = delete;
    NspawnContainer& operator=(const NspawnContainer&) = delete;

    // Boots and waits until systemd reports the system running (or degraded); false with the reason
    // when no container can boot here (no systemd-nspawn, not root, no systemd in this root).
    bool boot(std::string& why);

    // Runs `command` with /bin/sh inside as root.
    CommandResult run(const std::string& command) const;

  private:
    std::string bindRo_;
    std::string at_;
    std::string scratch_;
    pid_t nspawn_ = -1;
    pid_t init_ = -1;
};

// `text` as one word for /bin/sh.
std::string ShellWord(const std::string& text);

}  // namespace vigil_test
