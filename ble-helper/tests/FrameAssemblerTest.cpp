#include <gtest/gtest.h>

#include "../FrameAssembler.h"

using blueshim::FrameAssembler;
using Bytes = std::vector<uint8_t>;
using namespace std::chrono_literals;

namespace {

// An answer frame: type, length, sequence, status, body, checksum.
Bytes answer(uint8_t seq, const Bytes& body)
{
    Bytes f = {0x01, static_cast<uint8_t>(body.size()), seq, 0x00};
    for (uint8_t b : body) f.push_back(b);
    f.push_back(0xAA);
    return f;
}

Bytes popAll(FrameAssembler& a, std::size_t capacity = 512)
{
    Bytes out(capacity);
    out.resize(a.pop(out.data(), out.size()));
    return out;
}

struct FrameAssemblerTest : ::testing::Test {
    FrameAssembler assembler;
    FrameAssembler::Clock::time_point t0 = FrameAssembler::Clock::now();

    void feed(const Bytes& b, std::chrono::milliseconds at = 0ms) { assembler.feed(b.data(), b.size(), t0 + at); }
};

}  // namespace

TEST_F(FrameAssemblerTest, FrameCutIntoTwentyBytePiecesComesOutWhole)
{
    Bytes body(50);
    for (std::size_t i = 0; i < body.size(); ++i) body[i] = static_cast<uint8_t>(i);
    Bytes frame = answer(7, body);
    for (std::size_t at = 0; at < frame.size(); at += 20) {
        EXPECT_TRUE(assembler.empty()) << "a frame came out before its last piece";
        feed(Bytes(frame.begin() + at, frame.begin() + std::min(frame.size(), at + 20)));
    }
    ASSERT_EQ(assembler.size(), 1u);
    EXPECT_EQ(popAll(assembler), frame);
}

TEST_F(FrameAssemblerTest, LengthByteInAChunkOfItsOwn)
{
    Bytes frame = answer(1, {9, 8, 7});
    feed({frame[0]});
    feed({frame[1]});
    feed(Bytes(frame.begin() + 2, frame.end()));
    EXPECT_EQ(popAll(assembler), frame);
}

TEST_F(FrameAssemblerTest, TwoFramesInOneChunkAndEventFrames)
{
    Bytes first = answer(1, {1, 2});
    Bytes event = {0x02, 0x00, 0x05, 0x03, 0x0A};
    Bytes both = first;
    both.insert(both.end(), event.begin(), event.end());
    feed(both);
    ASSERT_EQ(assembler.size(), 2u);
    EXPECT_EQ(popAll(assembler), first);
    EXPECT_EQ(popAll(assembler), event);
    EXPECT_TRUE(assembler.empty());
}

TEST_F(FrameAssemblerTest, BytesThatStartNoFramePassThroughOnePerChunk)
{
    feed({0x55, 0x01, 0x02});
    feed({0x7F});
    ASSERT_EQ(assembler.size(), 2u);
    EXPECT_EQ(popAll(assembler), (Bytes{0x55, 0x01, 0x02}));
    EXPECT_EQ(popAll(assembler), (Bytes{0x7F}));
}

TEST_F(FrameAssemblerTest, PartialFrameIsDroppedAfterAGap)
{
    Bytes stale = answer(1, Bytes(30, 0x11));
    feed(Bytes(stale.begin(), stale.begin() + 20));
    Bytes fresh = answer(2, {4});
    feed(fresh, 501ms);
    EXPECT_EQ(assembler.partialDrops(), 1u);
    ASSERT_EQ(assembler.size(), 1u);
    EXPECT_EQ(popAll(assembler), fresh);
}

TEST_F(FrameAssemblerTest, PartialFrameWithinTheGapIsContinued)
{
    Bytes frame = answer(1, Bytes(30, 0x11));
    feed(Bytes(frame.begin(), frame.begin() + 20));
    feed(Bytes(frame.begin() + 20, frame.end()), 499ms);
    EXPECT_EQ(assembler.partialDrops(), 0u);
    EXPECT_EQ(popAll(assembler), frame);
}

TEST_F(FrameAssemblerTest, OverflowDropsTheOldestAndCountsIt)
{
    FrameAssembler small(3);
    for (uint8_t seq = 0; seq < 5; ++seq) {
        Bytes f = answer(seq, {});
        small.feed(f.data(), f.size(), t0);
    }
    EXPECT_EQ(small.size(), 3u);
    EXPECT_EQ(small.overflowDrops(), 2u);
    EXPECT_EQ(popAll(small)[2], 2) << "the oldest frames go first";
}

TEST_F(FrameAssemblerTest, PopCutsAtCapacityAndEmptyQueueGivesNothing)
{
    Bytes frame = answer(1, Bytes(10, 0x22));
    feed(frame);
    Bytes head = popAll(assembler, 4);
    EXPECT_EQ(head, Bytes(frame.begin(), frame.begin() + 4));
    EXPECT_TRUE(assembler.empty()) << "the rest of a cut frame is not kept";
    uint8_t buf[4];
    EXPECT_EQ(assembler.pop(buf, sizeof buf), 0u);
}
