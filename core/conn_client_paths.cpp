// The client engine's paths: which are known, which answer, and which one carries the traffic. Class comes first,
// round-trip time second; the rules of choose_path keep a session from flapping. The engine's lock is held.
#include "conn_client_internal.h"

// ---- The table

int path_find(const tarn_client *c, const tarn_addr *addr) {
    for (int i = 0; i < TARN_PATHS_MAX; i++) {
        if (c->paths[i].active && tarn_rv_endpoint_equal(&c->paths[i].addr, addr)) return i;
    }
    return -1;
}

// Index of the path with this address, made if it is new; -1 when the table is full. A known path takes the class
// only if it is better.
int path_add(tarn_client *c, const tarn_addr *addr, int path, int server) {
    const int known = path_find(c, addr);
    if (known >= 0) {
        if (path < c->paths[known].path) c->paths[known].path = path;
        return known;
    }
    for (int i = 0; i < TARN_PATHS_MAX; i++) {
        client_path *p = &c->paths[i];
        if (p->active) continue;
        *p = client_path{};
        p->active = 1;
        p->path = path;
        p->server = server;
        p->addr = *addr;
        char text[conn_addr_text];
        conn_log(&c->base, "path %s %s", tarn_path_name(path), conn_addr_str(addr, text, sizeof text));
        return i;
    }
    return -1;
}

bool path_usable(const tarn_client *c, int index) {
    if (index < 0 || !c->paths[index].active) return false;
    const bool relay = c->paths[index].path == TARN_PATH_RELAY;
    switch (c->route_mode) {
    case TARN_ROUTE_ANY:
        return true;
    case TARN_ROUTE_RELAY_ONLY:
        return relay;
    default:
        return !relay;
    }
}

bool path_alive(const tarn_client *c, int index, uint64_t now) {
    return path_usable(c, index) && c->paths[index].alive &&
           now - c->paths[index].last_ack_us < path_alive_us;
}

// Takes an acknowledgement that came over a path. A run of them is broken by a gap.
void mark_ack(tarn_client *c, int index, uint64_t rtt_us, uint64_t now) {
    client_path *p = &c->paths[index];
    if (!p->alive || now - p->last_ack_us > path_alive_us) p->ack_since_us = now;
    p->alive = 1;
    p->last_rx_us = now;
    p->last_ack_us = now;
    const uint32_t sample = static_cast<uint32_t>(rtt_us < rtt_largest_us ? rtt_us : rtt_largest_us);
    p->rtt_us = p->rtt_us == 0 ? sample : (7 * p->rtt_us + sample) / 8; // at most 8 x 10^7: no overflow
}

// ---- Probes

void send_probe(tarn_client *c, client_session *s, int index, uint64_t now) {
    uint8_t probe[conn_probe_size];
    const uint8_t flags = index == c->active_path ? 1 : 0;
    const size_t len = conn_make_probe(probe, TARN_PKT_PROBE, flags, ++c->probe_seq, now);
    conn_send_sealed(&c->base, &c->paths[index].addr, &s->current, probe, len);
}

// A new path gets at once what the others already had.
void path_kick(tarn_client *c, int index, uint64_t now) {
    if (!path_usable(c, index)) return;
    client_path *p = &c->paths[index];
    for (client_session &s : c->sessions) {
        if (s.state != SESSION_CONNECTING || !s.hs_pending) continue;
        conn_send(&c->base, &p->addr, s.hs_msg, sizeof s.hs_msg);
        p->hs_sent_us = now;
    }
    if (client_session *s = first_established(c)) {
        send_probe(c, s, index, now);
        p->next_probe_us = now + probe_search_us;
    }
    send_query(c, index);
}

static uint64_t probe_interval(const tarn_client *c, int index, uint64_t now) {
    if (index == c->active_path || path_alive(c, index, now)) return probe_steady_us;
    const bool settled = now - c->first_up_us >= c->settle_us;
    return settled && c->paths[index].alive ? probe_lost_us : probe_search_us;
}

// Probes every usable path whose time has come, on the first established session.
void probe_paths(tarn_client *c, uint64_t now, conn_wake *wake) {
    client_session *s = first_established(c);
    for (int i = 0; i < TARN_PATHS_MAX; i++) {
        if (!path_usable(c, i)) continue;
        client_path *p = &c->paths[i];
        if (now >= p->next_probe_us) {
            send_probe(c, s, i, now);
            p->next_probe_us = now + probe_interval(c, i, now);
        }
        wake->follow(p->next_probe_us);
    }
}

// ---- The choice

// Is path a better than path b? In one class a must be over 20 percent and over 500 microseconds faster.
static bool better(const tarn_client *c, int a, int b) {
    const client_path &pa = c->paths[a];
    const client_path &pb = c->paths[b];
    if (pa.path != pb.path) return pa.path < pb.path;
    if (pa.rtt_us == 0 || pb.rtt_us == 0) return false;
    return 5 * pa.rtt_us < 4 * pb.rtt_us && pb.rtt_us - pa.rtt_us > 500;
}

// The best path that answers, leaving one out (-1 leaves none out); -1 when none answers.
static int best_alive(const tarn_client *c, int except, uint64_t now) {
    int best = -1;
    for (int i = 0; i < TARN_PATHS_MAX; i++) {
        if (i == except || !path_alive(c, i, now)) continue;
        if (best < 0 || better(c, i, best)) best = i;
    }
    return best;
}

// The other usable path of the highest class number, the first of equals: where to go when nothing answers.
static int blind_choice(const tarn_client *c) {
    int choice = -1;
    for (int i = 0; i < TARN_PATHS_MAX; i++) {
        if (i == c->active_path || !path_usable(c, i)) continue;
        if (choice < 0 || c->paths[i].path > c->paths[choice].path) choice = i;
    }
    return choice;
}

// Moves the traffic. The probes carry the flag that turns the host's traffic here within one round trip, and the
// fresh last_rx_us gives the new path a full silence threshold before it is judged.
static void switch_path(tarn_client *c, int index, uint64_t now, const char *why) {
    const int old_class = c->active_path >= 0 ? c->paths[c->active_path].path : TARN_PATH_NONE;
    client_path *p = &c->paths[index];
    c->active_path = index;
    c->last_switch_us = now;
    p->last_rx_us = now;
    p->next_probe_us = now + probe_steady_us;
    for (client_session &s : c->sessions) {
        if (s.state == SESSION_ESTABLISHED) send_probe(c, &s, index, now);
    }
    char text[conn_addr_text];
    conn_log(&c->base, "path %s -> %s %s (%s, rtt %.1f ms)", tarn_path_name(old_class),
             tarn_path_name(p->path), conn_addr_str(&p->addr, text, sizeof text), why, p->rtt_us / 1000.0);
    const client_session *s = first_established(c);
    conn_event *event = conn_ev_push(&c->base, TARN_EV_PATH_CHANGED);
    event->session = s ? s->session : 0;
    event->path = p->path;
    event->addr = p->addr;
    event->server = p->server;
    event->rtt_us = p->rtt_us;
}

// Leaves an active path that fell silent: for the best that answers, else blindly, one path per silence threshold.
static void leave_silent_path(tarn_client *c, uint64_t now) {
    int target = best_alive(c, c->active_path, now);
    if (target < 0 && now - c->last_switch_us > c->silence_us) target = blind_choice(c);
    if (target < 0) return;
    c->paths[c->active_path].alive = 0;
    switch_path(c, target, now, "current path went silent");
}

void choose_path(tarn_client *c, uint64_t now) {
    const int best = best_alive(c, -1, now);
    if (!path_usable(c, c->active_path)) {
        if (best >= 0) switch_path(c, best, now, "first path");
        return;
    }
    if (now - c->paths[c->active_path].last_rx_us > c->silence_us) {
        leave_silent_path(c, now);
        return;
    }
    if (best < 0 || best == c->active_path || !better(c, best, c->active_path)) return;
    if (now - c->first_up_us < c->settle_us) {
        switch_path(c, best, now, "better path");
        return;
    }
    const bool better_class = c->paths[best].path < c->paths[c->active_path].path;
    if (better_class && now - c->paths[best].ack_since_us >= c->stable_us) {
        switch_path(c, best, now, "better path is back");
    }
}
