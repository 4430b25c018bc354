// The host engine and its rendezvous servers: registration with proof of identity, introductions, punching towards
// clients that want to come in, relay bindings, and what happens when servers or LAN endpoints change. The engine's
// lock is held.
//
//   server_link  idle --challenge--> challenged --registered--> registered
//                registered --three registrations without an answer--> idle (lost)
//                registered --LAN endpoints changed--> challenged
//                any --error 2, address changed, no proof possible--> idle
//   punch_job    made by an introduction, refreshed by its repeat; ended by a refused binding, by age, by eviction, or
//                with its server
#include "conn_host_internal.h"

#include <string.h>

// ---- Registration

static void do_register(tarn_host *h, int server, uint64_t now) {
    server_link *link = &h->server_links[server];
    tarn_rv_msg m = {};
    m.type = TARN_RV_REGISTER;
    memcpy(m.key, h->base.identity.public_key, sizeof m.key);
    m.count = static_cast<uint8_t>(h->base.lan_count);
    for (int i = 0; i < h->base.lan_count; i++)
        m.endpoints[i] = h->base.lan[i];
    if (link->state != LINK_IDLE) {
        memcpy(m.token, link->cookie, sizeof m.token);
        if (tarn_rv_register_proof(m.proof, h->base.identity.secret, link->server_key, link->cookie, m.key,
                                   h->base.lan, h->base.lan_count) != TARN_OK) {
            link->state = LINK_IDLE;
            memset(m.token, 0, sizeof m.token);
            memset(m.proof, 0, sizeof m.proof);
        }
    }
    conn_send_server(&h->base, server, &m);
    link->sent_us = now;
    link->tries++;
    if (link->tries > 2 && link->state == LINK_REGISTERED) {
        char text[conn_server_text];
        conn_log(&h->base, "server %s stopped answering",
                 conn_server_str(&h->base, server, text, sizeof text));
        link->state = LINK_IDLE;
        conn_ev_push(&h->base, TARN_EV_SERVER_LOST)->server = server;
    }
    if (link->state == LINK_REGISTERED) {
        link->next_us = now + register_refresh_us;
        return;
    }
    const int doublings = link->tries < 4 ? link->tries - 1 : 3; // 1, 2, 4, then 8 seconds for good
    link->next_us = now + (conn_second_us << doublings);
}

static void on_challenge(tarn_host *h, int server, const tarn_rv_msg *m, uint64_t now) {
    server_link *link = &h->server_links[server];
    link->state = LINK_CHALLENGED;
    memcpy(link->server_key, m->key, sizeof link->server_key);
    memcpy(link->cookie, m->token, sizeof link->cookie);
    link->tries = 0;
    link->error = 0;
    do_register(h, server, now);
}

static void on_registered(tarn_host *h, int server, const tarn_rv_msg *m, uint64_t now) {
    server_link *link = &h->server_links[server];
    if (link->sent_us == 0) return; // nothing was asked
    const bool known = link->state == LINK_REGISTERED && tarn_rv_endpoint_equal(&link->public_addr, &m->seen);
    link->state = LINK_REGISTERED;
    link->tries = 0;
    link->error = 0;
    link->rtt_us = static_cast<uint32_t>(now - link->sent_us);
    link->public_addr = m->seen;
    link->next_us = now + (m->interval != 0 ? m->interval * conn_second_us : register_refresh_us);
    if (known) return;
    char name[conn_server_text];
    char addr[conn_addr_text];
    conn_log(&h->base, "registered with %s as %s (rtt %.1f ms)",
             conn_server_str(&h->base, server, name, sizeof name), conn_addr_str(&m->seen, addr, sizeof addr),
             link->rtt_us / 1000.0);
    conn_event *event = conn_ev_push(&h->base, TARN_EV_SERVER_REGISTERED);
    event->server = server;
    event->rtt_us = link->rtt_us;
    event->addr = m->seen;
}

static void on_error(tarn_host *h, int server, const tarn_rv_msg *m, uint64_t now) {
    constexpr uint8_t register_anew = 2;
    server_link *link = &h->server_links[server];
    char text[conn_server_text];
    conn_log(&h->base, "server %s: error %d", conn_server_str(&h->base, server, text, sizeof text),
             int{m->status});
    if (m->status == register_anew) link->state = LINK_IDLE;
    link->tries = 0;
    link->error = m->status == 0 ? -1 : m->status;
    link->next_us = now + register_error_us;
}

// ---- Punch jobs

static bool any_link(const tarn_host *h) {
    for (const host_link &link : h->links) {
        if (link.active) return true;
    }
    return false;
}

// A client that never came needs no binding.
static bool binds(const tarn_host *h, const punch_job *job, uint64_t now) {
    return job->current && (any_link(h) || now - job->created_us <= job_hopeful_us);
}

static void alloc_work(tarn_host *h, punch_job *job, uint64_t now) {
    if (now < job->punch_until_us && now >= job->next_punch_us) {
        tarn_rv_msg m = {};
        m.type = TARN_RV_PUNCH;
        memcpy(m.punch_token, job->punch_token, sizeof m.punch_token);
        m.tag = ++h->punch_counter;
        m.side = CONN_SIDE_HOST;
        for (int i = 0; i < job->candidate_count; i++)
            conn_send_rv(&h->base, &job->candidates[i], &m, nullptr);
        job->next_punch_us = now + conn_punch_us;
    }
    if (!binds(h, job, now) || now < job->next_bind_us) return;
    conn_send_bind(&h->base, job->server, job->allocation, job->relay_token, CONN_SIDE_HOST);
    job->next_bind_us = now + (job->bound ? conn_bind_keep_us : conn_bind_retry_us);
}

static void on_bind_reply(tarn_host *h, int server, const tarn_rv_msg *m, uint64_t now) {
    for (punch_job &job : h->punch_jobs) {
        if (!job.active || job.server != server || job.allocation != m->allocation) continue;
        if (m->status != 0) {
            job = punch_job{};
            continue;
        }
        if (!job.bound) conn_log(&h->base, "relay allocation %08x bound", job.allocation);
        job.bound = 1;
        job.next_bind_us = now + conn_bind_keep_us;
    }
}

// The job of an introduction: the running one, else the first free place, else the place of the oldest.
static punch_job *take_job(tarn_host *h, int server, const tarn_rv_msg *m, uint64_t now) {
    punch_job *place = nullptr;
    for (punch_job &job : h->punch_jobs) {
        if (job.active && job.server == server && job.allocation == m->allocation) return &job;
    }
    for (punch_job &job : h->punch_jobs) {
        if (!job.active) {
            place = &job;
            break;
        }
        if (!place || job.created_us < place->created_us) place = &job;
    }
    *place = punch_job{};
    place->active = 1;
    place->server = server;
    place->allocation = m->allocation;
    place->created_us = now;
    place->next_bind_us = now;
    char peer[conn_addr_text];
    char name[conn_server_text];
    conn_log(&h->base, "client %s via %s: punching %d candidates, relay allocation %08x",
             conn_addr_str(&m->peer, peer, sizeof peer), conn_server_str(&h->base, server, name, sizeof name),
             m->count + 1, m->allocation);
    return place;
}

static void on_introduce(tarn_host *h, int server, const tarn_rv_msg *m, uint64_t now) {
    punch_job *job = take_job(h, server, m, now);
    for (punch_job &other : h->punch_jobs) {
        if (other.server == server) other.current = 0;
    }
    job->current = 1; // only the newest client's binding is kept alive
    memcpy(job->relay_token, m->token, sizeof job->relay_token);
    memcpy(job->punch_token, m->punch_token, sizeof job->punch_token);
    job->candidate_count = conn_candidates(job->candidates, m);
    job->next_punch_us = now;
    job->punch_until_us = now + conn_punch_for_us;
    alloc_work(h, job, now);
}

// ---- Messages

static punch_job *job_of_token(tarn_host *h, const uint8_t token[16]) {
    for (punch_job &job : h->punch_jobs) {
        if (job.active && memcmp(job.punch_token, token, 16) == 0) return &job;
    }
    return nullptr;
}

// A punch of a running job is answered; the session itself starts when the handshake comes through the hole.
static void on_punch(tarn_host *h, const conn_packet &p) {
    tarn_rv_msg m;
    if (tarn_rv_decode(p.data, p.len, nullptr, &m) != 0 || !job_of_token(h, m.punch_token)) return;
    if (m.type != TARN_RV_PUNCH) return;
    m.type = TARN_RV_PUNCH_ACK;
    m.side = CONN_SIDE_HOST;
    conn_send_rv(&h->base, p.from, &m, nullptr);
}

void host_rendezvous(tarn_host *h, const conn_packet &p) {
    if (p.data[2] == TARN_RV_PUNCH || p.data[2] == TARN_RV_PUNCH_ACK) {
        on_punch(h, p);
        return;
    }
    const int server = conn_server_index(&h->base, p.from);
    tarn_rv_msg m;
    if (server < 0 || tarn_rv_decode(p.data, p.len, h->base.servers[server].net_key, &m) != 0) return;
    switch (m.type) {
    case TARN_RV_CHALLENGE:
        on_challenge(h, server, &m, p.now);
        break;
    case TARN_RV_REGISTERED:
        on_registered(h, server, &m, p.now);
        break;
    case TARN_RV_ERROR:
        on_error(h, server, &m, p.now);
        break;
    case TARN_RV_BIND_REPLY:
        on_bind_reply(h, server, &m, p.now);
        break;
    case TARN_RV_INTRODUCE:
        on_introduce(h, server, &m, p.now);
        break;
    default:
        break;
    }
}

bool is_punch_candidate(const tarn_host *h, const tarn_addr *addr) {
    for (const punch_job &job : h->punch_jobs) {
        for (int i = 0; job.active && i < job.candidate_count; i++) {
            if (tarn_rv_endpoint_equal(&job.candidates[i], addr)) return true;
        }
    }
    return false;
}

// ---- Time

void rendezvous_tick(tarn_host *h, uint64_t now, conn_wake *wake) {
    for (int i = 0; i < h->base.server_count; i++) {
        if (h->base.servers[i].addr.family == 0) continue;
        if (now >= h->server_links[i].next_us) do_register(h, i, now);
        wake->follow(h->server_links[i].next_us);
    }
    const bool linked = any_link(h);
    for (punch_job &job : h->punch_jobs) {
        if (!job.active) continue;
        if ((!job.current || !linked) && now - job.created_us > job_longest_us) {
            job = punch_job{};
            continue;
        }
        alloc_work(h, &job, now);
        if (job.next_punch_us < job.punch_until_us) wake->follow(job.next_punch_us);
        if (binds(h, &job, now)) wake->follow(job.next_bind_us);
    }
}

// ---- Changes from outside

static void drop_jobs_of(tarn_host *h, int server) {
    for (punch_job &job : h->punch_jobs) {
        if (job.active && job.server == server) job = punch_job{};
    }
}

static void reset_link(server_link *link, uint64_t now) {
    *link = server_link{};
    link->next_us = now;
}

void register_all_anew(tarn_host *h, uint64_t now) {
    for (server_link &link : h->server_links)
        reset_link(&link, now);
}

void tarn_host_server_resolved(tarn_host *h, const char *name, uint16_t port, const tarn_addr *addr) {
    const conn_guard held(&h->base.lock);
    const uint32_t changed = conn_server_resolved(&h->base, name, port, addr);
    for (int i = 0; i < h->base.server_count; i++) {
        if (!(changed >> i & 1)) continue;
        reset_link(&h->server_links[i], conn_now());
        drop_jobs_of(h, i);
    }
}

void tarn_host_set_lan_endpoints(tarn_host *h, const tarn_addr *lan, int count) {
    const conn_guard held(&h->base.lock);
    conn_set_lan(&h->base, lan, count);
    for (server_link &link : h->server_links) {
        link.next_us = conn_now();
        if (link.state == LINK_REGISTERED)
            link.state = LINK_CHALLENGED; // so that the new list goes out with a proof
    }
}

// A server table on its way in: it holds keys, so it wipes itself.
struct new_servers {
    conn_server table[conn_servers_max];
    int count;
    server_link links[conn_servers_max];
    int old_number[conn_servers_max]; // of the same server in the old table, or -1
    bool kept[conn_servers_max];      // its registration and jobs stay
    ~new_servers() { tarn_secure_wipe(this, sizeof *this); }
};

static bool same_server(const conn_server *a, const conn_server *b) {
    return a->port == b->port && conn_strieq(a->host, b->host) && memcmp(a->net_key, b->net_key, 32) == 0;
}

// Finds for each new server the old one that it is, and takes over what still holds.
static void map_servers(tarn_host *h, new_servers *fresh, uint64_t now) {
    bool taken[conn_servers_max] = {};
    for (int i = 0; i < conn_servers_max; i++) {
        reset_link(&fresh->links[i], now);
        fresh->old_number[i] = -1;
        fresh->kept[i] = false;
    }
    for (int i = 0; i < fresh->count; i++) {
        conn_server *to = &fresh->table[i];
        int from = 0;
        while (from < h->base.server_count && (taken[from] || !same_server(&h->base.servers[from], to)))
            from++;
        if (from == h->base.server_count) continue;
        taken[from] = true;
        fresh->old_number[i] = from;
        const conn_server *old = &h->base.servers[from];
        if (to->addr.family == 0) to->addr = old->addr;
        to->resolve_failed = old->resolve_failed;
        fresh->kept[i] = tarn_rv_endpoint_equal(&to->addr, &old->addr);
        if (fresh->kept[i]) fresh->links[i] = h->server_links[from];
    }
}

static void renumber_job(punch_job *job, const new_servers *fresh) {
    for (int i = 0; i < fresh->count; i++) {
        if (!fresh->kept[i] || fresh->old_number[i] != job->server) continue;
        job->server = i;
        return;
    }
    *job = punch_job{};
}

void tarn_host_set_relay(tarn_host *h, const tarn_relay_config *relays) {
    new_servers fresh;
    fresh.count = conn_servers_load(fresh.table, relays);
    const conn_guard held(&h->base.lock);
    map_servers(h, &fresh, conn_now());
    for (punch_job &job : h->punch_jobs) {
        if (job.active) renumber_job(&job, &fresh);
    }
    tarn_secure_wipe(h->base.servers, sizeof h->base.servers);
    memcpy(h->base.servers, fresh.table, sizeof fresh.table);
    memcpy(h->server_links, fresh.links, sizeof fresh.links);
    h->base.server_count = fresh.count;
    conn_log(&h->base, "relay servers: %d", fresh.count);
}

int tarn_host_server_status(tarn_host *h, int server, tarn_server_status *out) {
    *out = tarn_server_status{};
    const conn_guard held(&h->base.lock);
    if (server < 0 || server >= h->base.server_count) return -1;
    const conn_server *s = &h->base.servers[server];
    const server_link *link = &h->server_links[server];
    out->addr = s->addr;
    out->registered = link->state == LINK_REGISTERED;
    out->public_addr = link->public_addr;
    out->rtt_us = link->rtt_us;
    out->error = link->error > 0 ? link->error : 0;
    out->port = s->port;
    memcpy(out->host, s->host, sizeof out->host);
    if (s->addr.family == 0) {
        out->status = s->resolve_failed ? TARN_SERVER_UNRESOLVED : TARN_SERVER_NO_ADDRESS;
    } else if (link->state == LINK_REGISTERED) {
        out->status = TARN_SERVER_REGISTERED;
    } else if (link->error != 0) {
        out->status = TARN_SERVER_ERROR;
    } else {
        out->status = link->tries >= 3 ? TARN_SERVER_SILENT : TARN_SERVER_REGISTERING;
    }
    return 0;
}
