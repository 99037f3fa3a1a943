#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "service/VigilProtocol.h"
#include "service/VigilReceive.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes Message(uint32_t code, uint32_t bodyLength, uint32_t requestId, size_t bodyBytesPresent) {
    Bytes m(16 + bodyBytesPresent, 0xAB);
    Vigil::Protocol::StoreHeader(m.data(), {code, bodyLength, requestId, 0});
    return m;
}
Bytes Message(uint32_t code, uint32_t bodyLength, uint32_t requestId) {
    return Message(code, bodyLength, requestId, bodyLength);
}
Bytes Concat(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& p : parts) all.insert(all.end(), p.begin(), p.end());
    return all;
}

struct Seen {
    uint32_t requestId;
    uint32_t available;
};

class ReceiveTest : public ::testing::Test {
  protected:
    void feed(const Bytes& bytes) { feed(bytes.data(), static_cast<uint32_t>(bytes.size())); }
    void feed(const uint8_t* data, uint32_t size) {
        Vigil::ReceiveBytes(rx_, data, size, [this](const uint8_t* message, uint32_t available) {
            ASSERT_GE(available, 16u);
            seen_.push_back({Vigil::Protocol::Load32(message + 8), available});
        });
    }

    Vigil::ReceiveBuffer rx_;
    std::vector<Seen> seen_;
};

TEST_F(ReceiveTest, ByteByByteDispatchesOnlyOnTheLastByte) {
    Bytes m = Message(0x103, 4, 77);
    for (size_t i = 0; i < m.size(); ++i) {
        EXPECT_TRUE(seen_.empty()) << "dispatched after " << i << " bytes";
        feed(&m[i], 1);
    }
    ASSERT_EQ(seen_.size(), 1u);
    EXPECT_EQ(seen_[0].requestId, 77u);
    EXPECT_EQ(rx_.buffered, 0u);
}

TEST_F(ReceiveTest, FifteenHeaderBytesDispatchNothing) {
    Bytes m = Message(0x103, 0, 1);
    feed(m.data(), 15);
    EXPECT_TRUE(seen_.empty());
    EXPECT_EQ(rx_.buffered, 15u);
}

TEST_F(ReceiveTest, TwoWholeMessagesAndHalfAThirdLeaveTheHalfAtTheFront) {
    Bytes third = Message(0x101, 24, 3);
    Bytes all = Concat(
        {Message(0x103, 4, 1), Message(0x102, 28, 2), Bytes(third.begin(), third.begin() + 20)});
    feed(all);
    ASSERT_EQ(seen_.size(), 2u);
    EXPECT_EQ(seen_[0].requestId, 1u);
    EXPECT_EQ(seen_[1].requestId, 2u);
    ASSERT_EQ(rx_.buffered, 20u);
    EXPECT_EQ(std::memcmp(rx_.buffer, third.data(), 20), 0);
    feed(third.data() + 20, static_cast<uint32_t>(third.size() - 20));
    ASSERT_EQ(seen_.size(), 3u);
    EXPECT_EQ(seen_[2].available, 40u);
}

TEST_F(ReceiveTest, MessageOf16383BytesInFourKReadsIsDispatchedWholeFromItsLastRead) {
    Bytes m = Message(0x103, 16383 - 16, 9);
    for (size_t at = 0; at < m.size(); at += 4096) {
        EXPECT_TRUE(seen_.empty());
        feed(m.data() + at, static_cast<uint32_t>(std::min<size_t>(4096, m.size() - at)));
    }
    ASSERT_EQ(seen_.size(), 1u);
    EXPECT_EQ(seen_[0].available, 16383u);
    EXPECT_EQ(rx_.buffered, 0u);
}

TEST_F(ReceiveTest, HeaderAnnouncing16384IsDispatchedOnArrivalAndTheRestIsReadAnew) {
    Bytes header = Message(0x103, 16384 - 16, 5, 0);
    feed(header);
    ASSERT_EQ(seen_.size(), 1u);
    EXPECT_EQ(seen_[0].available, 16u);
    EXPECT_EQ(rx_.buffered, 0u);
    // What follows of the oversized message is cut as new messages: here a whole valid one.
    feed(Message(0x103, 4, 6));
    ASSERT_EQ(seen_.size(), 2u);
    EXPECT_EQ(seen_[1].requestId, 6u);
}

// Lengths whose sum with 16 wraps 32 bits must count as huge, never as a complete short message
// (which would leave the loop spinning on the same bytes).
TEST_F(ReceiveTest, WrappingBodyLengthsAreDispatchedOnceAsOversized) {
    for (uint32_t bodyLength : {0xFFFFFFF0u, 0xFFFFFFF5u, 0xFFFFFFFFu}) {
        seen_.clear();
        Bytes all = Concat({Message(0x103, bodyLength, 1, 8)});
        feed(all);
        ASSERT_EQ(seen_.size(), 1u) << std::hex << bodyLength;
        EXPECT_EQ(seen_[0].available, 24u);
        EXPECT_EQ(rx_.buffered, 0u);
    }
}

// An incomplete message near the buffer's size followed by a full read: the append must not pass
// the end, and nothing may be lost.
TEST_F(ReceiveTest, ReadArrivingOnANearlyFullBufferIsAppendedInPiecesThatFit) {
    Bytes big = Message(0x103, 16000 - 16, 1);
    Bytes next = Message(0x103, 4, 2);
    Bytes stream = Concat({big, next, next, Message(0x103, 3000, 3)});
    // First 15000 bytes, then everything else in one oversized "read".
    feed(stream.data(), 15000);
    EXPECT_TRUE(seen_.empty());
    feed(stream.data() + 15000, static_cast<uint32_t>(stream.size() - 15000));
    ASSERT_EQ(seen_.size(), 4u);
    EXPECT_EQ(seen_[0].available, 16000u);
    EXPECT_EQ(seen_[1].requestId, 2u);
    EXPECT_EQ(seen_[2].requestId, 2u);
    EXPECT_EQ(seen_[3].requestId, 3u);
    EXPECT_EQ(rx_.buffered, 0u);
}

TEST_F(ReceiveTest, RaisingDispatcherStillConsumesItsMessage) {
    Bytes two = Concat({Message(0x103, 4, 1), Message(0x103, 4, 2)});
    int calls = 0;
    auto raising = [&](const uint8_t*, uint32_t) {
        ++calls;
        throw std::runtime_error("dispatch failed");
    };
    EXPECT_THROW(Vigil::ReceiveBytes(rx_, two.data(), static_cast<uint32_t>(two.size()), raising),
                 std::runtime_error);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(rx_.buffered, 20u);  // the second message waits, the first is gone
    feed(Message(0x103, 4, 3));
    ASSERT_EQ(seen_.size(), 2u);
    EXPECT_EQ(seen_[0].requestId, 2u);
    EXPECT_EQ(seen_[1].requestId, 3u);
}

// Any split of a stream of messages gives the same dispatches.
TEST_F(ReceiveTest, EverySplitPointGivesTheSameMessages) {
    Bytes stream = Concat({Message(0x101, 24, 1), Message(0x103, 4, 2), Message(0x10103, 4, 3)});
    for (size_t cut = 0; cut <= stream.size(); ++cut) {
        rx_.buffered = 0;
        seen_.clear();
        feed(stream.data(), static_cast<uint32_t>(cut));
        feed(stream.data() + cut, static_cast<uint32_t>(stream.size() - cut));
        ASSERT_EQ(seen_.size(), 3u) << "cut at " << cut;
        EXPECT_EQ(seen_[2].requestId, 3u);
        EXPECT_EQ(rx_.buffered, 0u);
    }
}

}  // namespace

namespace {

// Taking in stops before any message once ready() says no; what was not taken in is handed back
// later, piece by piece as a caller would, and every message comes once, in order, whatever the
// stream's size and wherever the stops fall.
TEST(ReceiveWhileTest, StopsAtEachRefusalAndGoesOnInOrderWithWhatWasHandedBack) {
    Bytes stream;
    for (uint32_t r = 1; r <= 600; ++r) {
        Bytes m = Message(0x103, r % 7 == 0 ? 3000 : 4, r);
        stream.insert(stream.end(), m.begin(), m.end());
    }
    for (uint32_t every : {2u, 3u, 5u, 50u}) {
        SCOPED_TRACE(every);
        Vigil::ReceiveBuffer rx;
        std::vector<uint32_t> ids;
        uint32_t asked = 0;
        auto ready = [&] { return ++asked % every != 0; };
        auto dispatch = [&](const uint8_t* message, uint32_t) {
            ids.push_back(Vigil::Protocol::Load32(message + 8));
        };
        size_t offset = 0;
        while (offset < stream.size()) {
            const uint32_t read = static_cast<uint32_t>(std::min<size_t>(4096, stream.size() - offset));
            Bytes held(stream.begin() + offset, stream.begin() + offset + read);
            offset += read;
            // Like a client, no new read until the held bytes are all taken in.
            for (int rounds = 0; rounds < 100000; ++rounds) {
                const uint32_t taken = Vigil::ReceiveBytesWhile(
                    rx, held.data(), static_cast<uint32_t>(held.size()), ready, dispatch);
                ASSERT_LE(taken, held.size());
                held.erase(held.begin(), held.begin() + taken);
                if (held.empty()) break;
            }
            ASSERT_TRUE(held.empty());
        }
        // The stops after the last read leave messages buffered: go on with 0 bytes.
        while (rx.buffered > 0) {
            ASSERT_EQ(Vigil::ReceiveBytesWhile(rx, nullptr, 0, ready, dispatch), 0u);
        }
        ASSERT_EQ(ids.size(), 600u);
        for (uint32_t r = 1; r <= 600; ++r) EXPECT_EQ(ids[r - 1], r);
    }
}

}  // namespace
