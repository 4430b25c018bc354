/* Linked by the C compiler alone with the whole of libtarnglider.a: any need of a C++ runtime fails the link. */
#include <tarnglider/tarnglider.h>

#include <stdio.h>
#include <string.h>

static int check(int good, const char *what) {
    if (!good) printf("failed: %s\n", what);
    return good ? 0 : 1;
}

int main(void) {
    tarn_addr addr;
    char text[64];
    uint8_t bytes[32] = {0};
    const uint8_t zero[32] = {0};
    int failures = 0;

    failures += check(tarn_addr_parse(&addr, "192.168.1.7:9877", 0) == 0, "parse an endpoint");
    tarn_addr_format(text, sizeof text, &addr);
    failures += check(strcmp(text, "192.168.1.7:9877") == 0, "format it back");
    failures += check(tarn_random_bytes(bytes, sizeof bytes) == TARN_OK, "random bytes");
    failures += check(memcmp(bytes, zero, sizeof bytes) != 0, "random bytes differ from zero");
    tarn_secure_wipe(bytes, sizeof bytes);
    failures += check(memcmp(bytes, zero, sizeof bytes) == 0, "wipe");
    failures += check(tarn_now_us() > 0, "clock");
    return failures;
}
