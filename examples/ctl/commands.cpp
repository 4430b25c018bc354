// The commands of tarnctl that ask the service.
#include "ctl/commands.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include <ipc_transport.h>
#include <tarnglider/netsock.h>

#include "common/directory.h"
#include "common/program.h"
#include "common/text.h"
#include "ctl/ctl_text.h"
#include "ctl/machine_files.h"

namespace app {
namespace {

using host_service::Request;
using host_service::Response;
using host_service::Status;
using host_service::Verb;

// A guess at a password over the network is bounded; a short one still falls in the end.
constexpr size_t password_advice = 10;

// Sends the request, wipes its payload, and tells the answer.
int exchange(Request &request, bool json) {
    const Response response = host_service::valid_request(request)
                                  ? host_service::transact(host_service::admin_pipe_name, request, nullptr)
                                  : Response{Status::failed, "that is no valid request; nothing was sent"};
    tarn_secure_wipe(request.payload.data(), request.payload.size());
    const std::string text = answer_text(request.verb, response);
    if (json) {
        print_json({{"status", static_cast<uint32_t>(response.status)}, {"text", response.text}});
    } else if (response.status == Status::ok) {
        std::printf("%s\n", text.c_str());
    } else {
        say("tarnctl: " + text);
    }
    return response.status == Status::ok ? 0 : 1;
}

// A list of relay servers out of a file or standard input, as text, found good.
void read_relays(const std::string &file, secret_text &out) {
    constexpr size_t room = host_service::max_payload + 1; // one byte too many is seen
    out.text.reserve(room);
    out.text.resize(room);
    std::ifstream opened;
    if (file != "-") {
        opened.open(path_from_utf8(file), std::ios::binary);
        if (!opened) throw std::runtime_error("can't read " + file);
    }
    std::istream &in = file == "-" ? std::cin : opened;
    in.read(out.text.data(), room);
    if (in.bad()) throw std::runtime_error("can't read " + file);
    out.text.resize(static_cast<size_t>(in.gcount()));
    const std::string fault = relays_fault(out.text);
    if (!fault.empty()) throw std::runtime_error(fault + "; nothing was sent");
}

const char *check_result(int result) {
    switch (result) {
    case TARN_RELAY_CHECK_OK:
        return "answers";
    case TARN_RELAY_CHECK_NO_ANSWER:
        return "no answer: it doesn't run, can't be reached over UDP, or has another key";
    case TARN_RELAY_CHECK_UNRESOLVED:
        return "its name can't be resolved";
    default:
        return "it couldn't be asked";
    }
}

} // namespace

int ask(Verb verb, bool json) {
    Request request{verb, {}};
    return exchange(request, json);
}

int open_pairing(uint32_t seconds, bool json) {
    Request request{Verb::pairing_open, {}};
    for (int shift = 0; shift < 32; shift += 8)
        request.payload.push_back(static_cast<uint8_t>(seconds >> shift));
    return exchange(request, json);
}

int set_password(bool json) {
    secret_text password;
    read_secret({std::nullopt, "TARN_PASSWORD", "new pairing password", true}, password);
    if (password.text.size() < password_advice)
        say("tarnctl: a short password; a guesser may try some ten in ten minutes for as long as it stands");
    Request request{Verb::set_password, {password.text.begin(), password.text.end()}};
    if (!host_service::valid_request(request)) {
        tarn_secure_wipe(request.payload.data(), request.payload.size());
        throw std::runtime_error("the password is not UTF-8 text; nothing was sent");
    }
    return exchange(request, json);
}

int remove_client(const std::string &which, bool json) {
    tarn_client_list clients{};
    const bool known = read_clients(clients) != stored::unreadable;
    const public_key key = find_client(which, known ? &clients : nullptr);
    Request request{Verb::remove_client, {key.begin(), key.end()}};
    return exchange(request, json);
}

int set_settings(const std::vector<std::string> &assignments, bool json) {
    host_service::Settings settings;
    const stored current = read_settings(settings);
    if (!assign_settings(settings, assignments) && current == stored::unreadable)
        throw std::runtime_error(
            "the current settings can't be read here, so those that aren't named would be lost; "
            "name all eight, and see tarnctl store check");
    Request request{Verb::set_settings, host_service::encode_settings(settings)};
    return exchange(request, json);
}

int set_relays(const std::string &file, bool json) {
    secret_text text;
    read_relays(file, text);
    Request request{Verb::set_relays, {text.text.begin(), text.text.end()}};
    return exchange(request, json);
}

int try_relays(const std::string &file, bool json) {
    secret_text text;
    read_relays(file, text);
    relay_list list;
    tarn_relay_config_load(&list.config, reinterpret_cast<const uint8_t *>(text.text.data()),
                           text.text.size());
    bool all = true;
    for (int i = 0; i < list.config.count; i++) {
        char name[300];
        tarn_relay_server_name(name, sizeof name, &list.config.servers[i]);
        uint32_t rtt_us = 0;
        const int result = tarn_relay_check(&list.config.servers[i], 0, &rtt_us);
        all = all && result == TARN_RELAY_CHECK_OK;
        if (json) {
            print_json({{"server", name}, {"answers", result == TARN_RELAY_CHECK_OK}, {"rtt_us", rtt_us}});
        } else {
            std::printf("%s: %s", name, check_result(result));
            if (result == TARN_RELAY_CHECK_OK) std::printf(", %.1f ms", rtt_us / 1000.0);
            std::printf("\n");
            std::fflush(stdout);
        }
    }
    if (list.config.count == 0) say("tarnctl: the list names no server");
    return all ? 0 : 1;
}

} // namespace app
