// How the tool shows replies: readable lines by default, one JSON object per reply with --json.
#pragma once

#include <string>
#include <vector>

#include "tools/client/ClientCodec.h"

namespace vigil_client {

class Printer {
  public:
    explicit Printer(bool json) : json_(json) {}

    void hello(const HelloReply& reply, const Guid& guid) const;
    void status(const std::string& request) const;
    void folders(const std::vector<std::string>& paths) const;
    void changes(const std::vector<FolderChanges>& changes, bool acknowledged) const;
    void error(const ErrorReply& error) const;
    void raw(uint32_t code, uint32_t requestId, uint32_t clientId, const Bytes& body) const;

  private:
    bool json_;
};

}  // namespace vigil_client
