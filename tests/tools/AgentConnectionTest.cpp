// The client library against a real pipe server of the service.
#include <gtest/gtest.h>

#include "platform/ErrorCode.h"
#include "platform/MessageTable.h"
#include "platform/Utf.h"
#include "service/VigilExceptions.h"
#include "tests/e2e/ServerFixture.h"
#include "tools/client/AgentConnection.h"

namespace {

using namespace vigil_client;

using AgentConnectionTest = vigil_test::ServerFixture;

TEST_F(AgentConnectionTest, HelloAndTheConnectionRequestsRoundTrip) {
    AgentConnection agent(pipeName_);
    Guid guid = *ParseGuid("33221100-5544-7766-9988-BBAAFFEEDDCC");
    HelloReply hello = agent.hello(guid, 1, 0);
    EXPECT_EQ(hello.clientId, 0x401u);
    EXPECT_EQ(agent.clientId(), 0x401u);
    EXPECT_EQ(hello.protocolMajor, 1u);
    EXPECT_EQ(hello.programBuild, 201u);
    EXPECT_NO_THROW(agent.connectionCheck());
    EXPECT_NO_THROW(agent.connectionNoop());
}

TEST_F(AgentConnectionTest, RefusalsCarryTheServiceTexts) {
    AgentConnection agent(pipeName_);
    try {
        agent.hello(Guid{}, 1, 1);
        FAIL() << "version 1.1 was accepted";
    } catch (const RequestRefused& refused) {
        EXPECT_EQ(refused.reply().reasons,
                  std::vector<std::string>{Osb::Utf16ToUtf8(Osb::MessageText(
                      Vigil::MessageId::kInvalidVersion, Osb::MessageLanguage::kEnglish))});
    }
    // The refused Hello still told the client its id, so the connection goes on.
    EXPECT_EQ(agent.clientId(), 0x401u);
    EXPECT_NO_THROW(agent.connectionNoop());
}

TEST_F(AgentConnectionTest, NoServiceIsFileNotFound) {
    try {
        AgentConnection agent(u"no-such-pipe");
        FAIL() << "connected to nothing";
    } catch (const Osb::ExSystem& e) {
        EXPECT_EQ(e.status(), Osb::Err::kFileNotFound);
    }
}

}  // namespace
