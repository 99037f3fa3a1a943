// Osb::PipeClient: the client end of a named pipe, with blocking calls. The client tool, the tests
// and the benchmarks talk to the service through it. One thread uses a PipeClient at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace Osb {

class PipeClient {
public:
    // Connects to pipe `name`. Raises ExSystem: 2 when no server listens there, 123 or 206 for a
    // bad name, or the code of the failed call.
    static std::unique_ptr<PipeClient> Connect(const std::u16string& name);

    virtual ~PipeClient() = default;
    // Writes all `bytes`. Raises ExSystem on failure (109 once the server has closed).
    virtual void writeAll(const void* data, size_t bytes) = 0;
    // Reads up to `bytes`; returns 0 when the server has closed. Raises ExSystem on failure.
    virtual size_t readSome(void* data, size_t bytes) = 0;
    // Reads exactly `bytes`; returns false when the server closed first.
    bool readExact(void* data, size_t bytes);
    // Waits until data can be read (or the server has closed): true, or false after `timeoutMs`.
    virtual bool waitReadable(int timeoutMs) = 0;
    // Ends the sending side only: the server reads the end, and what it still sends can be read
    // (until it closes in turn, when a read returns 0).
    virtual void closeSending() = 0;
    // Ends the connection.
    virtual void close() = 0;
};

}  // namespace Osb
