// tarn-server: a rendezvous and relay server on one UDP port. One thread: datagrams go into a rendezvous_server, what
// it sends goes out, and once a minute it says what it did.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include <tarnglider/clock.h>
#include <tarnglider/conn_relay.h>

#include "common/directory.h"
#include "common/platform.h"
#include "common/program.h"
#include "common/text.h"
#include "common/udp_loop.h"
#include "server/rendezvous_server.h"

namespace {

constexpr const char *manual = R"(
A server needs a key of your choice, which all its hosts and clients share, and an open UDP port:
  tarn-server --key @server.key                        runs it
  tarn-server --key @server.key --link relay.my.net    prints the relay link to hand out, and ends

Whoever holds the link may use the server; nobody else gets an answer. The server sees who talks to whom, and
relays what it can't read. It keeps nothing on disk but, with --dir, its key pair.

Once a minute it says on standard error what it did; --json says it on standard output, one object a line.
Exit codes: 0 stopped by a signal, 1 failed, 2 wrong command line.)";

constexpr int64_t second_us = 1000000;
constexpr int64_t report_us = 60 * second_us;

struct options {
    std::string key;
    std::string address;
    std::string link;
    std::string folder;
    uint16_t port = TARN_RELAY_DEFAULT_PORT;
    uint64_t mbit_source = 200;
    uint64_t mbit_total = 1000;
    bool json = false;
    bool quiet = false;
    app::server_config server;
};

void wipe(std::string &text) { tarn_secure_wipe(text.data(), text.size()); }

// The key's bytes: the text itself, or the content of a file without the line end behind it.
void read_key(options &o) {
    std::string text = o.key;
    if (!o.key.empty() && o.key[0] == '@') {
        std::ifstream in(app::path_from_utf8(o.key.substr(1)), std::ios::binary);
        text.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
        if (!in) throw std::runtime_error("can't read the key from " + o.key.substr(1));
        while (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
            text.pop_back();
    }
    o.server.link_key.assign(text.begin(), text.end());
    wipe(text);
    wipe(o.key);
    if (o.server.link_key.empty() || o.server.link_key.size() > TARN_RELAY_KEY_MAX)
        throw app::usage_error("--key takes 1 to 128 bytes, as text or as @FILE");
}

void print_link(const options &o) {
    tarn_relay_server server{};
    char text[TARN_RELAY_LINK_MAX + 1];
    if (o.port == 0) throw app::usage_error("--link needs the --port that the server will have");
    if (tarn_relay_server_set(&server, o.link.c_str(), o.port, o.server.link_key.data(),
                              o.server.link_key.size()) != 0)
        throw app::usage_error("--link \"" + o.link + "\" is not a host name or address");
    tarn_relay_link_format(text, sizeof text, &server);
    std::printf("%s\n", text);
    tarn_secure_wipe(&server, sizeof server);
    tarn_secure_wipe(text, sizeof text);
}

class server_program {
public:
    explicit server_program(const options &o);
    int run();

private:
    std::optional<int64_t> pass();
    void report();
    void note(const std::string &line) const {
        if (!options_.quiet) app::say("tarn-server: " + line);
    }

    const options &options_;
    app::udp_socket socket_;
    app::rendezvous_server server_;
    app::server_counters reported_;
    int64_t next_report_us_ = tarn_now_us() + report_us;
};

std::optional<tarn_addr> parse_address(const options &o) {
    if (o.address.empty()) return std::nullopt;
    tarn_addr address{};
    if (tarn_addr_parse(&address, o.address.c_str(), o.port) != 0)
        throw app::usage_error("--bind \"" + o.address + "\" is not an IPv4 or IPv6 address");
    return address;
}

app::udp_socket open_socket(const options &o) {
    const std::optional<tarn_addr> address = parse_address(o);
    return app::udp_socket(address ? &*address : nullptr, o.port);
}

server_program::server_program(const options &o)
    : options_(o), socket_(open_socket(o)),
      server_(o.server, [this](const tarn_addr &to, const uint8_t *data, size_t len) {
          socket_.send(to, {data, len});
      }) {
    const unsigned port = socket_.port();
    if (o.json) {
        std::printf("%s\n", nlohmann::ordered_json{{"event", "listening"}, {"port", port}}.dump().c_str());
    } else {
        std::printf("listening port=%u\n", port);
    }
    std::fflush(stdout);
}

int server_program::run() {
    app::run_loop(socket_, {[this](std::span<uint8_t> data, const tarn_addr &from) {
                                server_.receive(from, data.data(), data.size(),
                                                static_cast<uint64_t>(tarn_now_us()));
                            },
                            [this] { return pass(); }});
    report();
    note("stopped");
    return 0;
}

std::optional<int64_t> server_program::pass() {
    if (app::stop_requested()) return std::nullopt;
    const int64_t now_us = tarn_now_us();
    server_.tick(static_cast<uint64_t>(now_us));
    if (now_us >= next_report_us_) {
        report();
        next_report_us_ = now_us + report_us;
    }
    return second_us;
}

void server_program::report() {
    if (options_.json) {
        nlohmann::ordered_json line{
            {"event", "report"}, {"hosts", server_.hosts()}, {"allocations", server_.allocations()}};
        for (const app::server_counter_name &counter : app::server_counter_names)
            line[counter.name] = server_.counters().*counter.value;
        std::printf("%s\n", line.dump().c_str());
        std::fflush(stdout);
    } else {
        note(app::report_line(server_, reported_));
    }
    reported_ = server_.counters();
}

void add_limits(CLI::App &program, options &o) {
    const char *group = "Limits (a source is an IPv4 address or an IPv6 /56; a rate of 0 is without limit)";
    app::server_limits &limits = o.server.limits;
    const auto table = [&](const char *name, uint32_t &value, const char *what, uint32_t most) {
        program.add_option(name, value, what)
            ->check(CLI::Range(1U, most))
            ->capture_default_str()
            ->group(group);
    };
    table("--max-hosts", limits.hosts, "Registered hosts", 10000000);
    table("--max-hosts-per-source", limits.hosts_per_source, "Of these from one source", 10000000);
    table("--max-allocations", limits.allocations, "Relay allocations", 1U << 20);
    table("--max-allocations-per-source", limits.allocations_per_source, "Of these for one source's clients",
          1U << 20);
    const auto pace = [&](const char *name, uint64_t &value, const char *what) {
        program.add_option(name, value, what)
            ->check(CLI::Range(0, 1000000))
            ->capture_default_str()
            ->group(group);
    };
    pace("--lookups", limits.budgets[app::budget_lookup].source.per_second,
         "Lookups a second from one source");
    pace("--lookups-total", limits.budgets[app::budget_lookup].total.per_second, "Lookups a second in all");
    pace("--binds", limits.budgets[app::budget_bind].source.per_second, "Binds a second from one source");
    pace("--binds-total", limits.budgets[app::budget_bind].total.per_second, "Binds a second in all");
    pace("--mbit", o.mbit_source, "Forwarded Mbit/s from one source");
    pace("--mbit-total", o.mbit_total, "Forwarded Mbit/s in all");
}

// The rates that follow from others. A source may register and refresh all the hosts that it may have in half an
// interval, so that they find back quickly after a restart; bursts are four seconds of one source, one second of all, and
// a quarter second of traffic.
void settle_rates(options &o) {
    app::server_limits &limits = o.server.limits;
    const auto all_of = [&](uint32_t hosts) {
        return std::max<uint64_t>(50, 2 * uint64_t{hosts} / o.server.interval_s);
    };
    for (const app::budget_kind kind : {app::budget_challenge, app::budget_proof, app::budget_refresh}) {
        limits.budgets[kind].source.per_second = all_of(limits.hosts_per_source);
        // What a new registration costs is bounded by the processor, not by the number of hosts.
        if (kind != app::budget_proof) limits.budgets[kind].total.per_second = all_of(limits.hosts);
    }
    for (const app::budget_kind kind : {app::budget_challenge, app::budget_proof, app::budget_refresh,
                                        app::budget_lookup, app::budget_bind}) {
        app::budget &b = limits.budgets[kind];
        b.source.burst = 4 * b.source.per_second;
        b.total.burst = b.total.per_second;
    }
    const auto bytes = [](uint64_t mbit) { return app::rate{mbit * 125000, mbit * 125000 / 4}; };
    limits.budgets[app::budget_bytes] = {bytes(o.mbit_source), bytes(o.mbit_total)};
}

void load_identity(options &o) {
    app::identity self;
    if (!o.folder.empty()) {
        app::directory(app::path_from_utf8(o.folder)).load_identity(self);
    } else if (tarn_keypair_generate(&self.keys) != TARN_OK) {
        throw std::runtime_error("the system gives no random numbers");
    }
    o.server.identity = self.keys;
}

} // namespace

int main(int argc, char **argv) {
    CLI::App program("TarnGlider server: introduces hosts and clients to each other, and relays between them",
                     "tarn-server");
    program.footer(manual);
    options o;
    program
        .add_option("--key", o.key,
                    "The key of the relay link: TEXT, or @FILE, which no list of processes shows")
        ->required()
        ->type_name("TEXT|@FILE")
        ->envname("TARN_SERVER_KEY");
    program.add_option("--port", o.port, "UDP port; 0 takes any free one")->capture_default_str();
    program.add_option("--bind", o.address, "Listen on this address alone")->type_name("ADDRESS");
    program.add_option("--interval", o.server.interval_s, "Seconds between two registrations of a host")
        ->check(CLI::Range(1, 3600))
        ->capture_default_str();
    program
        .add_option("--dir", o.folder,
                    "Keep the server's key pair in this folder; without it each start makes one")
        ->type_name("FOLDER");
    program
        .add_option("--link", o.link, "Print the relay link of this server under its public name, and end")
        ->type_name("HOST");
    program.add_flag("--json", o.json,
                     "One JSON object on standard output when listening, each minute and at the end");
    program.add_flag("-q,--quiet", o.quiet, "Nothing on standard error but errors");
    add_limits(program, o);

    const int code = app::run_program(program, argc, argv, [&] {
        read_key(o);
        if (!o.link.empty()) {
            print_link(o);
            return 0;
        }
        settle_rates(o);
        load_identity(o);
        app::catch_stop_signals();
        return server_program(o).run();
    });
    tarn_secure_wipe(&o.server.identity, sizeof o.server.identity);
    tarn_secure_wipe(o.server.link_key.data(), o.server.link_key.size());
    return code;
}
