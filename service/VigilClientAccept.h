// ClientAccept: the pipe server's notification. The service makes exactly one, at start.
#pragma once

#include "platform/IoNotify.h"

namespace Vigil {

class ClientAccept : public Osb::IoNotifyPipeAccept {
  public:
    ~ClientAccept() override = default;
    // Makes the Client, enters it in the table, writes the connect trace and opens its first read.
    // A user other than 0 and the service's own that already holds kMaxClientsPerUser connections
    // is refused: the connection is closed at once (the client reads its end) and a trace says so.
    // A full table raises Osb::ExLookupTableFull into the platform, which drops the connection.
    void accepted(const Osb::SmartPointer<Osb::IoDevice>& device) override;
};

}  // namespace Vigil
