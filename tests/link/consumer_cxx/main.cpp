#include <tarnglider/tarnglider.h>

#include <memory>

// A client that knows no host's key can be made and released; a session it refuses.
int main() {
    tarn_client_config config = {};
    config.send = [](void *, const tarn_addr *, const uint8_t *, size_t) {};
    if (tarn_keypair_generate(&config.identity) != TARN_OK) return 1;
    const std::unique_ptr<tarn_client, decltype(&tarn_client_destroy)> client(tarn_client_create(&config),
                                                                              tarn_client_destroy);
    return client && tarn_client_connect(client.get()) == -1 ? 0 : 1;
}
