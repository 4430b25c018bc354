// A client's engine on a socket.
#include "client/host_link.h"

#include <algorithm>
#include <array>
#include <stdexcept>

#include <tarnglider/clock.h>
#include <tarnglider/protocol.h>
#include <tarnglider/rendezvous.h>

#include "common/platform.h"
#include "common/server_text.h"
#include "common/stream_protocol.h"

namespace app {
namespace {

// A host that can be had usually is, by the second search.
constexpr int64_t search_us = 1000000;
constexpr int searches_max = 5;

const char *reject_text(int reason) {
    switch (reason) {
    case TARN_HS_REJECT_UNKNOWN:
        return "it doesn't know this client; pair with it (tarn-client pair), or on the host run: tarn-host "
               "allow KEY NAME, with the KEY that tarn-client key prints";
    case TARN_HS_REJECT_BUSY:
        return "it is busy with another client; try again later";
    default:
        return "for an unknown reason";
    }
}

} // namespace

host_link::host_link(const directory &store, const link_options &options, const host_target &target)
    : options_(options), target_(target), name_(options.name.empty() ? machine_name() : options.name),
      socket_(nullptr, 0), lan_(target.candidates.empty() ? default_port : target.candidates.front().port),
      start_us_(tarn_now_us()) {
    store.relays(relays_);
    for (int i = 0; i < options.relays.config.count; i++) {
        if (tarn_relay_config_add(&relays_.config, &options.relays.config.servers[i]) < 0)
            throw usage_error("there can be no more than 8 relay servers, those of the folder included");
    }
    if (options.cut) cut_.emplace(*options.cut);
    if (tarn_random_bytes(&who_nonce_, sizeof who_nonce_) != TARN_OK)
        throw std::runtime_error("the system gives no random numbers");
    identity self;
    store.load_identity(self);
    create_engine(self);
}

void host_link::create_engine(const identity &self) {
    tarn_client_config config{};
    config.identity = self.keys;
    config.name = name_.c_str();
    config.relays = relays_.config;
    config.lan_count = tarn_net_local_endpoints(config.lan, TARN_LAN_MAX, socket_.port());
    config.user = this;
    config.send = [](void *user, const tarn_addr *to, const uint8_t *data, size_t size) {
        static_cast<host_link *>(user)->transmit(*to, {data, size});
    };
    config.log = [](void *user, const char *line) { static_cast<host_link *>(user)->note(line); };
    if (target_.key) {
        config.host_key_known = 1;
        std::copy(target_.key->begin(), target_.key->end(), config.host_key);
    }
    config.host_code = target_.code.c_str();
    config.route_mode = options_.route;
    engine_.reset(tarn_client_create(&config));
    tarn_secure_wipe(&config, sizeof config);
    if (!engine_) throw std::runtime_error("not enough memory for the client engine");
    for (const tarn_addr &addr : target_.candidates)
        tarn_client_add_candidate(engine_.get(), &addr, TARN_PATH_NONE);
    resolver_.reset(tarn_resolver_start_client(engine_.get(), &relays_.config));
}

void host_link::note(const std::string &line) const {
    if (!options_.quiet) say("tarn-client: " + line);
}

void host_link::transmit(const tarn_addr &to, std::span<const uint8_t> data) const {
    if (!cut_ || !cut_->drops(to)) socket_.send(to, data);
}

void host_link::send(std::span<const uint8_t> plain) {
    std::array<uint8_t, 1500> sealed;
    tarn_addr to{};
    const size_t size =
        tarn_client_seal(engine_.get(), 0, plain.data(), plain.size(), sealed.data(), sealed.size(), &to);
    if (size > 0) transmit(to, {sealed.data(), size});
}

void host_link::run(const link_hooks &hooks) {
    catch_stop_signals();
    const auto pass = [&]() -> std::optional<int64_t> {
        const int64_t wait_us = tarn_client_tick(engine_.get());
        take_events(hooks);
        const int64_t now_us = tarn_now_us();
        tarn_client_status status{};
        tarn_client_status_get(engine_.get(), &status);
        for (int i = 0; i < status.path_count; i++) {
            if (status.paths[i].alive != 0) alive_us_ = now_us;
        }
        if (cut_ && up_us_) cut_->update(static_cast<double>(now_us - *up_us_) / 1e6, status);
        if (now_us >= next_search_us_) search(now_us, status.connected != 0);
        const std::optional<int64_t> due_us = hooks.pass(now_us, status);
        if (!due_us) return std::nullopt;
        return std::min(wait_us, *due_us);
    };
    run_loop(socket_,
             {[&](std::span<uint8_t> data, const tarn_addr &from) { receive(data, from, hooks); }, pass});
}

void host_link::receive(std::span<uint8_t> data, const tarn_addr &from, const link_hooks &hooks) {
    if (cut_ && cut_->drops(from)) return;
    hear_who(data, from);
    size_t length = 0;
    tarn_recv_info info{};
    const int result = tarn_client_receive(engine_.get(), data.data(), data.size(), &from, data.data(),
                                           data.size(), &length, &info);
    take_events(hooks);
    found_host found;
    if (result == TARN_RECV_DATA) {
        hooks.packet(data.first(length), data.size());
    } else if (result == TARN_RECV_PLAIN && lan_.answer(data, from, found) && target_.lan_id != 0 &&
               found.lan_id == target_.lan_id) {
        tarn_client_add_candidate(engine_.get(), &from, TARN_PATH_LAN);
    }
}

void host_link::take_events(const link_hooks &hooks) {
    conn_event event{};
    while (tarn_client_poll_event(engine_.get(), &event) != 0) {
        take_event(event);
        hooks.event(event);
    }
}

void host_link::take_event(const conn_event &event) {
    switch (event.kind) {
    case TARN_EV_HANDSHAKE_REJECTED:
        if (reject_ != event.detail) note(std::string("the host refuses: ") + reject_text(event.detail));
        reject_ = event.detail;
        break;
    case TARN_EV_LOOKUP_FAILED: {
        char name[300];
        tarn_relay_server_name(name, sizeof name, &relays_.config.servers[event.server]);
        lookup_error_ = std::string("server ") + name + ": " + server_error_text(event.detail);
        break;
    }
    case TARN_EV_SESSION_UP:
        if (!up_us_) up_us_ = alive_us_ = tarn_now_us();
        break;
    default:
        break;
    }
}

// ---- Searching

// While there is no session: where on the LAN is the host now, and who is it that is where it should be?
void host_link::search(int64_t now_us, bool connected) {
    next_search_us_ = now_us + search_us;
    if (connected || searches_ >= searches_max) return;
    if (target_.lan_id != 0 && options_.route != TARN_ROUTE_RELAY_ONLY) lan_.ask(socket_);
    if (target_.key && searches_ > 0) ask_who();
    searches_++;
}

void host_link::ask_who() {
    std::array<uint8_t, TARN_HOST_QUERY_SIZE> query{};
    const tarn_header header = {TARN_PKT_HOST_QUERY, 0, 0};
    tarn_encode_header(query.data(), query.size(), &header);
    for (size_t i = 0; i < sizeof who_nonce_; i++)
        query[TARN_HEADER_SIZE + i] = static_cast<uint8_t>(who_nonce_ >> (8 * i));
    for (const tarn_addr &addr : target_.candidates)
        transmit(addr, query);
}

// Only a hint: anybody on the way could say so. It's used in a message and nowhere else.
void host_link::hear_who(std::span<const uint8_t> data, const tarn_addr &from) {
    constexpr size_t nonce_at = 8;
    constexpr size_t key_at = 37;
    tarn_header header{};
    if (!target_.key || data.size() < TARN_HOST_INFO_SIZE ||
        tarn_decode_header(data.data(), data.size(), &header) != 0 || header.type != TARN_PKT_HOST_INFO)
        return;
    for (size_t i = 0; i < sizeof who_nonce_; i++) {
        if (data[nonce_at + i] != static_cast<uint8_t>(who_nonce_ >> (8 * i))) return;
    }
    const uint8_t *key = data.data() + key_at;
    if (std::equal(target_.key->begin(), target_.key->end(), key)) return;
    other_key_ =
        format("the host at %s has another key (code %s) than the one that is meant (%s)",
               addr_text(from).c_str(), key_code(key).c_str(), key_code(target_.key->data()).c_str());
}

// ---- Trouble

std::string host_link::trouble() const {
    if (reject_ != 0) return std::string("the host refuses: ") + reject_text(reject_);
    if (!other_key_.empty()) return other_key_;
    if (!lookup_error_.empty()) return "no answer; " + lookup_error_;
    std::string where;
    for (const tarn_addr &addr : target_.candidates)
        where += (where.empty() ? " from " : " and ") + addr_text(addr);
    return "no answer" + where + "; check that the host runs, its address and its key";
}

std::optional<std::string> host_link::failure(int64_t now_us, const tarn_client_status &status) const {
    const auto timeout_us = static_cast<int64_t>(options_.timeout_s * 1e6);
    if (!up_us_ && now_us - start_us_ > timeout_us)
        return format("no session with %s within %g s: ", target_.label.c_str(), options_.timeout_s) +
               trouble();
    if (up_us_ && now_us - alive_us_ > timeout_us)
        return format("the host at %s fell silent for %g s", addr_text(status.addr).c_str(),
                      options_.timeout_s);
    return std::nullopt;
}

} // namespace app
