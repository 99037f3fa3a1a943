#include <gtest/gtest.h>
#include <sys/resource.h>

#include <chrono>
#include <thread>
#include <vector>

#include "service/VigilClient.h"
#include "service/VigilClientTable.h"
#include "service/VigilExceptions.h"
#include "tests/e2e/ServerFixture.h"

namespace {

using namespace vigil_test;
using namespace Vigil::Protocol;
namespace Id = Vigil::MessageId;

const Vigil::Watch::Guid kGuid{{0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5, 0xA6, 0xA7, 0xA8, 0xA9, 0xAA,
                                0xAB, 0xAC, 0xAD, 0xAE, 0xAF}};

using ProtocolE2eTest = ServerFixture;

// Polls the client table until `slot` is empty (the server has handled a close), with a deadline.
bool WaitUntilSlotIsFree(uint32_t slot) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < deadline) {
        {
            Osb::MutexLock lock(Vigil::clientTableMutex);
            if (!Vigil::clientTable.at(slot)) return true;
        }
        std::this_thread::yield();
    }
    return false;
}

TEST_F(ProtocolE2eTest, HelloOfAFreshServiceGivesIds0x401Then0x402ByteForByte) {
    Connection first(pipeName_);
    first.send(Request(kHello, 0, 7, HelloBody(1, 0, kGuid)));
    EXPECT_EQ(first.receive().raw, Le32({0x201, 0x18, 7, 0x401, 0, 1, 0x401, 1, 0, 0xC9}));
    Connection second(pipeName_);
    second.send(Request(kHello, 0, 7, HelloBody(1, 0, kGuid)));
    EXPECT_EQ(second.receive().raw, Le32({0x201, 0x18, 7, 0x402, 0, 1, 0x402, 1, 0, 0xC9}));
}

TEST_F(ProtocolE2eTest, EveryHeaderFaultIsAnsweredAndTheConnectionStaysUsable) {
    Connection c(pipeName_);
    uint32_t id = c.hello(kGuid);
    struct Fault {
        uint32_t code, clientId, bodyLength, text;
    };
    const Fault faults[] = {
        {0x00020101, id, 4, Id::kInvalidHeader},
        {kHello, 5, 24, Id::kInvalidHeader},
        {kGetChanges, 0, 4, Id::kInvalidHeader},
        {0x00000203, id, 4, Id::kInvalidHeader},
        {0x00010105, id + 1, 4, Id::kInvalidHeader},
        {0x00010105, id, 4, Id::kUnsupported},
        {0x00000100, id, 0, Id::kUnsupported},
        {kConnectionNoop, id, 3, Id::kInvalidLength},
        {kConnectionCheck, id, 27, Id::kInvalidLength},
    };
    uint32_t requestId = 10;
    for (const Fault& f : faults) {
        c.send(Request(f.code, f.clientId, ++requestId, Bytes(f.bodyLength, 0)));
        Reply reply = c.receive();
        EXPECT_EQ(reply.header.code, kError) << std::hex << f.code;
        EXPECT_EQ(reply.header.requestId, requestId);
        EXPECT_EQ(reply.header.clientId, id);
        EXPECT_EQ(reply.errorTexts(), std::vector<std::u16string>{EnglishText(f.text)});
    }
    c.send(Request(kConnectionNoop, id, 99, Le32({0})));
    EXPECT_EQ(c.receive().raw, Le32({kConnectionNoopReply, 4, 99, id, 0}));
}

TEST_F(ProtocolE2eTest, SeveralMessagesInOneWriteAreAnsweredInOrder) {
    Connection c(pipeName_);
    uint32_t id = c.hello(kGuid);
    Bytes stream;
    for (uint32_t r = 1; r <= 50; ++r) {
        Bytes m = r % 3 == 0 ? Request(kConnectionCheck, id, r, Bytes(28, 0))
                             : Request(kConnectionNoop, id, r, Le32({0}));
        stream.insert(stream.end(), m.begin(), m.end());
    }
    c.send(stream);
    for (uint32_t r = 1; r <= 50; ++r) {
        Reply reply = c.receive();
        EXPECT_EQ(reply.header.requestId, r);
        EXPECT_EQ(reply.header.code, r % 3 == 0 ? kConnectionCheckReply : kConnectionNoopReply);
    }
}

TEST_F(ProtocolE2eTest, MessageSentByteByByteIsAnsweredOnceWhole) {
    Connection c(pipeName_);
    Bytes hello = Request(kHello, 0, 3, HelloBody(0, 9, kGuid));
    for (size_t i = 0; i < hello.size(); ++i) {
        c.send(Bytes{hello[i]});
        if (i + 1 < hello.size() && i % 8 == 0) {
            EXPECT_TRUE(c.silentFor(5));
        }
    }
    Reply reply = c.receive();
    EXPECT_EQ(reply.header.code, kHelloReply);
    EXPECT_EQ(reply.header.requestId, 3u);
}

TEST_F(ProtocolE2eTest, HeaderAnnouncing16384BytesIsAnsweredAtOnceAndTheRestReadAnew) {
    Connection c(pipeName_);
    uint32_t id = c.hello(kGuid);
    c.send(Request(kConnectionNoop, id, 5, 16384 - 16, Bytes{}));
    Reply first = c.receive();
    EXPECT_EQ(first.header.code, kConnectionNoopReply);  // reads no field
    // What the client sends "of that message" is cut as new messages.
    c.send(Request(kConnectionNoop, id, 6, Le32({0})));
    EXPECT_EQ(c.receive().header.requestId, 6u);
    // A largest legal request, 16383 bytes in all, arrives in several reads and is answered whole.
    c.send(Request(kConnectionCheck, id, 7, Bytes(16383 - 16, 0)));
    Reply whole = c.receive();
    EXPECT_EQ(whole.header.code, kConnectionCheckReply);
    EXPECT_EQ(whole.header.requestId, 7u);
}

TEST_F(ProtocolE2eTest, HelloVersionRulesAndRepeatedHello) {
    Connection c(pipeName_);
    struct Case {
        uint32_t major, minor;
        bool accepted;
    };
    const Case cases[] = {{0, 7, true},  {1, 0, true},           {1, 1, false},
                          {2, 0, false}, {0xFFFFFFFF, 0, false}, {0, 0, true}};
    uint32_t id = 0;
    for (const Case& v : cases) {
        c.send(Request(kHello, 0, 1, HelloBody(v.major, v.minor, kGuid)));
        Reply reply = c.receive();
        if (id == 0) id = reply.header.clientId;
        EXPECT_EQ(reply.header.clientId, id);  // the id stays over repeated Hellos
        if (v.accepted) {
            EXPECT_EQ(reply.header.code, kHelloReply);
            EXPECT_EQ(Load32(reply.body.data() + 8), id);
        } else {
            EXPECT_EQ(reply.errorTexts(),
                      std::vector<std::u16string>{EnglishText(Id::kInvalidVersion)});
        }
    }
}

// The traces of connections are checked against the executable (ConnectionE2eTest).
TEST_F(ProtocolE2eTest, AClosedIdIsNotReused) {
    uint32_t firstId;
    {
        Connection c(pipeName_);
        firstId = c.hello(kGuid);
    }
    ASSERT_TRUE(WaitUntilSlotIsFree(1));
    Connection next(pipeName_);
    EXPECT_EQ(firstId, 0x401u);
    EXPECT_EQ(next.hello(kGuid), 0x402u);
}

// 1024 clients fill the table; the 1025th connection is dropped by the server, and once one client
// closes, the next connection takes that client's slot.
TEST_F(ProtocolE2eTest, FullTableDropsTheNextConnectionUntilASlotIsFree) {
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    if (limit.rlim_max != RLIM_INFINITY && limit.rlim_max < 2300) {
        GTEST_SKIP() << "needs 2300 open files; the hard limit is " << limit.rlim_max;
    }
    limit.rlim_cur =
        limit.rlim_max == RLIM_INFINITY ? 4096 : std::max<rlim_t>(limit.rlim_cur, 2300);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);

    std::vector<std::unique_ptr<Connection>> clients;
    std::vector<uint32_t> ids;
    for (int i = 0; i < 1024; ++i) {
        clients.push_back(std::make_unique<Connection>(pipeName_));
        ids.push_back(clients.back()->hello(kGuid));
    }
    Connection refused(pipeName_);
    EXPECT_TRUE(refused.closedWithin(10000));

    const size_t leaving = 300;
    uint32_t freedSlot = ids[leaving] & 1023;
    clients[leaving].reset();
    ASSERT_TRUE(WaitUntilSlotIsFree(freedSlot));
    Connection taker(pipeName_);
    uint32_t id = taker.hello(kGuid);
    EXPECT_EQ(id & 1023, freedSlot);
    EXPECT_EQ(id >> 10, 2u);
}

}  // namespace
