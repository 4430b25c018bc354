// Clipboard transfer on the settable clock: its thread runs, but no test waits for time.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>

#include "clipboard_internal.h"
#include "support/clip_end.h"
#include "support/virtual_clock.h"
#include "support/virtual_threads.h"

using namespace virtual_threads;

// The n-th allocation of the library from now fails, once.
static std::atomic<int> fail_in{0};
extern "C" {
void *__real_malloc(size_t size);
void *__real_calloc(size_t n, size_t size);
void *__wrap_malloc(size_t size);
void *__wrap_calloc(size_t n, size_t size);
void *__wrap_malloc(size_t size) { return fail_in > 0 && --fail_in == 0 ? nullptr : __real_malloc(size); }
void *__wrap_calloc(size_t n, size_t size) {
    return fail_in > 0 && --fail_in == 0 ? nullptr : __real_calloc(n, size);
}
}

namespace {

constexpr int64_t ms = 1000, second = 1000000;

bytes part(const bytes &b, size_t begin, size_t end) { return bytes(b.data() + begin, b.data() + end); }

// What one end sends once its thread has come to rest.
texts sent_by(clip_end &end) {
    settle();
    return end.shown();
}
texts after(clip_end &end, int64_t us) {
    advance(us);
    return end.shown();
}
// What a packet brings forth at once.
texts answer(clip_end &end, const bytes &packet) {
    EXPECT_EQ(end.feed(packet), 1);
    return sent_by(end);
}
const texts none;

TEST(ClipSend, ChunksFillThePathsPacketAndTheTailIsRepeated) {
    const std::pair<size_t, size_t> rows[] = {{0, 37}, {37, 37}, {38, 38}, {1472, 1472}, {1473, 1472}};
    for (const auto &[max_packet, packet] : rows) {
        SCOPED_TRACE(max_packet);
        clip_end a(0x01020304, max_packet);
        const size_t chunk = packet - 21;
        const bytes blob = pattern(4 * chunk + 1);
        const auto total = static_cast<uint32_t>(blob.size());
        ASSERT_EQ(a.offer(blob, TARN_CLIP_PNG), 1u);
        settle();
        std::vector<bytes> expected;
        for (size_t at = 0; at < total; at += chunk)
            expected.push_back(clip_chunk(1, TARN_CLIP_PNG, total, static_cast<uint32_t>(at),
                                          part(blob, at, std::min(blob.size(), at + chunk)), 0x01020304));
        EXPECT_EQ(a.packets(), expected);
    }
    const std::pair<size_t, const char *> tails[] = {{16, "#1 0+16"}, {17, "#1 16+1"}, {100, "#1 96+4"}};
    for (const auto &[size, tail] : tails) {
        clip_end a(7, 37);
        a.offer(pattern(size));
        EXPECT_EQ(sent_by(a).back(), tail);
        EXPECT_EQ(after(a, 100 * ms - 1), none);
        EXPECT_EQ(after(a, 1), texts{tail});
        EXPECT_EQ(after(a, 199 * ms), texts{tail});
    }
}

TEST(ClipSend, PassesFollowTheAnswerAndEndWithAQuestion) {
    ranges bytewise;
    for (uint32_t i = 0; i < 64; i++)
        bytewise.push_back({i, 1});
    const struct {
        ranges list;
        texts pass; // of a blob of 100 bytes in chunks of 16
    } rows[] = {
        {{}, {"#1 96+4"}},
        {{{3, 40}}, {"#1 3+16", "#1 19+16", "#1 35+8", "#1 96+4"}},
        {{{96, 4}}, {"#1 96+4"}},
        {{{90, 9}}, {"#1 90+9", "#1 96+4"}}, // to one before the end
        {{{90, 11}}, {"#1 90+10"}},
        {{{90, UINT32_MAX}}, {"#1 90+10"}}, // neither a length nor a start wraps
        {{{UINT32_MAX, 2}}, {"#1 96+4"}},
        {{{100, 5}, {10, 0}}, {"#1 96+4"}}, // void
        {{{90, 10}, {0, 5}}, {"#1 90+10", "#1 0+5", "#1 96+4"}},
        {{{90, 10}, {200, 1}, {50, 0}}, {"#1 90+10"}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        clip_end a(7, 37);
        a.offer(pattern(100));
        sent_by(a);
        advance(50 * ms);
        EXPECT_EQ(answer(a, clip_ack(1, TARN_CLIP_MISSING, row.list)), row.pass);
        EXPECT_EQ(after(a, 100 * ms), texts{"#1 96+4"});
        a.log();
        EXPECT_EQ(answer(a, clip_ack(1, TARN_CLIP_COMPLETE)), none);
        EXPECT_EQ(a.log(), texts{"clipboard: #1 text, 100 B delivered in 150 ms (2 passes)"});
        EXPECT_EQ(next_due(), INT64_MAX);
    }
    clip_end a(7, 37);
    a.offer(pattern(100));
    sent_by(a);
    const texts pass = answer(a, clip_ack(1, TARN_CLIP_MISSING, bytewise));
    ASSERT_EQ(pass.size(), 65u);
    EXPECT_EQ(pass[63], "#1 63+1");
    EXPECT_EQ(pass[64], "#1 96+4");
}

TEST(ClipSend, ForeignAndUntimelyAnswersChangeNothing) {
    clip_end a(7, 37, 1000);
    a.offer(pattern(16000));
    sent_by(a); // the bucket is empty, and most of the blob is still to go
    a.log();
    bytes cut = clip_ack(1, TARN_CLIP_COMPLETE);
    cut.pop_back();
    for (const bytes &p : {clip_ack(1, TARN_CLIP_MISSING, {{0, 16}}), clip_ack(1, TARN_CLIP_COMPLETE, {}, 8),
                           clip_ack(1, TARN_CLIP_COMPLETE, {}, 0), clip_ack(2, TARN_CLIP_COMPLETE),
                           clip_ack(0, TARN_CLIP_REJECTED), cut})
        EXPECT_EQ(answer(a, p), none);
    EXPECT_EQ(after(a, 37 * ms).size(), 1u); // goes on where it was
    EXPECT_EQ(a.log(), none);
    EXPECT_EQ(answer(a, clip_ack(1, TARN_CLIP_COMPLETE)), none);
    EXPECT_EQ(a.log(), texts{"clipboard: #1 text, 16000 B delivered in 37 ms (1 pass)"});
    EXPECT_EQ(answer(a, clip_ack(1, TARN_CLIP_COMPLETE)), none);
    EXPECT_EQ(a.log(), none);

    clip_end b(0); // without a session even its own word is foreign
    EXPECT_EQ(answer(b, clip_ack(0, TARN_CLIP_COMPLETE, {}, 0)), none);
    EXPECT_EQ(answer(b, clip_chunk(1, TARN_CLIP_TEXT, 1, 0, {'x'}, 0)), none);
    EXPECT_TRUE(b.delivered().empty());
}

TEST(ClipSend, EveryEndIsLogged) {
    const struct {
        const char *log;
        std::function<void(clip_end &)> end;
    } rows[] = {
        {"clipboard: #1 PNG, 9 B delivered in 0 ms (1 pass)", [](clip_end &a) { a.feed(clip_ack(1, 0)); }},
        {"clipboard: #1 PNG, 9 B rejected by the peer", [](clip_end &a) { a.feed(clip_ack(1, 2)); }},
        {"clipboard: #1 dropped (session changed)",
         [](clip_end &a) { tarn_clip_set_session(a.clip, 8, 37); }},
        {"clipboard: #1 dropped (session changed)",
         [](clip_end &a) { tarn_clip_set_session(a.clip, 7, 38); }},
        {"clipboard: #1 dropped (session ended)", [](clip_end &a) { tarn_clip_set_session(a.clip, 0, 37); }},
        {"clipboard: #1 PNG, 9 B: no answer for 5 s, gave up", [](clip_end &) { advance(5 * second); }},
    };
    for (const auto &row : rows) {
        clip_end a(7, 37);
        a.offer(pattern(9), TARN_CLIP_PNG);
        sent_by(a);
        EXPECT_EQ(a.log(), texts{"clipboard: sending #1 PNG, 9 B"});
        tarn_clip_set_session(a.clip, 7, 37); // no change
        row.end(a);
        settle();
        EXPECT_EQ(a.log(), texts{row.log});
        EXPECT_EQ(next_due(), INT64_MAX); // the thread sleeps
        EXPECT_EQ(a.clip->data, nullptr);
    }
}

TEST(ClipSend, SilenceOfFiveSecondsOrTwoMinutesInAll) {
    clip_end a(7, 37);
    a.offer(pattern(9));
    EXPECT_EQ(after(a, 3 * second).size(), 31u);
    a.feed(clip_ack(1, TARN_CLIP_MISSING, {{0, 9}})); // life: the five seconds begin again
    EXPECT_EQ(after(a, 5 * second - 1).size(), 50u);
    a.log();
    EXPECT_EQ(after(a, 1), none);
    EXPECT_EQ(a.log(), texts{"clipboard: #1 text, 9 B: no answer for 5 s, gave up"});

    a.offer(pattern(9)); // and a peer that never has enough
    for (int i = 0; i < 1200; i++) {
        settle();
        a.feed(clip_ack(2, TARN_CLIP_MISSING));
        advance(100 * ms);
    }
    a.packets();
    EXPECT_EQ(a.log(), texts{"clipboard: sending #2 text, 9 B"}); // two minutes to the microsecond
    EXPECT_EQ(after(a, 100 * ms), none);
    EXPECT_EQ(a.log(), texts{"clipboard: #2 text, 9 B: gave up after 1201 passes in 2 min"});
}

TEST(ClipSend, WhatIsNotOffered) {
    clip_end a, idle(0);
    const bytes most = pattern(TARN_CLIP_PNG_MAX + 1);
    const auto refused = [&](uint8_t kind, size_t size) {
        EXPECT_EQ(tarn_clip_offer(a.clip, kind, most.data(), size), 0u);
        return a.log();
    };
    EXPECT_EQ(refused(1, 1048577), texts{"clipboard: not sending text of 1048577 B (limit 1048576 B)"});
    EXPECT_EQ(refused(2, 16777217), texts{"clipboard: not sending PNG of 16777217 B (limit 16777216 B)"});
    EXPECT_EQ(refused(3, 5), texts{"clipboard: not sending ? of 5 B (limit 0 B)"});
    EXPECT_EQ(refused(3, 0), none);
    EXPECT_EQ(idle.offer(pattern(5)), 0u);
    EXPECT_EQ(idle.log(), none);
    fail_in = 1;
    EXPECT_EQ(tarn_clip_offer(a.clip, TARN_CLIP_TEXT, most.data(), 5), 0u);
    EXPECT_EQ(fail_in, 0);
    EXPECT_EQ(sent_by(a), none);
    EXPECT_EQ(a.log(), none);
    EXPECT_EQ(a.offer(prefix(most, 1048576)), 1u); // none of them used up a number
    EXPECT_EQ(a.offer(prefix(most, 16777216), TARN_CLIP_PNG), 2u);
    EXPECT_EQ(a.log(), (texts{"clipboard: sending #1 text, 1048576 B",
                              "clipboard: #1 superseded before it was acknowledged",
                              "clipboard: sending #2 PNG, 16777216 B"}));
}

TEST(ClipSend, RateBucket) {
    // The wait in ms until the 80 bytes are there that the 15th packet lacks.
    const std::pair<uint32_t, int64_t> rows[] = {{3000, 27}, {80001, 1}, {79999, 2}, {0, 1}, {1, 80000}};
    for (const auto &[rate, wait_ms] : rows) {
        SCOPED_TRACE(rate);
        clip_end a(7, 1176, rate);
        a.offer(pattern(100000));
        EXPECT_EQ(sent_by(a).size(), 14u); // 16384 bytes and a packet
        EXPECT_EQ(next_due(), tarn_now_us() + wait_ms * ms);
    }
    for (const uint32_t rate : {100000u, 0u}) {
        clip_end even(7, 1176, rate);
        even.offer(pattern(TARN_CLIP_PNG_MAX), TARN_CLIP_PNG);
        sent_by(even);
        EXPECT_NEAR(static_cast<double>(after(even, second).size()), (rate ? rate : 5e6) / 1176, 1);
    }
    clip_end a(7, 1176, 100000);
    tarn_clip_set_session(a.clip, 8, 1176);
    advance(600 * second); // rest fills the bucket, and no more
    a.offer(pattern(100000));
    EXPECT_EQ(sent_by(a).size(), 14u);
    tarn_clip_set_session(a.clip, 9, 37); // a smaller packet, a smaller bucket
    advance(600 * second);
    a.offer(pattern(100000));
    EXPECT_EQ(sent_by(a).size(), 443u);
    tarn_clip_set_session(a.clip, 0, 0);

    clip_end b(7, 1176, 100); // the wait for an answer begins with the last packet, whatever the bucket holds
    b.offer(pattern(15 * 1155));
    sent_by(b);
    EXPECT_EQ(after(b, 800 * ms), texts{"#1 16170+1155"});
    EXPECT_EQ(next_due(), tarn_now_us() + 100 * ms);
    b.feed(clip_ack(1, TARN_CLIP_MISSING, {{0, 2}}));
    EXPECT_EQ(after(b, 12 * second).size(), 2u); // some while after the answer
    b.log();
    advance(4900 * ms);
    EXPECT_EQ(b.log(), none);
    advance(100 * ms);
    EXPECT_EQ(b.log(), texts{"clipboard: #1 text, 17325 B: no answer for 5 s, gave up"});
}

TEST(ClipSend, SendingTakesPlaceOutsideTheLock) {
    clip_end a(7, 37);
    a.sending = [&](const bytes &p) {
        if (clip_show(p) == "#1 0+16") a.offer(pattern(20)); // would hang; what was under way is dropped
        spend(300);                                          // and a busy while doesn't make the thread spin
    };
    a.offer(pattern(40));
    EXPECT_EQ(sent_by(a), (texts{"#1 0+16", "#2 0+16", "#2 16+4"}));
    EXPECT_EQ(next_due(), tarn_now_us() + 100 * ms);
}

TEST(ClipReceive, OtherPacketsAreNotTakenAndADeliveryMayOffer) {
    clip_end a;
    const bytes chunk = clip_chunk(1, 1, 1, 0, {'x'});
    for (const size_t changed : {1u, 2u}) { // the version, the type
        bytes other = chunk;
        other[changed] = 2;
        EXPECT_EQ(a.feed(other), 0);
    }
    EXPECT_EQ(a.feed(prefix(chunk, 7)), 0);
    EXPECT_EQ(a.feed(prefix(chunk, 8)), 1); // a clipboard packet, though a useless one
    EXPECT_TRUE(sent_by(a).empty() && a.delivered().empty());
    a.delivering = [&](const clip_end::blob &got) { a.offer(got.data, got.kind); }; // would hang
    EXPECT_EQ(answer(a, chunk), (texts{"#1 status 0", "#1 0+1"}));
}

TEST(ClipReceive, AnswersAtTheEndOfAPassOnly) {
    clip_end b;
    const bytes blob = pattern(30);
    const auto give = [&](uint32_t begin, uint32_t end, uint32_t id = 1) {
        return answer(b, clip_chunk(id, TARN_CLIP_TEXT, 30, begin, part(blob, begin, end)));
    };
    EXPECT_EQ(give(20, 30), texts{"#1 status 1: 0+20"});
    EXPECT_EQ(give(5, 12), none);
    EXPECT_EQ(give(0, 6), none);
    EXPECT_EQ(give(30, 30), texts{"#1 status 1: 12+8"}); // an empty chunk asks, too
    EXPECT_EQ(answer(b, clip_chunk(1, TARN_CLIP_PNG, 30, 12, part(blob, 12, 20))), none);
    EXPECT_EQ(answer(b, clip_chunk(1, TARN_CLIP_TEXT, 20, 12, part(blob, 12, 20))), none);
    EXPECT_EQ(answer(b, clip_chunk(1, TARN_CLIP_TEXT, 30, 12, part(blob, 12, 20), 8)), none);
    EXPECT_EQ(give(0, 20, 0), none); // an older number
    advance(1500);
    EXPECT_EQ(give(12, 20), texts{"#1 status 0"});
    EXPECT_EQ(b.log(), texts{"clipboard: received #1 text, 30 B in 2 ms"});
    const auto got = b.delivered();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].id, 1u);
    EXPECT_EQ(got[0].kind, TARN_CLIP_TEXT);
    EXPECT_EQ(got[0].data, blob);

    EXPECT_EQ(give(0, 20), none); // done: only a question is answered
    EXPECT_EQ(give(20, 30), texts{"#1 status 0"});
    EXPECT_EQ(give(0, 30, 0), none);
    EXPECT_EQ(give(0, 7, 2), none);
    EXPECT_EQ(give(20, 30), texts{"#1 status 0"}); // the one before is remembered beside the next
    EXPECT_EQ(give(0, 30, 4), texts{"#4 status 0"});
    EXPECT_EQ(b.log(), (texts{"clipboard: incoming #2 (7 of 30 B) replaced by #4",
                              "clipboard: received #4 text, 30 B in 0 ms"}));
    EXPECT_EQ(give(0, 30, 3), none);
    EXPECT_EQ(b.delivered().size(), 1u);
}

TEST(ClipReceive, RejectsWhatIsTooMuch) {
    const struct {
        uint8_t kind;
        uint32_t total;
        const char *log; // null: taken
    } rows[] = {
        {1, 1048577, "clipboard: rejecting #1: text of 1048577 B"},
        {1, 1048576, nullptr},
        {2, 16777216, nullptr},
        {3, 1, "clipboard: rejecting #1: ? of 1 B"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.total);
        clip_end b;
        const bytes first = clip_chunk(1, row.kind, row.total, 0, {}),
                    last = clip_chunk(1, row.kind, row.total, row.total - 1, {'x'});
        EXPECT_EQ(answer(b, first), row.log ? texts{"#1 status 2"} : none);
        EXPECT_EQ(b.log(), row.log ? texts{row.log} : none);
        EXPECT_EQ(answer(b, first), none);
        EXPECT_EQ(answer(b, last),
                  texts{row.log ? "#1 status 2" : "#1 status 1: 0+" + std::to_string(row.total - 1)});
        EXPECT_EQ(b.log(), none);
        EXPECT_EQ(answer(b, clip_chunk(2, 1, 1, 0, {'x'})), texts{"#2 status 0"});
    }
    for (int n = 1; n <= 2; n++) { // blob, bitmap
        clip_end b;
        const bytes packet = clip_chunk(9, 2, 3000, 0, {});
        fail_in = n;
        tarn_clip_receive(b.clip, packet.data(), packet.size());
        EXPECT_EQ(fail_in, 0);
        EXPECT_EQ(sent_by(b), texts{"#9 status 2"});
        EXPECT_EQ(b.log(), texts{"clipboard: rejecting #9: out of memory for 3000 B"});
        EXPECT_EQ(answer(b, packet), none);
    }
}

TEST(ClipReceive, AcksHoldWhatThePathCarries) {
    const struct {
        size_t max_packet, ranges;
    } rows[] = {{0, 1}, {29, 1}, {30, 2}, {525, 63}, {526, 64}, {1176, 64}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.max_packet);
        clip_end b(7, row.max_packet);
        for (uint32_t at = 1; at < 199; at += 2) // 99 gaps of one byte, and the last one
            b.feed(clip_chunk(1, 1, 201, at, {'x'}));
        b.feed(clip_chunk(1, 1, 201, 201, {}));
        settle();
        const auto sent = b.packets();
        ASSERT_EQ(sent.size(), 1u);
        EXPECT_EQ(sent[0].size(), 14 + 8 * row.ranges);
    }
}

// Random chunks against a plain model: a vector of flags.
TEST(ClipReceive, KeepsBooksToTheByte) {
    for (uint64_t seed = 1; seed <= 300; seed++) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        test_random random(seed);
        const auto total = static_cast<uint32_t>(1 + random.below(seed % 2 ? 40 : 400));
        clip_end b(7, 14 + 8 * (1 + random.below(64)));
        const bytes blob = pattern(total, seed);
        std::vector<bool> have(total);
        while (std::count(have.begin(), have.end(), false) > 0) {
            const auto begin = static_cast<uint32_t>(random.below(total + 1));
            const auto end = static_cast<uint32_t>(begin + random.below(std::min(total - begin, 60u) + 1));
            for (uint32_t i = begin; i < end; i++)
                have[i] = true;
            b.feed(clip_chunk(5, 2, total, begin, part(blob, begin, end)));
            const texts got = b.shown();
            ASSERT_EQ(b.clip->done_valid ? total : b.clip->rx_have,
                      std::count(have.begin(), have.end(), true));
            ranges gaps;
            for (uint32_t i = 0; i < total; i++) {
                if (have[i]) continue;
                if (i == 0 || have[i - 1]) gaps.push_back({i, 0});
                gaps.back().second++;
            }
            gaps.resize(std::min(gaps.size(), static_cast<size_t>(b.clip->rx_max_packet - 14) / 8));
            if (gaps.empty())
                ASSERT_EQ(got, texts{"#5 status 0"});
            else
                ASSERT_EQ(got, end == total ? texts{clip_show(clip_ack(5, 1, gaps))} : none);
        }
        const auto delivered = b.delivered();
        ASSERT_EQ(delivered.size(), 1u);
        ASSERT_EQ(delivered[0].data, blob);
    }
}

TEST(ClipReceive, ALocalCopyMeanwhileStands) {
    const bool rows[][3] = {
        {false, true, false}, {false, false, true}, {true, false, true}}; // offer, time, offer
    for (const auto &row : rows) {
        clip_end b;
        tarn_clip_set_session(b.clip, 7, 1176);
        if (row[0]) b.offer(pattern(3));
        if (row[0]) advance(1);
        b.feed(clip_chunk(1, 1, 2, 0, {'a'}));
        if (!row[1]) advance(1);
        b.offer(pattern(4));
        b.log();
        b.feed(clip_chunk(1, 1, 2, 1, {'b'}));
        const bool applied = row[1]; // offered in the very microsecond: not after it
        EXPECT_EQ(b.delivered().size(), applied ? 1u : 0u);
        EXPECT_EQ(b.log(),
                  texts{std::string("clipboard: received #1 text, 2 B in 0 ms") +
                        (applied ? "" : "; not applied (something newer was copied here meanwhile)")});
        const texts sent = sent_by(b);
        EXPECT_EQ(std::count(sent.begin(), sent.end(), "#1 status 0"), 1);
    }
}

TEST(ClipReceive, ASessionChangeForgetsEverything) {
    clip_end b;
    uint8_t kind = 2;
    for (const auto &[session, packet] :
         std::vector<std::pair<uint32_t, size_t>>{{7, 1175}, {8, 1175}, {8, 1174}, {0, 0}, {7, 1176}}) {
        tarn_clip_set_session(b.clip, session, packet);
        kind ^= 3;
        b.feed(clip_chunk(1, kind, 2, 1, {'b'}, session)); // dropped silently by the next change
        EXPECT_EQ(b.packets(),
                  session ? std::vector<bytes>{clip_ack(1, 1, {{0, 1}}, session)} : std::vector<bytes>{});
    }
    tarn_clip_set_session(b.clip, 7, 1176); // no change
    EXPECT_EQ(answer(b, clip_chunk(1, 1, 2, 0, {'a'})), texts{"#1 status 0"});
    EXPECT_EQ(answer(b, clip_chunk(1, 1, 2, 1, {'b'}, 8)), none);
    tarn_clip_set_session(b.clip, 8, 1176);
    EXPECT_EQ(answer(b, clip_chunk(1, 1, 2, 0, {'c', 'd'}, 8)), texts{"#1 status 0"}); // numbers begin anew
    EXPECT_EQ(b.delivered().size(), 2u);
}

TEST(Clip, LivesWithoutOptionalCallbacks) {
    tarn_clip_config config = {[](void *, const uint8_t *, size_t) {}, nullptr, nullptr, nullptr, 0};
    tarn_clip *clip = tarn_clip_create(&config);
    tarn_clip_set_session(clip, 7, 1176);
    const bytes packet = clip_chunk(1, 1, 1, 0, {'x'});
    EXPECT_EQ(tarn_clip_receive(clip, packet.data(), packet.size()), 1); // freed by the object
    settle();
    tarn_clip_destroy(clip);
    fail_in = 1;
    EXPECT_EQ(tarn_clip_create(&config), nullptr);
    fail_in = 0;
    fail_starts(true);
    EXPECT_EQ(tarn_clip_create(&config), nullptr);
    fail_starts(false);
    {
        clip_end busy(7, 37, 1000); // ends in the middle of both directions
        busy.offer(pattern(100000));
        busy.feed(clip_chunk(1, 1, 5, 0, {'x'}));
    }
    EXPECT_EQ(running(), 0);
}

// Two ends and the wire between them. `lose` says for each packet whether it is lost; nothing takes time but
// the ends.
struct wire {
    clip_end a, b;
    std::function<bool(bool from_a, const bytes &)> lose = [](bool, const bytes &) { return false; };

    explicit wire(size_t max_packet = 1176) : a(7, max_packet), b(7, max_packet) {}
    bool carry() {
        bool moved = false;
        settle();
        for (const bool from_a : {true, false}) {
            for (const bytes &p : (from_a ? a : b).packets()) {
                moved = true;
                if (!lose(from_a, p)) (from_a ? b : a).feed(p);
            }
        }
        return moved;
    }
    // Until both threads sleep.
    void run() {
        for (;;) {
            while (carry()) {
            }
            const int64_t due = next_due();
            if (due == INT64_MAX) return;
            advance(due - tarn_now_us());
        }
    }
};

TEST(ClipWire, OneLossAtATime) {
    const bytes blob = pattern(100);
    const struct {
        const char *log;
        std::vector<int> lost_of_a, lost_of_b = {}; // by number, from 1; seven chunks make the first pass
    } rows[] = {{"delivered in 0 ms (1 pass)", {}},
                {"delivered in 0 ms (2 passes)", {1, 2, 3, 4, 5, 6}},
                {"delivered in 100 ms (1 pass)", {7}},
                {"delivered in 100 ms (2 passes)", {2, 7}},
                {"delivered in 200 ms (1 pass)", {}, {1, 2}}}; // the final answer, twice
    for (const auto &row : rows) {
        wire w(37);
        int counts[2] = {0, 0};
        w.lose = [&](bool from_a, const bytes &) {
            const std::vector<int> &lost = from_a ? row.lost_of_a : row.lost_of_b;
            return std::count(lost.begin(), lost.end(), ++counts[from_a]) > 0;
        };
        w.a.offer(blob);
        w.run();
        EXPECT_EQ(w.a.log().back(), std::string("clipboard: #1 text, 100 B ") + row.log);
        const auto got = w.b.delivered();
        ASSERT_EQ(got.size(), 1u);
        EXPECT_EQ(got[0].data, blob);
    }
}

TEST(ClipWire, MoreGapsThanAnAnswerHolds) {
    const struct {
        size_t max_packet;
        int gaps;
        const char *passes;
    } rows[] = {{37, 100, "(51 passes)"}, {526, 200, "(5 passes)"}}; // an answer holds 2, and 64
    for (const auto &row : rows) {
        wire w(row.max_packet);
        int n = 0;
        w.lose = [&](bool from_a, const bytes &) { return from_a && ++n < 2 * row.gaps && n % 2 == 1; };
        w.a.offer(pattern(static_cast<size_t>(2 * row.gaps) * (row.max_packet - 21)));
        w.run();
        EXPECT_EQ(w.b.delivered().size(), 1u);
        EXPECT_TRUE(w.a.log().back().ends_with(row.passes));
    }
}

TEST(ClipWire, BothDirectionsUnderLoss) {
    for (uint64_t seed = 1; seed <= 60; seed++) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        test_random random(seed);
        wire w(200 + random.below(300));
        w.lose = [&](bool, const bytes &) { return random.below(100) < seed / 2; };
        const bytes there = pattern(40000 + random.below(90000), seed),
                    back = pattern(1 + random.below(50000), seed + 99);
        w.a.offer(there, TARN_CLIP_PNG);
        w.b.offer(back);
        w.run();
        const auto at_b = w.b.delivered(), at_a = w.a.delivered();
        ASSERT_TRUE(at_b.size() == 1 && at_a.size() == 1);
        ASSERT_TRUE(at_b[0].data == there && at_a[0].data == back);
    }
}

TEST(ClipWire, SixteenMebibytesWithinTheRate) {
    wire w;
    const int64_t start = tarn_now_us();
    double sent = 0, over = 0;
    w.a.sending = [&](const bytes &p) {
        sent += static_cast<double>(p.size());
        over = std::max(over, sent - 5.0 * static_cast<double>(tarn_now_us() - start));
    };
    const bytes blob = pattern(TARN_CLIP_PNG_MAX);
    w.a.offer(blob, TARN_CLIP_PNG);
    w.run();
    const auto got = w.b.delivered();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_TRUE(got[0].data == blob);
    EXPECT_LE(over, 16384 + 1176);
    EXPECT_NEAR(static_cast<double>(tarn_now_us() - start) / 1e6, sent / 5e6, 0.01);
}

TEST(ClipWire, NumbersWrapPastZero) {
    wire w;
    w.a.clip->last_id = UINT32_MAX - 2;
    std::vector<uint32_t> ids;
    for (int i = 0; i < 4; i++) {
        ids.push_back(w.a.offer(pattern(5)));
        w.run();
    }
    EXPECT_EQ(ids, (std::vector<uint32_t>{UINT32_MAX - 1, UINT32_MAX, 1, 2}));
    EXPECT_EQ(w.b.delivered().size(), 4u);
    w.b.feed(clip_chunk(UINT32_MAX, 1, 1, 0, {'x'})); // older than 2
    EXPECT_TRUE(w.b.packets().empty());
    w.b.feed(clip_chunk(0x80000002, 1, 1, 0, {'x'})); // half the circle on: older
    w.b.feed(clip_chunk(0x80000001, 1, 1, 0, {'x'})); // one before: newer
    EXPECT_EQ(w.b.shown(), texts{"#2147483649 status 0"});
}

} // namespace
