// The client engine's record and the functions that its sources share. The engine's lock is held in all of them.
//
//   mode       0 idle, 1 pairing, 2 connecting or connected
//   session    free -> connecting -> established; on an established session a rekey goes
//              idle -> handshake pending (hs_pending) -> waiting for the ack (have_next) -> idle with have_previous
#ifndef TARN_CONN_CLIENT_INTERNAL_H
#define TARN_CONN_CLIENT_INTERNAL_H

#include <tarnglider/conn_client.h>
#include <tarnglider/secure_pair.h>

#include "conn_internal.h"

constexpr uint64_t path_alive_us = 1500 * conn_ms_us; // an acknowledgement older than this breaks a run
constexpr uint64_t probe_steady_us =
    500 * conn_ms_us; // probes on a path that answers, or carries the traffic
constexpr uint64_t probe_search_us = 200 * conn_ms_us;   // on a path that doesn't answer
constexpr uint64_t probe_lost_us = 1 * conn_second_us;   // once settled, on a path that answered before
constexpr uint64_t reject_quiet_us = 2 * conn_second_us; // between two reports of a reject
constexpr uint64_t hurry_us = 50 * conn_ms_us;           // longest sleep while things are being decided
constexpr uint64_t rtt_largest_us = 10 * conn_second_us;

constexpr uint64_t lookup_retry_us = 1 * conn_second_us;
constexpr uint64_t lookup_failed_us = 3 * conn_second_us; // after a server's failure
constexpr int lookup_tries_max = 12;
constexpr uint64_t pair_retry_us = 500 * conn_ms_us;
constexpr uint64_t pair_timeout_us = 15 * conn_second_us;

enum { CLIENT_IDLE = 0, CLIENT_PAIR = 1, CLIENT_CONNECT = 2 };
enum { LOOKUP_IDLE = 0, LOOKUP_ASKED = 1, LOOKUP_FOUND = 2 };
enum { PAIR_SEARCHING = 0, PAIR_INIT_SENT = 2, PAIR_CONFIRM_SENT = 3 };
enum { SESSION_FREE = 0, SESSION_CONNECTING = 1, SESSION_ESTABLISHED = 2 };

struct client_path {
    uint32_t active;
    int32_t path;   // the lowest class ever given to it
    int32_t server; // through which it came, or -1
    uint32_t alive; // 1 from the first acknowledgement until declared dead
    tarn_addr addr;
    uint64_t last_rx_us;   // any authenticated packet
    uint64_t last_ack_us;  // an acknowledgement
    uint64_t ack_since_us; // start of the present run of acknowledgements
    uint64_t hs_sent_us;   // last handshake sent here
    uint64_t next_probe_us;
    uint32_t rtt_us; // smoothed; 0 without a sample
};

struct client_session {
    uint32_t state;
    uint32_t session;
    tarn_session current;
    tarn_session previous; // opens only, for 5 seconds after a rekey
    tarn_session next;     // of a rekey, until the host's ack
    uint32_t have_previous;
    uint32_t have_next;
    uint64_t previous_until_us;
    uint64_t last_rekey_us;
    uint64_t next_rekey_send_us;
    uint64_t next_hs_us;
    tarn_noise_ik noise; // handshake in progress
    uint32_t hs_pending; // a handshake awaits its response
    uint32_t hs_done;    // hs_reply holds the response of the last one
    uint8_t hs_msg[TARN_HS_INIT_SIZE];
    uint8_t hs_reply[TARN_HS_RESP_SIZE];
};

// The search for the host on the rendezvous server of the same number.
struct server_lookup {
    uint32_t state;
    uint32_t failure_logged;
    uint32_t bound; // the relay binding was confirmed
    int32_t tries;  // lookups sent
    uint32_t tag;   // random request number; the same for a whole search
    uint32_t allocation;
    uint32_t rtt_us;
    uint64_t next_lookup_us;
    uint64_t sent_us;
    uint64_t punch_until_us;
    uint64_t next_punch_us;
    uint64_t next_bind_us;
    uint8_t relay_token[16];
    uint8_t punch_token[16];
    tarn_addr candidates[conn_candidates_max];
    int32_t candidate_count;
};

struct client_pairing {
    char secret[256];          // PIN or password as typed; wiped on every end of pairing
    uint32_t pair_kind;        // what the caller asked for
    uint32_t pair_method;      // what is being tried
    uint32_t password_derived; // the password's key was derived in this pairing
    uint32_t pair_phase;
    uint32_t pair_nonce; // of the host query
    uint64_t next_pair_send_us;
    uint64_t pair_deadline_us;
    tarn_addr pair_host_addr; // who answered, and what it said
    uint8_t pair_host_flags;
    uint8_t pair_salt[16];
    uint8_t pair_host_key[32];
    uint32_t pair_blocks;
    uint32_t pair_passes;
    tarn_pair pair;
    uint8_t pair_msg[TARN_PAIR_MESSAGE_MAX]; // the first message, for repeats
    size_t pair_msg_len;
};

struct tarn_client {
    conn_base base;
    uint32_t host_key_known;
    uint32_t code_known;
    uint32_t route_mode;
    uint8_t host_key[32];
    uint8_t code_bits[8]; // the first 5 bytes hold the parsed key code
    uint64_t settle_us;
    uint64_t silence_us;
    uint64_t stable_us;
    uint64_t rekey_packets;
    uint64_t rekey_us;
    uint32_t mode;
    client_path paths[TARN_PATHS_MAX];
    int32_t active_path; // -1 when none
    uint64_t first_up_us;
    uint64_t last_switch_us;
    client_session sessions[TARN_CLIENT_SESSIONS_MAX];
    server_lookup lookups[conn_servers_max];
    uint32_t probe_seq; // shared by all paths
    uint32_t punch_counter;
    uint64_t last_reject_us;
    client_pairing pairing;
};

// Paths.
int path_find(const tarn_client *c, const tarn_addr *addr);
int path_add(tarn_client *c, const tarn_addr *addr, int path, int server);
bool path_usable(const tarn_client *c, int index);
bool path_alive(const tarn_client *c, int index, uint64_t now);
void path_kick(tarn_client *c, int index, uint64_t now);
void mark_ack(tarn_client *c, int index, uint64_t rtt_us, uint64_t now);
void send_probe(tarn_client *c, client_session *s, int index, uint64_t now);
void probe_paths(tarn_client *c, uint64_t now, conn_wake *wake);
void choose_path(tarn_client *c, uint64_t now);

// Servers.
bool code_matches(const tarn_client *c, const uint8_t key[32]);
void reset_lookups(tarn_client *c, uint64_t now);
void client_rendezvous(tarn_client *c, const conn_packet &p);
// What the servers have due; true while it wants short ticks.
bool servers_tick(tarn_client *c, uint64_t now, conn_wake *wake);

// Pairing.
void end_pairing(tarn_client *c);
void send_query(tarn_client *c, int index);
void client_pairing_message(tarn_client *c, const conn_packet &p);
void client_pairing_tick(tarn_client *c, uint64_t now, conn_wake *wake);

// Sessions.
void start_connect(tarn_client *c, uint64_t now);
client_session *first_established(tarn_client *c);
void hs_send(tarn_client *c, client_session *s, uint64_t now);
void handshake_response(tarn_client *c, const conn_packet &p);
void handshake_reject(tarn_client *c, const conn_packet &p);
int client_sealed(tarn_client *c, const conn_packet &p);
// What a session has due; true while it wants short ticks.
bool session_work(tarn_client *c, client_session *s, uint64_t now, conn_wake *wake);

#endif
