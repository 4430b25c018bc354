// The host engine's record and the functions that its sources share. The engine's lock is held in all of them.
//
//   crypto slot   free -> pending (response sent) -> in use (first packet came) -> free
//   link          made by a slot's first authenticated packet; lives while authenticated packets arrive; holds one
//                 slot in use and, for 5 seconds after a rekey, the one before
#ifndef TARN_CONN_HOST_INTERNAL_H
#define TARN_CONN_HOST_INTERNAL_H

#include <tarnglider/conn_host.h>
#include <tarnglider/secure_pair.h>

#include "conn_internal.h"

constexpr int host_clients_max = 32;
constexpr int host_slots_max = 24;
constexpr int host_links_max = 8;
constexpr int host_jobs_max = 8;

constexpr uint64_t host_pending_us = 10 * conn_second_us;       // a pending slot that no packet used
constexpr uint64_t host_idle_us = 60 * conn_second_us;          // a link without an authenticated packet
constexpr uint64_t host_busy_us = 3 * conn_second_us;           // traffic this young keeps other clients out
constexpr uint64_t host_attempt_us = 10 * conn_second_us;       // a pairing attempt without its confirmation
constexpr uint64_t host_password_pause_us = 1 * conn_second_us; // between two new password attempts

constexpr uint64_t register_refresh_us = 20 * conn_second_us; // unless the server names an interval
constexpr uint64_t register_error_us = 5 * conn_second_us;    // after a server's error
constexpr uint64_t job_hopeful_us = 30 * conn_second_us; // a binding without any link is kept alive this long
constexpr uint64_t job_longest_us = 60 * conn_second_us; // a job that is not current, or without any link

struct host_client {
    uint32_t active;
    uint8_t key[32];
    char name[64];
    uint64_t added;          // Unix seconds of the first pairing
    uint64_t last_timestamp; // highest handshake timestamp accepted
    uint8_t init_hash[16];   // of the last accepted handshake init
    uint8_t reply[TARN_HS_RESP_SIZE];
    uint32_t reply_valid;
};

enum { SLOT_FREE = 0, SLOT_PENDING = 1, SLOT_IN_USE = 2 };

struct crypto_slot {
    uint32_t state;
    tarn_session session;
    int32_t client;
    int32_t link; // -1 while pending
    uint64_t created_us;
};

struct host_link {
    uint32_t active;
    uint32_t session;
    int32_t client;
    int32_t current;  // slot that seals and opens
    int32_t previous; // slot that only opens, after a rekey; -1 when none
    uint64_t previous_until_us;
    tarn_addr addr;
    int32_t path;
    uint32_t path_crypto; // slot and packet number that last set the path
    uint64_t path_seq;
    uint64_t last_rx_us;
    uint32_t data_seen;
};

enum { LINK_IDLE = 0, LINK_CHALLENGED = 1, LINK_REGISTERED = 2 };

// What the host has with the rendezvous server of the same number.
struct server_link {
    uint32_t state;
    uint8_t server_key[32]; // from its challenge
    uint8_t cookie[16];
    uint64_t next_us; // next registration
    uint64_t sent_us; // last one; 0: none yet
    int32_t tries;    // sent since the last answer
    int32_t error;    // last error status; -1 for status 0; 0 when none
    tarn_addr public_addr;
    uint32_t rtt_us;
};

// A client that wants to come in through a server. Server and allocation are its identity.
struct punch_job {
    uint32_t active;
    int32_t server;
    uint32_t current; // the newest of its server: the one whose relay binding is kept alive
    uint32_t bound;
    uint32_t allocation;
    uint8_t relay_token[16];
    uint8_t punch_token[16];
    tarn_addr candidates[conn_candidates_max];
    int32_t candidate_count;
    uint64_t created_us;
    uint64_t punch_until_us;
    uint64_t next_punch_us;
    uint64_t next_bind_us;
};

// A run of the exchange that has begun and is not confirmed.
struct pair_attempt {
    uint32_t active;
    int32_t number; // the exchange's count when it began
    uint8_t id[16];
    uint64_t started_us;
    tarn_addr addr;
};

struct host_pairing {
    uint32_t open;        // the PIN is accepted
    char pin[8];          // empty when closed
    uint64_t deadline_us; // 0: never
    int32_t pin_attempts; // limit
    tarn_pair pin_pair;
    pair_attempt pin_attempt;
    uint32_t password_set;
    int32_t password_attempts; // limit
    uint8_t password_salt[16];
    uint8_t password_key[32]; // derived; the password itself is never kept
    uint32_t password_blocks;
    uint32_t password_passes;
    tarn_pair password_pair;
    pair_attempt password_attempt;
    uint64_t password_locked_until_us; // 0: not locked
    uint64_t lockout_us;
    uint64_t last_password_attempt_us; // when the last new one began; 0: never
};

// A limit on something an unauthenticated source can ask for. Tokens are millionths of one action.
struct rate_bucket {
    uint64_t last_us; // 0: never used
    uint64_t tokens;
};

// Actions per second, and how many may come at once.
struct rate_limit {
    uint64_t per_second;
    uint64_t burst;
};
constexpr rate_limit handshake_limit = {20, 40}; // inits that need cryptography
constexpr rate_limit reject_limit = {5, 10};     // handshake rejects
constexpr rate_limit unknown_limit = {1, 3};     // log lines and events about unknown devices
constexpr rate_limit hello_limit = {5, 10};      // refusals of a plain hello
constexpr rate_limit pair_limit = {10, 20};      // pair inits handled
constexpr rate_limit pair_fail_limit = {5, 10};  // pair fails sent
constexpr rate_limit probe_limit = {20, 40};     // host queries answered

struct tarn_host {
    conn_base base;
    uint32_t allow_plain;
    host_client clients[host_clients_max];
    crypto_slot slots[host_slots_max];
    host_link links[host_links_max];
    server_link server_links[conn_servers_max];
    punch_job punch_jobs[host_jobs_max];
    host_pairing pairing;
    rate_bucket handshake_bucket;
    rate_bucket reject_bucket;
    rate_bucket unknown_bucket;
    rate_bucket pair_bucket;
    rate_bucket pair_fail_bucket;
    rate_bucket probe_bucket;
    rate_bucket hello_bucket;
    uint32_t punch_counter; // numbers the punches
};

// True if the limit lets one more action pass now.
bool rate_allow(rate_bucket *bucket, rate_limit limit, uint64_t now);

void host_handshake(tarn_host *h, const conn_packet &p);
int host_sealed(tarn_host *h, const conn_packet &p);
void host_expire(tarn_host *h, uint64_t now);

// The active link of a session, the active client of a key, or -1.
int find_link(const tarn_host *h, uint32_t session);
int find_client(const tarn_host *h, const uint8_t key[32]);
void free_slot(tarn_host *h, int index);
void free_link(tarn_host *h, int index);

// Pairing.
bool new_pin(tarn_host *h);
void load_password(tarn_host *h, const char *line);
void host_query(tarn_host *h, const conn_packet &p);
void host_pair_init(tarn_host *h, const conn_packet &p);
void host_pair_confirm(tarn_host *h, const conn_packet &p);
void pairing_tick(tarn_host *h, uint64_t now);

// Rendezvous.
void host_rendezvous(tarn_host *h, const conn_packet &p);
bool is_punch_candidate(const tarn_host *h, const tarn_addr *addr);
void register_all_anew(tarn_host *h, uint64_t now);
void rendezvous_tick(tarn_host *h, uint64_t now, conn_wake *wake);

#endif
