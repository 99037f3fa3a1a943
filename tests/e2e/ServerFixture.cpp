#include "tests/e2e/ServerFixture.h"

#include <chrono>
#include <cstdlib>
#include <filesystem>

#include "platform/Platform.h"
#include "platform/Utf.h"
#include "service/VigilClientAccept.h"
#include "service/VigilClientTable.h"
#include "service/VigilCodec.h"
#include "service/VigilDispatch.h"
#include "service/VigilWatchFolderDatabase.h"

namespace vigil_test {

Reply Connection::receive(int timeoutMs) {
    Reply reply;
    reply.raw.resize(Vigil::Protocol::kHeaderBytes);
    if (!pipe_->waitReadable(timeoutMs)) {
        ADD_FAILURE() << "no reply within " << timeoutMs << " ms";
        throw std::runtime_error("no reply");
    }
    if (!pipe_->readExact(reply.raw.data(), reply.raw.size())) {
        throw std::runtime_error("closed before a reply");
    }
    Vigil::Codec::decodeHeader(reply.raw, reply.header);
    reply.body.resize(reply.header.bodyLength);
    if (!reply.body.empty() && !pipe_->readExact(reply.body.data(), reply.body.size())) {
        throw std::runtime_error("closed inside a reply");
    }
    reply.raw.insert(reply.raw.end(), reply.body.begin(), reply.body.end());
    return reply;
}

bool Connection::closedWithin(int timeoutMs) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    uint8_t scratch[256];
    while (std::chrono::steady_clock::now() < deadline) {
        if (!pipe_->waitReadable(50)) continue;
        if (pipe_->readSome(scratch, sizeof(scratch)) == 0) return true;
    }
    return false;
}

uint32_t Connection::hello(const Vigil::Watch::Guid& guid, uint32_t requestId) {
    send(Request(Vigil::Protocol::kHello, 0, requestId, HelloBody(1, 0, guid)));
    Reply reply = receive();
    EXPECT_EQ(reply.header.code, Vigil::Protocol::kHelloReply);
    return reply.header.clientId;
}

void ServerFixture::SetUp() {
    setenv("LC_ALL", "en_US.UTF-8", 1);
    root_.emplace();
    pipeName_ = UniquePipeName();
    Vigil::ResetClientTableForTesting();
    Osb::Config config;
    config.applicationName = u"Orvanta Vigil Watch 14.0";
    config.serving = true;
    Osb::PlatformInit(config);
    Vigil::InitDispatch();
    // The watch database on a data folder of this test's own, opened as the service opens it.
    dataFolder_ = root_->path() + "/data/";
    std::filesystem::create_directories(dataFolder_);
    Vigil::Watch::ResetProcessDatabaseForTesting();
    Vigil::Watch::ProcessDatabase().open(Osb::Utf8ToUtf16(dataFolder_));
    server_ = Osb::IoDevicePipeServer::Create(pipeName_, Osb::MakeSmart<Vigil::ClientAccept>());
    running_ = true;
}

void ServerFixture::stopServer() {
    if (!running_) return;
    running_ = false;
    Vigil::Watch::ProcessDatabase().close();
    Vigil::TermDispatch();
    server_.reset();
    Osb::PlatformUninit();
}

void ServerFixture::TearDown() {
    stopServer();
    Vigil::ResetClientTableForTesting();
    Vigil::Watch::ResetProcessDatabaseForTesting();
    root_.reset();
}

}  // namespace vigil_test
