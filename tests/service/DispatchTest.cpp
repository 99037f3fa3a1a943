#include <gtest/gtest.h>

#include <cstdlib>

#include "service/VigilClientTable.h"
#include "service/VigilDispatch.h"
#include "service/VigilExceptions.h"
#include "tests/service/ClientHarness.h"

namespace {

using namespace vigil_test;
using namespace Vigil::Protocol;
namespace Id = Vigil::MessageId;

class DispatchTest : public ::testing::Test {
  protected:
    void SetUp() override {
        setenv("LC_ALL", "en_US.UTF-8", 1);
        Vigil::ResetClientTableForTesting();
        Vigil::InitDispatch();
    }
    void TearDown() override { Vigil::TermDispatch(); }

    Vigil::Watch::Guid guid_{{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15}};
};

TEST_F(DispatchTest, HelloOfTheExampleIsAnsweredByteForByte) {
    DrivenClient client;
    ASSERT_EQ(client.id(), 0x401u);
    client.feed(Request(kHello, 0, 7, HelloBody(1, 0, guid_)));
    auto replies = client.take();
    ASSERT_EQ(replies.size(), 1u);
    Bytes expected = Le32({0x201, 0x18, 7, 0x401, 0, 1, 0x401, 1, 0, 0xC9});
    EXPECT_EQ(replies[0].raw, expected);
    EXPECT_EQ(client.client().guid, guid_);
    DrivenClient second;
    EXPECT_EQ(second.id(), 0x402u);
}

struct HeaderFault {
    const char* name;
    uint32_t code;
    bool rightId;  // clientId = the client's id (else a wrong one)
    uint32_t bodyLength;
    uint32_t expectedText;
};

class HeaderFaultTest : public DispatchTest, public ::testing::WithParamInterface<HeaderFault> {};

TEST_P(HeaderFaultTest, FaultGetsItsErrorAndTheConnectionGoesOn) {
    const HeaderFault& fault = GetParam();
    DrivenClient client;
    uint32_t clientId = fault.rightId ? client.id() : client.id() + 1;
    if (fault.code == kHello) clientId = fault.rightId ? 0 : 5;  // Hello's right id is 0
    // The faulty message and a valid one behind it, in one read.
    Bytes stream = Request(fault.code, clientId, 99, fault.bodyLength, Bytes(fault.bodyLength, 0));
    Bytes noop = Request(kConnectionNoop, client.id(), 100, Le32({0}));
    stream.insert(stream.end(), noop.begin(), noop.end());
    client.feed(stream);

    auto replies = client.take();
    ASSERT_EQ(replies.size(), 2u);
    EXPECT_EQ(replies[0].header.code, kError);
    EXPECT_EQ(replies[0].header.requestId, 99u);
    EXPECT_EQ(replies[0].header.clientId, client.id());
    EXPECT_EQ(Load32(replies[0].body.data()), 0u);  // status
    EXPECT_EQ(replies[0].errorTexts(),
              std::vector<std::u16string>{EnglishText(fault.expectedText)});
    EXPECT_EQ(replies[1].header.code, kConnectionNoopReply);
    EXPECT_EQ(replies[1].header.requestId, 100u);
}

const HeaderFault kHeaderFaults[] = {
    {"FamilyTwo", 0x00020101, true, 4, Id::kInvalidHeader},
    {"FamilyFFFF", 0xFFFF0101, true, 4, Id::kInvalidHeader},
    {"HelloWithClientIdFive", kHello, false, 24, Id::kInvalidHeader},
    {"GetChangesWithWrongId", kGetChanges, false, 4, Id::kInvalidHeader},
    {"KindReply", 0x00000203, true, 4, Id::kInvalidHeader},
    {"KindError", 0x00000401, true, 4, Id::kInvalidHeader},
    {"KindZero", 0x00000003, true, 4, Id::kInvalidHeader},
    {"FamilyOneNumberFiveWrongId", 0x00010105, false, 4, Id::kInvalidHeader},
    {"FamilyOneNumberFive", 0x00010105, true, 4, Id::kUnsupported},
    {"FamilyZeroNumberZero", 0x00000100, true, 4, Id::kUnsupported},
    {"UnsupportedWithEmptyBody", 0x000001FF, true, 0, Id::kUnsupported},
    {"HelloShort", kHello, true, 23, Id::kInvalidLength},
    {"CheckShort", kConnectionCheck, true, 27, Id::kInvalidLength},
    {"NoopShort", kConnectionNoop, true, 3, Id::kInvalidLength},
};

INSTANTIATE_TEST_SUITE_P(Faults, HeaderFaultTest, ::testing::ValuesIn(kHeaderFaults),
                         [](const auto& param) { return std::string(param.param.name); });

TEST_F(DispatchTest, HelloNeedsClientIdZeroEvenWhenItIsTheRightOne) {
    DrivenClient client;
    client.feed(Request(kHello, client.id(), 1, HelloBody(1, 0, guid_)));
    auto replies = client.take();
    ASSERT_EQ(replies.size(), 1u);
    EXPECT_EQ(replies[0].errorTexts(),
              std::vector<std::u16string>{EnglishText(Id::kInvalidHeader)});
}

// 0x301 has the request bit and number 1: it passes as a request, takes the clientId test of an
// ordinary message, and reaches the Hello handler.
TEST_F(DispatchTest, CodeWithExtraKindBitsReachesTheHandlerOfItsNumber) {
    DrivenClient client;
    client.feed(Request(0x00000301, client.id(), 4, HelloBody(1, 0, guid_)));
    auto replies = client.take();
    ASSERT_EQ(replies.size(), 1u);
    EXPECT_EQ(replies[0].header.code, kHelloReply);
    EXPECT_EQ(client.client().guid, guid_);
}

TEST_F(DispatchTest, VersionRulesOfHello) {
    struct Case {
        uint32_t major, minor;
        bool accepted;
    };
    const Case cases[] = {{0, 0, true},  {0, 7, true},  {0, 0xFFFFFFFF, true}, {1, 0, true},
                          {1, 1, false}, {2, 0, false}, {0xFFFFFFFF, 0, false}};
    DrivenClient client;
    for (const Case& c : cases) {
        Vigil::Watch::Guid guid = guid_;
        guid.bytes[0] = static_cast<uint8_t>(c.major + c.minor);
        client.feed(Request(kHello, 0, 3, HelloBody(c.major, c.minor, guid)));
        auto replies = client.take();
        ASSERT_EQ(replies.size(), 1u);
        if (c.accepted) {
            EXPECT_EQ(replies[0].header.code, kHelloReply) << c.major << "." << c.minor;
            EXPECT_EQ(Load32(replies[0].body.data() + 8), client.id());
        } else {
            EXPECT_EQ(replies[0].errorTexts(),
                      std::vector<std::u16string>{EnglishText(Id::kInvalidVersion)});
        }
        // Stored before the version test, refused or not.
        EXPECT_EQ(client.client().versionMajor, c.major);
        EXPECT_EQ(client.client().versionMinor, c.minor);
        EXPECT_EQ(client.client().guid, guid);
    }
}

TEST_F(DispatchTest, ShortHelloLeavesTheClientAsItWas) {
    DrivenClient client;
    client.feed(Request(kHello, 0, 1, HelloBody(1, 0, guid_)));
    Vigil::Watch::Guid other{};
    other.bytes.fill(0xEE);
    Bytes body = HelloBody(0, 3, other);
    body.pop_back();  // 23 bytes
    client.feed(Request(kHello, 0, 2, body));
    auto replies = client.take();
    ASSERT_EQ(replies.size(), 2u);
    EXPECT_EQ(replies[1].errorTexts(),
              std::vector<std::u16string>{EnglishText(Id::kInvalidLength)});
    EXPECT_EQ(client.client().guid, guid_);
    EXPECT_EQ(client.client().versionMajor, 1u);
}

TEST_F(DispatchTest, LongerBodiesAreAcceptedAndTheSurplusIsNotRead) {
    DrivenClient client;
    Bytes hello = HelloBody(1, 0, guid_);
    hello.resize(100, 0x5A);
    client.feed(Request(kHello, 0, 1, hello));
    client.feed(Request(kConnectionCheck, client.id(), 2, Bytes(40, 0)));
    auto replies = client.take();
    ASSERT_EQ(replies.size(), 2u);
    EXPECT_EQ(replies[0].header.code, kHelloReply);
    EXPECT_EQ(replies[1].raw, Le32({kConnectionCheckReply, 4, 2, client.id(), 0}));
}

TEST_F(DispatchTest, ConnectionCheckFirstFieldMustBeZero) {
    DrivenClient client;
    Bytes body(28, 0);
    body[0] = 1;
    client.feed(Request(kConnectionCheck, client.id(), 8, body));
    auto replies = client.take();
    ASSERT_EQ(replies.size(), 1u);
    EXPECT_EQ(replies[0].errorTexts(),
              std::vector<std::u16string>{EnglishText(Id::kInvalidDataValues)});
}

// A header announcing more than a request may hold is dispatched with what has arrived; a handler
// that needs fields beyond that refuses instead of reading past the message.
TEST_F(DispatchTest, OversizedAnnouncementNeverLetsAHandlerReadPastTheMessage) {
    DrivenClient client;
    client.feed(Request(kHello, 0, 1, 0xFFFFFFFF, Bytes{}));
    client.feed(Request(kConnectionCheck, client.id(), 2, 20000, Bytes{}));
    client.feed(Request(kConnectionNoop, client.id(), 3, 20000, Bytes{}));
    auto replies = client.take();
    ASSERT_EQ(replies.size(), 3u);
    EXPECT_EQ(replies[0].errorTexts(),
              std::vector<std::u16string>{EnglishText(Id::kInvalidLength)});
    EXPECT_EQ(replies[1].errorTexts(),
              std::vector<std::u16string>{EnglishText(Id::kInvalidLength)});
    EXPECT_EQ(replies[2].header.code, kConnectionNoopReply);  // reads no field
}

TEST_F(DispatchTest, MessagesAfterTermDispatchAreDroppedWithoutReply) {
    DrivenClient client;
    Vigil::TermDispatch();
    client.feed(Request(kConnectionNoop, client.id(), 1, Le32({0})));
    EXPECT_TRUE(client.take().empty());
    Vigil::InitDispatch();
    client.feed(Request(kConnectionNoop, client.id(), 2, Le32({0})));
    EXPECT_EQ(client.take().size(), 1u);
}

TEST_F(DispatchTest, ErrorOfASystemExceptionCarriesItsTextsAndAnEmptyOneIsSixteenBytes) {
    DrivenClient client;
    Osb::ExSystem system(5, OSB_HERE);
    system.addReason(Osb::ExReason(u"second reason", OSB_HERE));
    Vigil::SendError(Vigil::ClientSoftRef(&client.client()), 42, 0, system);
    Vigil::SendError(Vigil::ClientSoftRef(&client.client()), 43, 0, Osb::Exception());
    auto replies = client.take();
    ASSERT_EQ(replies.size(), 2u);
    EXPECT_EQ(replies[0].errorTexts(),
              (std::vector<std::u16string>{system.reason(0).what(), u"second reason"}));
    // status, count 2, entrySize 12, tableOffset 16
    EXPECT_EQ(Bytes(replies[0].body.begin(), replies[0].body.begin() + 16), Le32({0, 2, 12, 16}));
    EXPECT_EQ(replies[1].raw, Le32({kError, 16, 43, client.id(), 0, 0, 12, 16}));
}

}  // namespace
