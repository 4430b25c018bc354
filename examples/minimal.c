/* A host and a client in one process, joined by two function calls instead of a network: the whole life of a session
 * in some sixty lines. A program with sockets does the same with tarn_udp_send and tarn_udp_recv in between. */
#include <stdio.h>
#include <string.h>

#include <tarnglider/tarnglider.h>

static tarn_host *host;
static tarn_client *client;
static tarn_addr host_at, client_at;

/* What one side sends waits here: a callback must not call back into its engine. */
static struct {
    uint8_t data[1500];
    size_t len;
    int to_host;
} queue[64];
static int queued;

static void put(int to_host, const uint8_t *data, size_t len) {
    if (queued == 64) return;
    memcpy(queue[queued].data, data, len);
    queue[queued].len = len;
    queue[queued++].to_host = to_host;
}
static void host_sends(void *user, const tarn_addr *to, const uint8_t *data, size_t len) {
    put(0, data, len);
}
static void client_sends(void *user, const tarn_addr *to, const uint8_t *data, size_t len) {
    put(1, data, len);
}

static void deliver(void) {
    for (int i = 0; i < queued; i++) {
        uint8_t out[1500];
        size_t len;
        const int result = queue[i].to_host ? tarn_host_receive(host, queue[i].data, queue[i].len, &client_at,
                                                                out, sizeof out, &len, NULL)
                                            : tarn_client_receive(client, queue[i].data, queue[i].len,
                                                                  &host_at, out, sizeof out, &len, NULL);
        if (result == TARN_RECV_DATA)
            printf("%s got %zu bytes\n", queue[i].to_host ? "host" : "client", len - 8);
    }
    queued = 0;
}

int main(void) {
    static tarn_host_config hc;
    static tarn_client_config cc;
    static tarn_client_list trusted;
    if (tarn_keypair_generate(&hc.identity) != TARN_OK || tarn_keypair_generate(&cc.identity) != TARN_OK)
        return 1;
    tarn_addr_parse(&host_at, "192.0.2.1:9877", 0);
    tarn_addr_parse(&client_at, "192.0.2.2:40000", 0);

    hc.send = host_sends;
    tarn_client_list_add(&trusted, cc.identity.public_key, "laptop");
    host = tarn_host_create(&hc, &trusted, NULL);

    cc.send = client_sends;
    cc.host_key_known = 1;
    memcpy(cc.host_key, hc.identity.public_key, 32);
    client = tarn_client_create(&cc);
    if (!host || !client) return 1;
    tarn_client_add_candidate(client, &host_at, TARN_PATH_DIRECT);
    tarn_client_connect(client);

    conn_event event;
    uint8_t packet[64] = {TARN_MAGIC, TARN_VERSION_PLAIN, TARN_PKT_AUDIO, 0, 0, 0, 0, 0, 'h', 'i'},
            sealed[64];
    size_t len = 0;
    for (int i = 0; i < 4 && len == 0; i++) {
        tarn_client_tick(client);
        tarn_host_tick(host);
        deliver();
        while (tarn_client_poll_event(client, &event)) {
            if (event.kind == TARN_EV_SESSION_UP)
                printf("client: session %08x is up\n", (unsigned)event.session);
        }
        len = tarn_client_seal(client, 0, packet, 10, sealed, sizeof sealed, NULL);
    }
    put(1, sealed, len);
    deliver();
    while (tarn_host_poll_event(host, &event)) {
        if (event.kind == TARN_EV_SESSION_CONNECTED) printf("host: \"%s\" connected\n", event.name);
    }
    tarn_client_destroy(client);
    tarn_host_destroy(host);
    return len == 0;
}
