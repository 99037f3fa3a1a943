// Random byte streams through the whole receive path of a client: reassembly, header checks,
// handlers and replies. Whatever arrives, every message cut gets exactly one well-formed reply
// (dispatch never stays silent while its tables exist), and nothing reads outside the buffers
// (the suite runs under AddressSanitizer too).
#include <gtest/gtest.h>

#include <cstdlib>
#include <random>

#include "service/VigilClientTable.h"
#include "service/VigilDispatch.h"
#include "service/VigilReceive.h"
#include "tests/service/ClientHarness.h"

namespace {

using namespace vigil_test;
using namespace Vigil::Protocol;

// Messages that look plausible enough to reach the handlers: real codes, mostly right ids,
// lengths around the minimums, and now and then garbage or an oversized announcement.
Bytes RandomStream(std::mt19937& rng, uint32_t clientId) {
    static const uint32_t kCodes[] = {kHello,      kConnectionCheck, kConnectionNoop,
                                      kGetFolders, kAddFolders,      kGetChanges,
                                      0x00000301,  0x00020101,       0x00000203};
    Bytes stream;
    int messages = std::uniform_int_distribution<int>(1, 12)(rng);
    for (int m = 0; m < messages; ++m) {
        uint32_t code = kCodes[rng() % std::size(kCodes)];
        uint32_t id =
            rng() % 4 == 0 ? static_cast<uint32_t>(rng()) : (code == kHello ? 0 : clientId);
        uint32_t bodyBytes = std::uniform_int_distribution<uint32_t>(0, 40)(rng);
        uint32_t bodyLength = bodyBytes;
        if (rng() % 16 == 0) bodyLength = static_cast<uint32_t>(rng());  // a lie, often huge
        Bytes body(bodyBytes);
        for (auto& b : body) b = static_cast<uint8_t>(rng() % 3 == 0 ? rng() : 0);
        Bytes message = Request(code, id, static_cast<uint32_t>(rng()), bodyLength, body);
        stream.insert(stream.end(), message.begin(), message.end());
    }
    if (rng() % 4 == 0) {  // pure noise at the end
        for (int i = std::uniform_int_distribution<int>(0, 64)(rng); i > 0; --i) {
            stream.push_back(static_cast<uint8_t>(rng()));
        }
    }
    return stream;
}

TEST(RandomStreamTest, EveryMessageCutGetsOneWellFormedReply) {
    setenv("LC_ALL", "C", 1);
    Vigil::ResetClientTableForTesting();
    Vigil::InitDispatch();
    std::mt19937 rng(20261122);
    for (int round = 0; round < 400; ++round) {
        DrivenClient client;
        Bytes stream = RandomStream(rng, client.id());

        // Feed in random pieces, as reads would bring them, and count the messages independently
        // with the same cutting rules on a buffer of our own fed the same pieces (an oversized
        // announcement takes what has arrived, so the count depends on where reads end).
        auto shadow = std::make_unique<Vigil::ReceiveBuffer>();
        size_t expected = 0;
        for (size_t at = 0; at < stream.size();) {
            size_t piece = std::min<size_t>(stream.size() - at, 1 + rng() % 97);
            Bytes read(stream.begin() + static_cast<long>(at),
                       stream.begin() + static_cast<long>(at + piece));
            Vigil::ReceiveBytes(*shadow, read.data(), static_cast<uint32_t>(read.size()),
                                [&](const uint8_t*, uint32_t) { ++expected; });
            client.feed(read);
            at += piece;
        }
        auto replies = client.take();
        ASSERT_EQ(replies.size(), expected) << "round " << round;
        for (const Reply& reply : replies) {
            EXPECT_EQ(reply.header.clientId, client.id());
            uint32_t kind = (reply.header.code >> 8) & 0xFF;
            EXPECT_TRUE(kind == kKindReply || reply.header.code == kError)
                << std::hex << reply.header.code;
            if (reply.header.code == kError) {
                EXPECT_EQ(reply.errorTexts().size(), 1u);
            }
        }
    }
    Vigil::TermDispatch();
}

}  // namespace
