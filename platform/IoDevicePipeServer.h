// Osb::IoDevicePipeServer: the listening end of a named pipe (SystemRoot.h gives the socket path).
//
// Create starts accepting at once; each connection becomes an IoDevice handed to the notification's
// accepted(). The server stops accepting and removes its socket when the last reference goes.
// A socket left by a dead instance is replaced; one on which a live instance listens is not, and
// Create fails with 231.
#pragma once

#include <memory>
#include <string>

#include "platform/IoNotify.h"
#include "platform/SmartPointer.h"

namespace Osb {

class IoDevicePipeServer : public SmartPointerBase {
public:
    // Raises ExSystem: 123 for a bad name, 206 for a path too long, 231 when the pipe is served,
    // 87 before PlatformInit, or the code of the failed system call.
    static SmartPointer<IoDevicePipeServer> Create(const std::u16string& name,
                                                   const SmartPointer<IoNotifyPipeAccept>& notify);

    struct Impl;  // the backend's state
    explicit IoDevicePipeServer(std::unique_ptr<Impl> impl);
    ~IoDevicePipeServer() override;

private:
    std::unique_ptr<Impl> impl_;
};

}  // namespace Osb
