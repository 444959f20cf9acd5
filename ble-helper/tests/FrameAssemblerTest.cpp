// Framing without trusting the length byte: the rules on small cases, and
// the proof by numbers over every length convention, MTU and notification
// size a unit may use.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <random>

#include "../FrameAssembler.h"

using blueshim::FrameAssembler;
using Bytes = std::vector<uint8_t>;
using namespace std::chrono_literals;

namespace {

enum class Length { HeaderAndPayload, PayloadOnly, Fixed };
const char* name(Length l) { return l == Length::HeaderAndPayload ? "header+payload" : l == Length::PayloadOnly ? "payload only" : "fixed 0x37"; }

// An answer (0x01) or event (0x02) frame of `total` bytes with random
// contents, its length byte as the convention has it, and a good checksum.
Bytes frame(uint8_t type, std::size_t total, Length length, std::mt19937& random)
{
    Bytes f(total);
    for (auto& b : f) b = static_cast<uint8_t>(random());
    f[0] = type;
    const std::size_t skipped = type == 0x01 ? 3 : 0;  // an answer's three header bytes
    switch (length) {
    case Length::HeaderAndPayload: f[1] = static_cast<uint8_t>(total - 5); break;
    case Length::PayloadOnly: f[1] = static_cast<uint8_t>(total - 5 - skipped); break;
    case Length::Fixed: f[1] = 0x37; break;
    }
    uint8_t sum = 0;
    for (std::size_t i = 0; i + 1 < total; ++i) sum = static_cast<uint8_t>(sum + f[i]);
    f.back() = sum;
    return f;
}

struct Link {
    FrameAssembler assembler;
    FrameAssembler::Clock::time_point now{};

    explicit Link(std::size_t payload) { assembler.setPayloadSize(payload); }
    // Sends bytes in notifications of `chunk`, then lets the time pass that
    // a waiting exchange would let pass (less than a second), and returns
    // every item handed on.
    std::vector<Bytes> deliver(const Bytes& bytes, std::size_t chunk)
    {
        for (std::size_t at = 0; at < bytes.size(); at += chunk)
            assembler.feed(bytes.data() + at, std::min(chunk, bytes.size() - at), now);
        for (auto due = assembler.deadline(); due && *due <= now + 900ms; due = assembler.deadline()) assembler.expire(*due);
        now += 1s;
        std::vector<Bytes> items;
        Bytes buf(8192);
        while (!assembler.empty()) items.emplace_back(buf.begin(), buf.begin() + static_cast<long>(assembler.pop(buf.data(), buf.size())));
        return items;
    }
};

TEST(FrameAssembler, RawBytesPassAsTheyCameAndAFrameCutShortIsHandedOnAfterTheGap)
{
    Link link(20);
    const Bytes raw = {0x7E, 0x5A, 0x02, 0x03, 0x09};
    EXPECT_EQ(link.deliver(raw, 20), std::vector<Bytes>{raw});
    std::mt19937 random(2);
    const Bytes f = frame(0x01, 45, Length::HeaderAndPayload, random);
    link.assembler.feed(f.data(), 20, link.now);  // the radio goes after one piece
    EXPECT_TRUE(link.assembler.empty());
    ASSERT_TRUE(link.assembler.deadline().has_value());
    link.assembler.expire(*link.assembler.deadline());
    Bytes out(64);
    out.resize(link.assembler.pop(out.data(), out.size()));
    EXPECT_EQ(out, Bytes(f.begin(), f.begin() + 20)) << "handed on as it came, for the exchange to refuse";
    EXPECT_EQ(link.assembler.stats().cutShort, 1u);
}

TEST(FrameAssembler, AFrameInPiecesComesOutWhole)
{
    const struct {
        const char* what;
        Bytes frame;
    } cases[] = {
        {"an event", {0x02, 0x03, 0x10, 0x20, 0x35}},
        {"an answer whose first three bytes close", {0x01, 0x00, 0x01, 0x05, 0x07}},
    };
    for (const auto& c : cases) {
        Link link(20);
        EXPECT_EQ(link.deliver(c.frame, 3), std::vector<Bytes>{c.frame}) << c.what;
    }
}

TEST(FrameAssembler, AFullQueueDropsTheOldest)
{
    FrameAssembler::Options options;
    options.capacity = 2;
    FrameAssembler assembler(options);
    for (uint8_t i = 1; i <= 3; ++i) {
        const Bytes raw = {0x7E, i};
        assembler.feed(raw.data(), raw.size(), {});
    }
    EXPECT_EQ(assembler.stats().overflowDrops, 1u);
    Bytes out(8);
    for (uint8_t i = 2; i <= 3; ++i) {
        ASSERT_EQ(assembler.pop(out.data(), out.size()), 2u);
        EXPECT_EQ(out[1], i);
    }
}

TEST(FrameAssembler, AFullNotificationThatClosesWaitsForItsContinuationOnlyWhenTheLengthByteCannotTell)
{
    // A 40-byte answer whose first 20 bytes happen to close a checksum.
    std::mt19937 random(3);
    Bytes f;
    for (;;) {
        f = frame(0x01, 40, Length::Fixed, random);
        uint8_t sum = 0;
        for (int i = 0; i < 19; ++i) sum = static_cast<uint8_t>(sum + f[i]);
        if (sum == f[19]) break;
    }
    Link link(20);
    EXPECT_EQ(link.deliver(f, 20), std::vector<Bytes>{f});
    EXPECT_EQ(link.assembler.stats().continued, 1u) << "the first piece waited, and the rest came";
    EXPECT_EQ(link.assembler.stats().held, 2u) << "the end too, since this length byte tells nothing";
    // A unit whose length byte does tell ends such a frame at once, once known.
    Link told(20);
    for (int k = 0; k < 2; ++k) told.deliver(frame(0x01, 30, Length::HeaderAndPayload, random), 20);
    const Bytes exact = frame(0x01, 40, Length::HeaderAndPayload, random);
    told.assembler.feed(exact.data(), 20, told.now);
    told.assembler.feed(exact.data() + 20, 20, told.now);
    EXPECT_FALSE(told.assembler.empty()) << "no wait for a frame whose length byte agrees";
}

// The proof by numbers: answers of every size from 4 to 600 under each
// convention and MTU, in notifications of every legal size, mixed with
// events and raw items; counts what comes out whole. Fewer answers in
// unoptimised and sanitised builds (NKR_FRAMING_ANSWERS overrides).
TEST(FrameAssembler, ProofByNumbers)
{
#if defined(NDEBUG) && !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    long answers = 100000;
#else
    long answers = 4000;
#endif
    if (const char* env = std::getenv("NKR_FRAMING_ANSWERS")) answers = std::atol(env);
    constexpr int kPerLink = 50;
    std::printf("%-15s %4s %-7s %9s %9s %9s\n", "length byte", "MTU", "chunks", "answers", "whole", "rate");
    for (Length length : {Length::HeaderAndPayload, Length::PayloadOnly, Length::Fixed})
        for (std::size_t mtu : {23, 185, 247, 517}) {
            std::mt19937 random(static_cast<unsigned>(mtu) * 31 + static_cast<unsigned>(length));
            const std::size_t payload = mtu - 3;
            long sent[2] = {0, 0}, whole[2] = {0, 0};
            for (long done = 0, linkNo = 0; done < answers; ++linkNo) {
                // Every other link fills each notification; the rest use a
                // smaller size, cycling through every size from 1 up.
                const bool full = linkNo % 2 == 0;
                const std::size_t chunk = full ? payload : 1 + static_cast<std::size_t>(linkNo / 2) % payload;
                Link link(payload);
                for (int k = 0; k < kPerLink && done < answers; ++k, ++done) {
                    if (random() % 20 == 0) {  // an event first, or a raw answer, now and then
                        const Bytes extra = random() % 2 == 0 ? frame(0x02, 5 + random() % 20, length, random)
                                                              : Bytes{0x7E, 0x5A, static_cast<uint8_t>(random())};
                        link.deliver(extra, chunk);
                    }
                    const Bytes f = frame(0x01, 4 + random() % 597, length, random);
                    const auto items = link.deliver(f, chunk);
                    ++sent[full];
                    if (items.size() == 1 && items.front() == f) ++whole[full];
                }
            }
            for (int full : {1, 0}) {
                const double rate = sent[full] > 0 ? 100.0 * static_cast<double>(whole[full]) / static_cast<double>(sent[full]) : 100.0;
                std::printf("%-15s %4zu %-7s %9ld %9ld %8.4f%%\n", name(length), mtu, full ? "full" : "smaller", sent[full],
                            whole[full], rate);
                EXPECT_GE(rate, full ? 99.9 : 99.0) << name(length) << " MTU " << mtu;
            }
        }
}

}  // namespace
