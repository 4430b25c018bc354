// The system's random source on POSIX.
#include <tarnglider/secure.h>

#include <errno.h>
#include <sys/random.h>

int tarn_random_bytes(void *buffer, size_t size) {
    uint8_t *at = static_cast<uint8_t *>(buffer);
    while (size > 0) {
        const ssize_t got = getrandom(at, size, 0);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return TARN_ERR_RANDOM;
        at += got;
        size -= static_cast<size_t>(got);
    }
    return TARN_OK;
}
