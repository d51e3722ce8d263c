// Cutting a byte stream into frames, and reading a message body's attributes.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "golden_session.hpp"
#include "ubus/wire.hpp"

namespace {

using Result = ubus::FrameReader::Result;
using ubus::Bytes;
using Msg = std::vector<std::uint8_t>;

// Every message of a few captured sessions, in file order, as one stream.
std::vector<Msg> captured_messages() {
    std::vector<Msg> out;
    for (const char* file : {"session_call_types.txt", "session_subscribe_notify.txt", "session_events.txt"})
        for (const auto& s : golden::read_session(file))
            if (s.kind == golden::Step::ToBroker || s.kind == golden::Step::FromBroker)
                out.push_back(s.bytes);
    return out;
}

// Feeds the stream in pieces of `chunk` bytes, taking frames as they complete.
std::vector<Msg> reframe(const std::vector<Msg>& msgs, std::size_t chunk) {
    Msg stream;
    for (const auto& m : msgs) stream.insert(stream.end(), m.begin(), m.end());
    ubus::FrameReader r;
    std::vector<Msg> frames;
    for (std::size_t off = 0; off < stream.size(); off += chunk) {
        r.feed(Bytes(stream).subspan(off, std::min(chunk, stream.size() - off)));
        ubus::Frame f;
        Result res;
        while ((res = r.next(f)) == Result::Frame) {
            EXPECT_EQ(f.body().size(), (ubus::wire::get32(f.body().data()) & 0xffffffu));
            frames.emplace_back(f.bytes.begin(), f.bytes.end());
        }
        EXPECT_EQ(res, Result::NeedMore);
    }
    EXPECT_EQ(r.buffered(), 0u);
    return frames;
}

TEST(FrameReader, SplitAndCoalescedReadsGiveTheSameFrames) {
    const auto msgs = captured_messages();
    ASSERT_GT(msgs.size(), 20u);
    for (std::size_t chunk : {std::size_t{1}, std::size_t{5}, std::size_t{13}, std::size_t{1} << 20}) {
        SCOPED_TRACE(chunk);
        EXPECT_EQ(reframe(msgs, chunk), msgs);
    }
}

Msg header_with_body_len(std::uint32_t len) {
    Msg m(12, 0);
    m[1] = static_cast<std::uint8_t>(ubus::MsgType::Data);
    ubus::wire::put32(m.data() + 8, len);
    return m;
}

TEST(FrameReader, BodyLengthOutsideLimitsIsAnErrorAsSoonAsTheHeaderIsIn) {
    for (std::uint32_t len : {0u, 3u, static_cast<std::uint32_t>(ubus::kMaxBodyLen) + 1, 0xffffffu}) {
        SCOPED_TRACE(len);
        ubus::FrameReader r;
        ubus::Frame f;
        const Msg h = header_with_body_len(len);
        r.feed(Bytes(h).first(11));
        EXPECT_EQ(r.next(f), Result::NeedMore);
        r.feed(Bytes(h).subspan(11));
        EXPECT_EQ(r.next(f), Result::Error);
    }
}

TEST(FrameReader, BodyOfExactlyTheLimitIsAccepted) {
    for (std::uint32_t len :
         {static_cast<std::uint32_t>(ubus::kMaxBodyLen), static_cast<std::uint32_t>(ubus::kMaxBodyLen) - 3}) {
        SCOPED_TRACE(len);
        Msg m = header_with_body_len(len);
        m.resize(8 + len);
        ubus::FrameReader r;
        ubus::Frame f;
        r.feed(Bytes(m).first(m.size() - 1));
        EXPECT_EQ(r.next(f), Result::NeedMore);
        r.feed(Bytes(m).last(1));
        ASSERT_EQ(r.next(f), Result::Frame);
        EXPECT_EQ(f.bytes.size(), m.size());
    }
}

// Body attributes: [id, payload] pairs written as plain attributes.
Msg body(std::initializer_list<std::pair<std::uint32_t, Msg>> attrs) {
    ubus::BlobBuf b(0);
    for (const auto& [id, payload] : attrs) b.put_raw(id, payload);
    const Bytes p = b.members();
    return {p.begin(), p.end()};
}

TEST(MsgAttrs, LastWellFormedOccurrenceWinsAndMalformedOnesAreIgnored) {
    const Msg id1 = {0, 0, 0, 1}, id2 = {0, 0, 0, 2};
    const Msg b = body({
        {ubus::kAttrObjId, id1},
        {ubus::kAttrObjId, id2},
        {ubus::kAttrObjId, {0, 0, 3}},  // wrong size: ignored
        {ubus::kAttrMethod, {'g', 'o', 0}},
        {ubus::kAttrMethod, {'b', 'a', 'd'}},  // no NUL: ignored
        {ubus::kAttrStatus, {0, 0, 0, 4, 0}},  // wrong size, and the only one
        {ubus::kAttrNoReply, {1}},
        {ubus::kAttrActive, {0, 1}},  // wrong size
        {ubus::kAttrData, {}},        // nested: any length
        {14, id1},
        {127, id1},
    });
    const ubus::MsgAttrs a(b);
    EXPECT_EQ(a.u32(ubus::kAttrObjId), 2u);
    EXPECT_EQ(a.str(ubus::kAttrMethod), "go");
    EXPECT_FALSE(a.has(ubus::kAttrStatus));
    EXPECT_EQ(a.u8(ubus::kAttrNoReply), 1);
    EXPECT_FALSE(a.has(ubus::kAttrActive));
    EXPECT_TRUE(a.has(ubus::kAttrData));
    EXPECT_TRUE(a.data().empty());
    EXPECT_FALSE(a.has(14));
}

}  // namespace
