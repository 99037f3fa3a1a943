// The client library against a real pipe server of the service.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>

#include "platform/ErrorCode.h"
#include "platform/MessageTable.h"
#include "platform/Utf.h"
#include "service/VigilExceptions.h"
#include "service/VigilProtocol.h"
#include "service/VigilWatchFolderDatabase.h"
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

// A GetChanges reply longer than one request may be: the confirmation goes over in several
// requests, and exactly the names of the reply come off, also when one folder's names have to be
// spread over more than one request.
TEST_F(AgentConnectionTest, ConfirmingALongReplyStaysWithinTheRequestLimit) {
    const Guid guid = *ParseGuid("33221100-5544-7766-9988-BBAAFFEEDDCC");
    Vigil::Watch::Guid key;
    std::copy(guid.begin(), guid.end(), key.bytes.begin());
    std::vector<std::u16string> folders;
    for (const char* name : {"many", "few"}) {
        const std::string path = root_->path() + "/" + name + "/";
        std::filesystem::create_directories(path);
        folders.push_back(Osb::Utf8ToUtf16(path));
    }
    std::vector<std::u16string> many;
    for (int i = 0; i < 1500; ++i) {
        char name[32];
        std::snprintf(name, sizeof(name), "name-%05d.txt", i);
        many.push_back(Osb::Utf8ToUtf16(name));
    }
    auto& database = Vigil::Watch::ProcessDatabase();
    database.addFolders(key, {{folders[0], {}}, {folders[1], {}}});
    database.addChanges(key, folders[0], many);
    database.addChanges(key, folders[1], {u"x", u"y"});

    AgentConnection agent(pipeName_);
    agent.hello(guid, 1, 0);
    Bytes raw;
    ASSERT_EQ(agent.getChanges(false, &raw).size(), 2u);
    ASSERT_GE(raw.size() + Vigil::Protocol::kHeaderBytes, Vigil::Protocol::kMaxRequestBytes);
    database.addChanges(key, folders[1], {u"late"});  // not in the reply: stays

    EXPECT_NO_THROW(agent.removeChanges(raw));
    auto left = agent.getChanges(false);
    ASSERT_EQ(left.size(), 1u);
    EXPECT_EQ(left[0].path, Osb::Utf16ToUtf8(folders[1]));
    EXPECT_EQ(left[0].names, std::vector<std::string>{"late"});
    EXPECT_NO_THROW(agent.connectionNoop());  // nothing of the requests was left over
}

// A list of folders too long for one request is refused before anything is sent, so the
// connection goes on as before.
TEST_F(AgentConnectionTest, AFolderListLongerThanOneRequestIsNotSent) {
    const std::string dir = root_->path() + "/";
    AgentConnection agent(pipeName_);
    agent.hello(Guid{}, 1, 0);
    std::vector<std::string> paths(16367 / (12 + 2 * dir.size() + 2) + 1, dir);
    EXPECT_THROW(agent.addFolders({}, paths), std::length_error);
    EXPECT_THROW(agent.removeFolders(false, paths), std::length_error);
    EXPECT_NO_THROW(agent.connectionNoop());
    paths.resize(paths.size() - 3);  // the fields before the table fit in what this frees
    EXPECT_NO_THROW(agent.addFolders({}, paths));
    EXPECT_EQ(agent.getFolders(), std::vector<std::string>{dir});
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
