#include "tools/client/Printer.h"

#include <cstdio>
#include <nlohmann/json.hpp>

namespace vigil_client {

namespace {

void Emit(const nlohmann::json& object) {
    // Invalid UTF-8 in a name (it round-trips as raw bytes) is replaced in JSON, never an error.
    std::printf("%s\n",
                object.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
    std::fflush(stdout);
}

std::string Hex(const Bytes& bytes) {
    static const char kDigits[] = "0123456789abcdef";
    std::string out;
    for (uint8_t b : bytes) {
        out.push_back(kDigits[b >> 4]);
        out.push_back(kDigits[b & 15]);
    }
    return out;
}

}  // namespace

void Printer::hello(const HelloReply& r, const Guid& guid) const {
    if (json_) {
        Emit({{"reply", "Hello"},
              {"clientId", r.clientId},
              {"guid", FormatGuid(guid)},
              {"protocol", std::to_string(r.protocolMajor) + "." + std::to_string(r.protocolMinor)},
              {"program", std::to_string(r.programMajor) + "." + std::to_string(r.programMinor) +
                              " - " + std::to_string(r.programBuild)}});
        return;
    }
    std::printf("client id 0x%X (%u) for GUID %s\nprotocol %u.%u, program %u.%u - %u\n", r.clientId,
                r.clientId, FormatGuid(guid).c_str(), r.protocolMajor, r.protocolMinor,
                r.programMajor, r.programMinor, r.programBuild);
}

void Printer::status(const std::string& request) const {
    if (json_) {
        Emit({{"reply", request}, {"status", 0}});
    } else {
        std::printf("%s: ok\n", request.c_str());
    }
}

void Printer::folders(const std::vector<std::string>& paths) const {
    if (json_) {
        Emit({{"reply", "GetFolders"}, {"folders", paths}});
        return;
    }
    if (paths.empty()) std::printf("no folders\n");
    for (const std::string& path : paths) std::printf("%s\n", path.c_str());
}

void Printer::changes(const std::vector<FolderChanges>& changes, bool acknowledged) const {
    if (json_) {
        nlohmann::json folders = nlohmann::json::array();
        for (const FolderChanges& f : changes)
            folders.push_back({{"folder", f.path}, {"names", f.names}});
        Emit({{"reply", "GetChanges"}, {"folders", folders}, {"acknowledged", acknowledged}});
        return;
    }
    for (const FolderChanges& f : changes) {
        std::printf("folder %s\n", f.path.c_str());
        for (const std::string& name : f.names) std::printf("    %s\n", name.c_str());
    }
    std::fflush(stdout);
}

void Printer::error(const ErrorReply& error) const {
    if (json_) {
        Emit({{"reply", "Error"}, {"status", error.status}, {"reasons", error.reasons}});
        return;
    }
    for (std::string reason : error.reasons) {
        while (!reason.empty() && (reason.back() == '\n' || reason.back() == '\r'))
            reason.pop_back();
        std::fprintf(stderr, "Error: %s\n", reason.c_str());
    }
    if (error.reasons.empty()) std::fprintf(stderr, "Error (no reason given)\n");
}

void Printer::raw(uint32_t code, uint32_t requestId, uint32_t clientId, const Bytes& body) const {
    if (json_) {
        Emit({{"code", code},
              {"requestId", requestId},
              {"clientId", clientId},
              {"body", Hex(body)}});
        return;
    }
    std::printf("code 0x%08X, request %u, client 0x%X, %zu body bytes\n%s\n", code, requestId,
                clientId, body.size(), Hex(body).c_str());
}

}  // namespace vigil_client
