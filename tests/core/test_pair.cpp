// CPace and the pairing exchange: published figures, a whole run to the byte, every message in every state,
// damaged, cut and repeated, and what is wiped when. The program is linked with --wrap for crypto_wipe, so
// that the tests see what the library wipes, and for crypto_sha512_final, so that a test can choose the hash
// that becomes a point.
#include <gtest/gtest.h>

#include <algorithm>
#include <string.h>

#include <monocypher-ed25519.h>

#include <tarnglider/protocol.h>
#include <tarnglider/secure_pair.h>

#include "core/cpace_vectors.h"
#include "support/hex_bytes.h"
#include "support/records.h"
#include "support/seeded_random.h"

static std::vector<bytes> *wipe_log = nullptr;
static const bytes *chosen_hash = nullptr;
extern "C" {
void __real_crypto_wipe(void *secret, size_t size);
void __wrap_crypto_wipe(void *secret, size_t size);
void __wrap_crypto_wipe(void *secret, size_t size) {
    const uint8_t *at = static_cast<const uint8_t *>(secret);
    if (wipe_log) wipe_log->push_back(bytes(at, at + size));
    __real_crypto_wipe(secret, size);
}
void __real_crypto_sha512_final(crypto_sha512_ctx *ctx, uint8_t hash[64]);
void __wrap_crypto_sha512_final(crypto_sha512_ctx *ctx, uint8_t hash[64]);
void __wrap_crypto_sha512_final(crypto_sha512_ctx *ctx, uint8_t hash[64]) {
    __real_crypto_sha512_final(ctx, hash);
    if (chosen_hash) std::copy(chosen_hash->begin(), chosen_hash->end(), hash);
}
}

namespace {

namespace cv = cpace_vector;

// Everything that the library wipes while this lives.
struct wipe_watch {
    std::vector<bytes> seen;
    wipe_watch() { wipe_log = &seen; }
    ~wipe_watch() { wipe_log = nullptr; }
    bool has(const bytes &secret) const { // as a piece of its own
        return std::find(seen.begin(), seen.end(), secret) != seen.end();
    }
    bool has_size(size_t size) const {
        return std::any_of(seen.begin(), seen.end(), [&](const bytes &b) { return b.size() == size; });
    }
};
bytes counting(size_t size, uint8_t from = 1) {
    bytes out(size);
    for (uint8_t &b : out)
        b = from++;
    return out;
}
template <size_t n>
std::string hex_of(const uint8_t (&b)[n]) {
    return hex(b, n);
}
bytes x25519(const char *scalar, const bytes &point) {
    bytes out(32);
    crypto_x25519(out.data(), unhex(scalar).data(), point.data());
    return out;
}
bytes generator(const bytes &prs, const bytes &ci, const bytes &sid) {
    bytes out(32);
    tarn_cpace_generator(out.data(), prs.data(), prs.size(), ci.data(), ci.size(), sid.data(), sid.size());
    return out;
}
const bytes channel = unhex("7461726e676c696465722d706169722d7631");

TEST(Cpace, PublishedFiguresAndBorders) {
    const bytes sid = unhex(cv::sid), ya = unhex(cv::ya), yb = unhex(cv::yb), ada = unhex(cv::ada),
                adb = unhex(cv::adb);
    const bytes g = generator(unhex(cv::prs), unhex(cv::ci), sid);
    EXPECT_EQ(hex(g), cv::generator);
    EXPECT_EQ(hex(x25519(cv::ya_secret, g)) + hex(x25519(cv::yb_secret, g)), std::string(cv::ya) + cv::yb);
    uint8_t isk[64];
    const auto run = [&](const char *scalar, const bytes &peer) {
        return tarn_cpace_isk(isk, sid.data(), sid.size(), unhex(scalar).data(), peer.data(), ya.data(),
                              ada.data(), ada.size(), yb.data(), adb.data(), adb.size());
    };
    wipe_watch watch;
    for (const auto &[scalar, peer] : {std::pair{cv::ya_secret, yb}, {cv::yb_secret, ya}}) {
        watch.seen.clear();
        EXPECT_EQ(run(scalar, peer), TARN_OK);
        EXPECT_EQ(hex_of(isk), cv::isk);
        EXPECT_TRUE(watch.has(unhex(cv::k)) && watch.has_size(sizeof(crypto_sha512_ctx)));
    }
    const auto expand = [](const cv::bytes32 &b) {
        bytes out(32, b.middle);
        out[0] = b.first, out[31] = b.last;
        return out;
    };
    for (const auto &point : cv::low_order)
        EXPECT_EQ(run(cv::low_order_scalar, expand(point)), TARN_ERR_DH) << int{point.first};
    for (const std::string point : cv::low_order_more) {
        EXPECT_EQ(run(cv::low_order_scalar, unhex(point)), TARN_ERR_DH) << point;
        bytes other = unhex(point);
        other[0] = static_cast<uint8_t>(other[0] - 0x13), other[31] ^= 0x80; // only looks like it
        EXPECT_EQ(run(cv::low_order_scalar, other), TARN_OK) << point;
    }
    for (const auto &point : cv::full_order)
        EXPECT_EQ(run(cv::low_order_scalar, expand(point)), TARN_OK) << int{point.first};
    for (const auto &[size, point] : cv::generators)
        EXPECT_EQ(hex(generator(counting(size), channel, counting(16, 0))), point) << size;
    for (const auto &[from, point] : cv::maps) {
        const bytes hash = expand(from);
        chosen_hash = &hash;
        watch.seen.clear();
        EXPECT_EQ(hex(generator({}, channel, {})), point);
        chosen_hash = nullptr;
        EXPECT_TRUE(watch.has_size(sizeof(crypto_sha512_ctx)) && watch.has_size(64) && watch.has_size(32));
    }
}

// ---- One exchange

tarn_keypair key_of(uint8_t number) {
    tarn_keypair key;
    tarn_keypair_from_secret(&key, bytes(32, number).data());
    return key;
}
const tarn_keypair client_key = key_of(1), host_key = key_of(200);

struct answer {
    int result;
    bytes out;
};
// Nothing behind the answer is touched, and the address sanitizer watches the packet's end.
answer handle(tarn_pair &pair, const bytes &packet, size_t capacity = TARN_PAIR_MESSAGE_MAX) {
    const bytes in(packet);
    bytes out(capacity, 0xEE);
    size_t size = 777;
    const int result = tarn_pair_handle(&pair, in.data(), in.size(), out.data(), capacity, &size);
    EXPECT_LE(size, capacity);
    EXPECT_TRUE(std::all_of(out.begin() + static_cast<ptrdiff_t>(size), out.end(),
                            [](uint8_t b) { return b == 0xEE; }));
    return {result, prefix(out, size)};
}

// A run of which so many messages have been taken: 1 init, 2 resp, 3 confirm, 4 done. The same draws each
// time, so that the messages of one run fit the contexts of another.
struct run {
    tarn_pair client = {}, host = {};
    bytes init = bytes(TARN_PAIR_INIT_SIZE), resp, confirm, done;
    explicit run(int taken, const char *pin = "042137", const char *client_name = "laptop",
                 const char *host_name = "Studio \xC3\xA9", int max_attempts = 3,
                 const char *client_pin = nullptr) {
        seeded_random::reset(1);
        for (const bytes &draw : {counting(16, 0x10), counting(32, 0x20), counting(32, 0x60)})
            seeded_random::push(draw.data(), draw.size());
        size_t size = 0;
        EXPECT_EQ(tarn_pair_client_start(&client, &client_key, client_name, client_pin ? client_pin : pin,
                                         init.data(), init.size(), &size),
                  TARN_OK);
        EXPECT_EQ(size, init.size());
        EXPECT_EQ(tarn_pair_host_init(&host, &host_key, host_name, pin, max_attempts), 0);
        if (taken > 0) resp = handle(host, init).out;
        if (taken > 1) confirm = handle(client, resp).out;
        if (taken > 2) done = handle(host, confirm).out;
        if (taken > 3) handle(client, done);
    }
};
bytes fail_message(uint8_t reason) {
    bytes out(TARN_PAIR_FAIL_SIZE);
    EXPECT_EQ(tarn_pair_encode_fail(out.data(), out.size() - 1, counting(16, 0x10).data(), reason), 0u);
    EXPECT_EQ(tarn_pair_encode_fail(out.data(), out.size(), counting(16, 0x10).data(), reason), out.size());
    return out;
}

TEST(Pair, AWholeRunToTheByte) {
    wipe_watch watch;
    run r(0);
    EXPECT_TRUE(hex(r.init) == cv::run_init && watch.has(unhex(cv::run_generator)));
    const std::string sa = hex(counting(32, 0x20)), sb = hex(counting(32, 0x60));
    const auto step = [&](tarn_pair &pair, const char *in, const char *out, int result, int state,
                          const std::vector<std::string> &wiped) {
        watch.seen.clear();
        const answer a = handle(pair, unhex(in));
        EXPECT_TRUE(a.result == result && pair.state == state) << a.result;
        EXPECT_EQ(hex(a.out) + hex_of(pair.scalar), std::string(out) + cv::zero);
        for (const std::string &secret : wiped)
            EXPECT_TRUE(watch.has(unhex(secret))) << secret;
    };
    step(r.host, cv::run_init, cv::run_resp, 0, TARN_PAIR_RESP_SENT,
         {cv::run_generator, cv::run_k, cv::run_isk, sb});
    step(r.client, cv::run_resp, cv::run_confirm, 0, TARN_PAIR_CONFIRM_SENT, {cv::run_k, cv::run_isk, sa});
    step(r.host, cv::run_confirm, cv::run_done, 1, TARN_PAIR_FINISHED, {});
    step(r.client, cv::run_done, "", 1, TARN_PAIR_FINISHED, {cv::run_host_key, cv::run_client_key});
    EXPECT_EQ(hex_of(r.client.send_key) + hex_of(r.client.recv_key), std::string(128, '0'));
    EXPECT_EQ(hex_of(r.client.peer_key) + r.client.peer_name,
              hex_of(host_key.public_key) + "Studio \xC3\xA9");
    EXPECT_EQ(hex_of(r.host.peer_key) + r.host.peer_name, hex_of(client_key.public_key) + "laptop");
    for (const auto &[pair, last] : {std::pair{&r.client, cv::run_confirm}, {&r.host, cv::run_done}}) {
        size_t size;
        const uint8_t *message = tarn_pair_last_message(pair, &size);
        EXPECT_EQ(hex(message, size), last);
        watch.seen.clear();
        tarn_pair_wipe(pair);
        EXPECT_TRUE(watch.has_size(sizeof *pair) && all_zero(*pair));
        EXPECT_TRUE(tarn_pair_last_message(pair, &size) == nullptr && size == 0);
    }
}

TEST(Pair, EveryMessageInEveryState) {
    const run whole(4);
    run refused(1), failed(1); // a host that saw a bad confirm, a client that saw a refusal
    bytes bad = whole.confirm, init2 = whole.init;
    bad.back() ^= 1, init2[8] ^= 1;
    handle(refused.host, bad);
    handle(failed.client, fail_message(1));
    const bytes messages[] = {whole.init, init2,           whole.resp,      whole.confirm,
                              whole.done, fail_message(1), fail_message(2), fail_message(3)};
    // For init, another init, resp, confirm, done, fail 1 to 3: result, what is answered, state, attempts.
    const std::pair<tarn_pair, const char *> rows[] = {
        {{}, " -4:0:0 -4:0:0 -4:0:0 -4:0:0 -4:0:0 -4:0:0 -4:0:0 -4:0:0"},
        {run(1).client, " -1:1:0 -1:1:0 0R:2:0 -1:1:0 -4:1:0 -2:5:0 -5:5:0 -2:5:0"},
        {run(3).client, " -1:2:0 -1:2:0 0R:2:0 -1:2:0 1:4:0 -2:5:0 -5:5:0 -2:5:0"},
        {whole.client, " -1:4:0 -1:4:0 -4:4:0 -1:4:0 0:4:0 -4:4:0 -4:4:0 -4:4:0"},
        {failed.client, " -1:5:0 -1:5:0 -4:5:0 -1:5:0 -4:5:0 -4:5:0 -4:5:0 -4:5:0"},
        {run(0).host, " 0Q:3:1 0Q:3:1 -1:0:0 -1:0:0 -1:0:0 -1:0:0 -1:0:0 -1:0:0"},
        {run(1).host, " 0Q:3:1 0Q:3:2 -1:3:1 1S:4:1 -1:3:1 -1:3:1 -1:3:1 -1:3:1"},
        {whole.host, " 0S:4:1 0Q:3:2 -1:4:1 0S:4:1 -1:4:1 -1:4:1 -1:4:1 -1:4:1"},
        {refused.host, " 0Q:3:2 0Q:3:2 -1:0:1 -4:0:1 -1:0:1 -1:0:1 -1:0:1 -1:0:1"}};
    for (const auto &[context, expected] : rows) {
        std::string got;
        for (const bytes &message : messages) {
            tarn_pair pair = context;
            const answer a = handle(pair, message);
            got += " " + std::to_string(a.result) +
                   (a.out.empty() ? "" : std::string(1, static_cast<char>(a.out[2])));
            got += ":" + std::to_string(pair.state) + ":" + std::to_string(pair.attempts);
            // What is no progress leaves everything as it was, and a repeat is answered with the same bytes.
            const bool moved = pair.state != context.state || pair.attempts != context.attempts;
            EXPECT_TRUE(moved || same_bytes(pair, context));
        }
        EXPECT_EQ(got, expected);
    }
    run again(2);
    EXPECT_TRUE(handle(again.client, whole.resp).out == whole.confirm &&
                handle(again.host, whole.init).out == whole.resp);
}

TEST(Pair, DamageOfAnyBitAndAnyCutGainsNothing) {
    const run whole(4);
    const struct {
        bytes message;
        tarn_pair context;
        size_t least, most, open_from; // sizes; where flips get past the checks of form
        int result, state;             // of what has the form but not the tag
        char answer;
    } rows[] = {
        {whole.init, run(0).host, 56, 56, 8, 0, TARN_PAIR_RESP_SENT, 'Q'}, // each is a run of its own
        {whole.resp, run(1).client, 105, 168, 24, TARN_ERR_AUTH, TARN_PAIR_FAILED, 0},
        {whole.confirm, run(1).host, 73, 136, 24, TARN_ERR_AUTH, TARN_PAIR_IDLE, 'T'},
        {whole.done, run(3).client, 41, 41, 24, TARN_ERR_AUTH, TARN_PAIR_CONFIRM_SENT, 0},
        {prefix(fail_message(1), 24), run(1).client, 25, 25, 24, 0, 0, 0}}; // form alone: its reason is open
    for (const auto &row : rows) {
        SCOPED_TRACE(row.message[2]);
        const auto expect = [&](const bytes &p, bool formed) {
            tarn_pair pair = row.context;
            const answer a = handle(pair, p);
            if (!formed) {
                ASSERT_TRUE(a.result == TARN_ERR_FORMAT && same_bytes(pair, row.context));
                return;
            }
            if (row.least == 25) return;
            ASSERT_TRUE(a.result == row.result && pair.state == row.state);
            ASSERT_EQ(a.out.empty() ? 0 : a.out[2], row.answer);
            ASSERT_TRUE(row.answer != 'T' || a.out == fail_message(TARN_PAIR_FAIL_SECRET));
            ASSERT_EQ(hex_of(pair.peer_key) + hex_of(pair.last_message), // nothing half believed
                      hex_of(row.context.peer_key) +
                          hex_of(row.answer == 'Q' ? pair.last_message : row.context.last_message));
            const int then =
                handle(pair, row.message).result; // a spoilt run is over, but a forged end ends nothing
            ASSERT_EQ(then, row.message[2] == 'P' ? 0 : row.message[2] == 'S' ? 1 : TARN_ERR_STATE);
            ASSERT_TRUE(row.message[2] != 'Q' ||
                        hex_of(pair.send_key) + hex_of(pair.recv_key) == std::string(128, '0'));
        };
        for (size_t bit = 0; bit < row.message.size() * 8; bit++) {
            bytes p = row.message;
            p[bit / 8] = static_cast<uint8_t>(p[bit / 8] ^ 1u << bit % 8);
            expect(p, bit / 8 >= row.open_from);
        }
        for (size_t size = 0; size <= 170; size++) {
            bytes p = prefix(row.message, std::min(size, row.message.size()));
            p.resize(size);
            if (size != row.message.size() || row.least == 25)
                expect(p, size >= row.least && size <= row.most);
        }
    }
}

TEST(Pair, NamesAndSecretsAreCutAndCardsMustFit) {
    const std::string a63(63, 'a'), a64(64, 'a'), a200(200, 'a');
    for (const char *name :
         {static_cast<const char *>(nullptr), "", "a", a63.c_str(), a64.c_str(), a200.c_str()}) {
        const run r(4, "042137", name, name);
        const size_t length = std::min(name ? strlen(name) : 0, size_t{63});
        EXPECT_TRUE(r.resp.size() == 105 + length && r.confirm.size() == 73 + length);
        EXPECT_EQ(std::string(r.client.peer_name) + r.host.peer_name, std::string(2 * length, 'a'));
    }
    const std::tuple<std::string, std::string, bool> secrets[] = {{"042137", "0421370", false},
                                                                  {"", "", true},
                                                                  {a64, a64 + "b", true},
                                                                  {a64, a63 + "b", false},
                                                                  {a64, a63, false}};
    for (const auto &[one, two, same] : secrets) {
        run r(1, one.c_str(), "c", "h", 3, two.c_str());
        const answer a = handle(r.client, r.resp); // a wrong secret shows here, and the host sees no confirm
        EXPECT_TRUE(a.result == (same ? 0 : TARN_ERR_AUTH) && a.out.empty() != same) << one << " " << two;
    }
    // Cards sealed by a peer that lies about the length of its name: room, and length as told.
    const std::pair<size_t, uint8_t> cards[] = {{0, 0},   {0, 1},   {5, 4},   {63, 63},
                                                {63, 62}, {63, 64}, {63, 191}};
    for (const auto &[room, length] : cards) {
        for (const bool to_client : {true, false}) {
            const run r(1);
            const size_t at = to_client ? 56 : 24;
            bytes card(33 + room, 'n'), p = prefix(r.resp, at);
            card[32] = length;
            p[2] = to_client ? TARN_PKT_PAIR_RESP : TARN_PKT_PAIR_CONFIRM;
            p.resize(at + card.size() + 16);
            tarn_aead_encrypt(to_client ? r.host.send_key : r.host.recv_key, 0, p.data(), at, card.data(),
                              card.size(), p.data() + at, p.data() + at + card.size());
            tarn_pair pair = to_client ? r.client : r.host;
            const int state = pair.state, good = room == length;
            const int result = good ? int{!to_client} : int{TARN_ERR_FORMAT};
            EXPECT_EQ(handle(pair, p).result, result) << room << " " << int{length};
            EXPECT_TRUE((hex_of(pair.peer_key) != cv::zero) == good && (pair.state != state) == good);
            EXPECT_EQ(hex_of(pair.scalar), cv::zero);
        }
    }
    run r(3); // an end that says something else than 0
    const uint8_t one = 1;
    tarn_aead_encrypt(r.host.send_key, 1, r.done.data(), 24, &one, 1, r.done.data() + 24, r.done.data() + 25);
    EXPECT_EQ(handle(r.client, r.done).result, TARN_ERR_AUTH);
}

TEST(Pair, AttemptsCountBeforeAnythingElse) {
    const std::pair<int, int> limits[] = {{-1, 10}, {0, 10}, {1, 1}, {254, 254}, {255, 10}};
    const int results[] = {0, TARN_ERR_DH,
                           TARN_ERR_RANDOM}; // by turns a good init, a low-order point, no random bytes
    for (const auto &[asked, limit] : limits) {
        run r(0, "042137", "c", "h", asked);
        for (int i = 0; i < limit; i++) {
            bytes init = r.init;
            init[8] = static_cast<uint8_t>(i), init[9] = 0xFF;
            if (i % 3 == 1) std::fill(init.begin() + 24, init.end(), uint8_t{0});
            seeded_random::fail_at(i % 3 == 2);
            const answer a = handle(r.host, init);
            EXPECT_TRUE(a.result == results[i % 3] && a.out.empty() == (i % 3 != 0));
            EXPECT_EQ(r.host.state, i % 3 == 0 ? TARN_PAIR_RESP_SENT : TARN_PAIR_IDLE);
            EXPECT_EQ(hex_of(r.host.scalar), cv::zero);
            EXPECT_TRUE(i % 3 != 0 || handle(r.host, init).out == a.out); // a repeat costs nothing
            EXPECT_EQ(r.host.attempts, i + 1);
        }
        const tarn_pair before = r.host;
        const answer a = handle(r.host, r.init); // the packet's own run is refused
        EXPECT_TRUE(a.result == TARN_ERR_LOCKED && a.out == fail_message(TARN_PAIR_FAIL_LOCKED));
        EXPECT_TRUE(same_bytes(r.host, before));
    }
    run r(1); // a low-order answer ends no run: the true host may still speak
    const tarn_pair before = r.client;
    std::fill(r.resp.begin() + 24, r.resp.begin() + 56, uint8_t{0});
    EXPECT_EQ(handle(r.client, r.resp).result, TARN_ERR_DH);
    EXPECT_TRUE(same_bytes(r.client, before));
}

TEST(Pair, SmallBuffersAndFailedDrawsLeaveNothing) {
    const run whole(4);
    const std::tuple<tarn_pair, bytes, size_t> rows[] = {
        {run(0).host, whole.init, whole.resp.size()},      {run(1).client, whole.resp, whole.confirm.size()},
        {run(1).host, whole.confirm, whole.done.size()},   {run(1).host, whole.init, whole.resp.size()},
        {run(2).client, whole.resp, whole.confirm.size()}, {run(3).host, whole.confirm, whole.done.size()}};
    for (const auto &[context, message, size] : rows) {
        tarn_pair pair = context;
        for (const size_t small : {size - 1, size_t{0}})
            EXPECT_TRUE(handle(pair, message, small).result == TARN_ERR_SPACE && same_bytes(pair, context));
        EXPECT_GE(handle(pair, message, size).result, 0);
    }
    const int expected[] = {TARN_ERR_SPACE, TARN_ERR_RANDOM, TARN_ERR_RANDOM, TARN_OK};
    for (int failing = 0; failing < 4; failing++) { // a small buffer, the first draw, the second, none
        tarn_pair pair = dirty<tarn_pair>();
        bytes out(failing == 0 ? 55 : 56);
        size_t size = 777;
        seeded_random::reset(1);
        seeded_random::fail_at(failing);
        EXPECT_EQ(tarn_pair_client_start(&pair, &client_key, "c", "042137", out.data(), out.size(), &size),
                  expected[failing]);
        EXPECT_TRUE(size == (failing == 3 ? 56u : 0u) && all_zero(pair) == (failing < 3));
    }
}

} // namespace
