// Bringing the platform library up and down.
//
// PlatformInit starts what the asynchronous I/O needs (its delivery threads) and fixes the
// application's name for the event log. PlatformUninit closes every device still open, ends their
// outstanding I/O, and joins the delivery threads. The two are called in pairs around all use of
// pipes; the other facilities of the library (locks, threads, exceptions, the event log) work
// without them. A second PlatformInit without a PlatformUninit in between raises ExSystem (87).
#pragma once

#include <cstdint>
#include <string>

namespace Osb {

struct Config {
    std::u16string applicationName;  // the event source and syslog identity
    std::u16string modulePath;       // the running executable
    bool serving = false;            // the process serves pipes
    bool interactive = false;        // a console is attached
    uint32_t ioThreads = 0;          // delivery threads for I/O completions; 0 picks a default
};

void PlatformInit(const Config& config);
void PlatformUninit();

// A copy of the configuration in force, or a default one before PlatformInit. Any thread.
Config CurrentConfig();

}  // namespace Osb
