#include "service/VigilDispatch.h"

#include <cstdio>

#include "platform/SharedMutex.h"
#include "platform/Utf.h"
#include "service/VigilExceptions.h"
#include "service/VigilHandlers.h"
#include "service/VigilWatchFolderHandlers.h"

namespace Vigil {

namespace {

// Guards the pointers of dispatchTables: shared for each Dispatch, exclusive to build and free
// them. Taken after a Client's mutex and before the watch database's lock.
Osb::SharedMutex dispatchTablesMutex;
DispatchTable* dispatchTables[2] OSB_GUARDED_BY(dispatchTablesMutex) = {nullptr, nullptr};

struct Entry {
    uint32_t code;
    Handler handler;
};

// Entries of the connection family (0) and the watch family (1).
constexpr Entry kEntries[] = {
    {Protocol::kHello, HandleHello},
    {Protocol::kConnectionCheck, HandleConnectionCheck},
    {Protocol::kConnectionNoop, HandleConnectionNoop},
    {Protocol::kGetFolders, HandleGetFolders},
    {Protocol::kAddFolders, HandleAddFolders},
    {Protocol::kRemoveFolders, HandleRemoveFolders},
    {Protocol::kGetChanges, HandleGetChanges},
    {Protocol::kRemoveChanges, HandleRemoveChanges},
};

DispatchTable* MakeTable(uint32_t family) {
    auto* table = new DispatchTable;
    table->family = family;
    for (Handler& handler : table->handlers) handler = HandleUnsupported;
    for (const Entry& entry : kEntries) {
        if (Protocol::FamilyOf(entry.code) == family) {
            table->handlers[Protocol::NumberOf(entry.code)] = entry.handler;
        }
    }
    return table;
}

void DumpReasons(const Osb::Exception& error) {
    const auto* system = dynamic_cast<const Osb::ExSystem*>(&error);
    for (int i = 0; i < error.depth(); ++i) {
        const Osb::ExReason& reason = error.reason(i);
        std::fprintf(stderr, "(%d) File: %s\n", i, reason.file());
        std::fprintf(stderr, "    Line: %d\n    What: %s\n", reason.line(),
                     Osb::Utf16ToUtf8(reason.what()).c_str());
        if (system)
            std::fprintf(stderr, "    Operating System status = %d\n",
                         static_cast<int>(system->status()));
    }
}

}  // namespace

void InitDispatch() {
    Osb::WriterLock lock(dispatchTablesMutex);
    for (uint32_t family = 0; family < 2; ++family) {
        delete dispatchTables[family];
        dispatchTables[family] = MakeTable(family);
    }
}

void TermDispatch() {
    Osb::WriterLock lock(dispatchTablesMutex);
    for (DispatchTable*& table : dispatchTables) {
        delete table;
        table = nullptr;
    }
}

void Dispatch(const ClientSoftRef& client, const uint8_t* message, uint32_t available) {
    Protocol::MessageHeader header{};
    // The receiving side hands over nothing shorter than a header.
    if (Codec::decodeHeader({message, available}, header) != Codec::Result::kOk) return;
    Osb::ReaderLock lock(dispatchTablesMutex);
    try {
        const uint32_t family = Protocol::FamilyOf(header.code);
        if (family >= 2) throw ExInvalidHeader(OSB_HERE);
        const DispatchTable* table = dispatchTables[family];
        if (table == nullptr) return;  // outside the service's run: dropped
        if (header.code == Protocol::kHello) {
            if (header.clientId != 0) throw ExInvalidHeader(OSB_HERE);
        } else if (header.clientId != client->id) {
            throw ExInvalidHeader(OSB_HERE);
        }
        if (table->family != family) throw ExInvalidHeader(OSB_HERE);
        if ((header.code & Protocol::kRequestBit) == 0) throw ExInvalidHeader(OSB_HERE);

        const Codec::RequestBody body(
            {message + Protocol::kHeaderBytes, available - Protocol::kHeaderBytes},
            header.bodyLength);
        table->handlers[Protocol::NumberOf(header.code)](client, header.requestId, body);
    } catch (const Osb::Exception& error) {
        SendError(client, header.requestId, 0, error);
    } catch (...) {
        // Anything outside the exception family is swallowed: no reply, no log, no trace.
    }
}

void SendError(const ClientSoftRef& client, uint32_t requestId, uint32_t status,
               const Osb::Exception& error) {
    // Only the texts reach the client: source file, line and system status go to the dump.
    Codec::ErrorReply reply{status, {}};
    reply.reasons.reserve(static_cast<size_t>(error.depth()));
    for (int i = 0; i < error.depth(); ++i) reply.reasons.push_back(error.reason(i).what());
    Codec::Bytes message = NewMessage();
    Codec::encodeErrorReply(reply, message);
    SendMessage(client, message, Protocol::kError, requestId);
    DumpReasons(error);
}

void HandleUnsupported(const ClientSoftRef& client, uint32_t requestId,
                       const Codec::RequestBody&) {
    ExUnsupported unsupported(OSB_HERE);
    SendError(client, requestId, 0, unsupported);
}

}  // namespace Vigil
