// Relay links and relay lists from outside: whatever is taken must have one text form that reads back the same, and
// whatever is refused must leave no byte behind.
#include <tarnglider/conn_relay.h>

#include <stdlib.h>
#include <string.h>

#include <string>

static void check(bool holds) {
    if (!holds) abort();
}

static void link(const std::string &text) {
    tarn_relay_server s, back;
    char buf[700], again[700];
    if (tarn_relay_link_parse(&s, text.c_str()) != 0) return;
    check(text.size() >= 20 && strlen(s.host) >= 1 && s.port != 0 && s.key_len >= 1 && s.key_len <= 128);
    size_t n = tarn_relay_link_format(buf, sizeof buf, &s);
    check(n > 0 && tarn_relay_link_parse(&back, buf) == 0 && tarn_relay_server_same(&s, &back));
    check(strcmp(s.host, back.host) == 0 && memcmp(s.key, back.key, s.key_len) == 0);
    check(tarn_relay_link_format(again, sizeof again, &back) == n && strcmp(buf, again) == 0);
}

static void list(const uint8_t *data, size_t size) {
    static const tarn_relay_config empty = {};
    static char buf[22 + 8 * 680], again[sizeof buf];
    tarn_relay_config c, back;
    memset(&c, 0xA5, sizeof c);
    if (tarn_relay_config_load(&c, data, size) != 0) {
        check(memcmp(&c, &empty, sizeof c) == 0);
        return;
    }
    check(c.count >= 0 && c.count <= TARN_RELAY_MAX_SERVERS);
    for (int i = 0; i < c.count; i++) {
        for (int j = 0; j < i; j++)
            check(!tarn_relay_server_same(&c.servers[i], &c.servers[j]));
    }
    size_t n = tarn_relay_config_save(&c, buf, sizeof buf);
    check(n > 0 && tarn_relay_config_load(&back, reinterpret_cast<const uint8_t *>(buf), n) == 0);
    check(tarn_relay_config_save(&back, again, sizeof again) == n && memcmp(buf, again, n) == 0);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    link(std::string(data, data + size));
    list(data, size);
    return 0;
}
