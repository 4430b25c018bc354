// The background resolver: a thread that keeps the addresses of relay servers fresh and reports them to an engine.
// The thread owns the record and frees it as its last act; its lock guards every field and is held but for a look-up,
// during a report too. So no report can follow a stop, and a stop never waits for a look-up. Lock order: the
// resolver's, then the engine's.
#include <tarnglider/netsock.h>

#include <stdlib.h>
#include <string.h>

#include <tarnglider/clock.h>
#include <tarnglider/conn_client.h>
#include <tarnglider/conn_host.h>

#include "netsock_internal.h"
#include "threads_internal.h"

static constexpr uint64_t good_for_us = 120 * 1000000; // home connections change address without notice
static constexpr uint64_t retry_us = 10 * 1000000;

namespace {
struct resolver_name {
    char host[TARN_RELAY_HOST_SIZE];
    uint16_t port;
    uint64_t next_at; // by tarn_now_us
};
} // namespace

struct tarn_resolver {
    conn_lock lock;
    conn_cond wake; // for a stop
    int stop;
    tarn_host *host; // engines to tell, or null
    tarn_client *client;
    int32_t count; // 1 to 8
    resolver_name names[TARN_RELAY_MAX_SERVERS];
};

static uint64_t now_us() { return static_cast<uint64_t>(tarn_now_us()); }

// True for a server whose name has to be looked up and isn't in the record yet. Names that differ in case alone are
// two names here: each is asked for as it was written.
static bool is_new_name(const tarn_resolver *r, const tarn_relay_server *s) {
    tarn_addr literal;
    if (s->host[0] == '\0' || tarn_addr_parse(&literal, s->host, s->port) == 0) return false;
    for (int i = 0; i < r->count; i++) {
        if (r->names[i].port == s->port && strcmp(r->names[i].host, s->host) == 0) return false;
    }
    return true;
}

// The lowest entry that is due, or -1 with the time until the next one is.
static int due_name(const tarn_resolver *r, uint64_t *wait_us) {
    const uint64_t now = now_us();
    uint64_t next = UINT64_MAX;
    for (int i = 0; i < r->count; i++) {
        if (r->names[i].next_at <= now) return i;
        if (r->names[i].next_at < next) next = r->names[i].next_at;
    }
    *wait_us = next - now;
    return -1;
}

static void report(tarn_resolver *r, const resolver_name &name, const tarn_addr *addr) {
    if (r->host) tarn_host_server_resolved(r->host, name.host, name.port, addr);
    if (r->client) tarn_client_server_resolved(r->client, name.host, name.port, addr);
}

// Looks one name up with the lock released, and reports unless the resolver was stopped meanwhile.
static void look_up(tarn_resolver *r, int index) {
    const resolver_name name = r->names[index];
    tarn_addr addr;
    conn_lock_release(&r->lock);
    const bool found = resolve_name(name.host, &addr) == 0;
    conn_lock_acquire(&r->lock);
    if (r->stop) return;
    addr.port = name.port;
    report(r, name, found ? &addr : nullptr);
    r->names[index].next_at = now_us() + (found ? good_for_us : retry_us);
}

static void rs_run(void *arg) {
    auto *r = static_cast<tarn_resolver *>(arg);
    conn_lock_acquire(&r->lock);
    while (!r->stop) {
        uint64_t wait_us = 0;
        const int due = due_name(r, &wait_us);
        if (due >= 0) {
            look_up(r, due);
        } else {
            conn_cond_wait(&r->wake, &r->lock, static_cast<uint32_t>(wait_us / 1000 + 1));
        }
    }
    conn_lock_release(&r->lock);
    free(r);
}

static tarn_resolver *rs_start(tarn_host *host, tarn_client *client, const tarn_relay_config *c) {
    if (!c || (!host && !client)) return nullptr;
    auto *r = static_cast<tarn_resolver *>(calloc(1, sizeof(tarn_resolver)));
    if (!r) return nullptr;
    r->host = host;
    r->client = client;
    const uint64_t now = now_us();
    for (int i = 0; i < c->count && i < TARN_RELAY_MAX_SERVERS; i++) {
        const tarn_relay_server *s = &c->servers[i];
        if (!is_new_name(r, s)) continue;
        resolver_name *name = &r->names[r->count++];
        memcpy(name->host, s->host, sizeof name->host);
        name->port = s->port;
        name->next_at = now;
    }
    conn_lock_init(&r->lock);
    conn_cond_init(&r->wake);
    if (r->count > 0 && conn_thread_start(nullptr, rs_run, r)) return r;
    free(r);
    return nullptr;
}

tarn_resolver *tarn_resolver_start_host(tarn_host *h, const tarn_relay_config *c) {
    return rs_start(h, nullptr, c);
}

tarn_resolver *tarn_resolver_start_client(tarn_client *client, const tarn_relay_config *c) {
    return rs_start(nullptr, client, c);
}

void tarn_resolver_stop(tarn_resolver *r) {
    if (!r) return;
    const conn_guard held(&r->lock);
    r->stop = 1;
    conn_cond_wake(&r->wake);
}
