// The host engine's record and the functions that its sources share. The engine's lock is held in all of them.
//
//   crypto slot   free -> pending (response sent) -> in use (first packet came) -> free
//   link          made by a slot's first authenticated packet; lives while authenticated packets arrive; holds one
//                 slot in use and, for 5 seconds after a rekey, the one before
#ifndef TARN_CONN_HOST_INTERNAL_H
#define TARN_CONN_HOST_INTERNAL_H

#include <tarnglider/conn_host.h>

#include "conn_internal.h"

constexpr int host_clients_max = 32;
constexpr int host_slots_max = 24;
constexpr int host_links_max = 8;

constexpr uint64_t host_pending_us = 10 * conn_second_us; // a pending slot that no packet used
constexpr uint64_t host_idle_us = 60 * conn_second_us;    // a link without an authenticated packet
constexpr uint64_t host_busy_us = 3 * conn_second_us;     // traffic this young keeps other clients out

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

struct tarn_host {
    conn_base base;
    uint32_t allow_plain;
    host_client clients[host_clients_max];
    crypto_slot slots[host_slots_max];
    host_link links[host_links_max];
    rate_bucket handshake_bucket;
    rate_bucket reject_bucket;
    rate_bucket unknown_bucket;
    rate_bucket hello_bucket;
};

// True if the limit lets one more action pass now.
bool rate_allow(rate_bucket *bucket, rate_limit limit, uint64_t now);

void host_handshake(tarn_host *h, const conn_packet &p);
int host_sealed(tarn_host *h, const conn_packet &p);
void host_expire(tarn_host *h, uint64_t now);

// The active link of a session, or -1.
int find_link(const tarn_host *h, uint32_t session);
void free_link(tarn_host *h, int index);

#endif
