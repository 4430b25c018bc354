// The system's random source on Windows: RtlGenRandom, which advapi32 exports under a number. advapi32 passes the call on
// to a library that Windows may search for, so the programs import it late, from the system directory.
#include <tarnglider/secure.h>

#include <windows.h>

extern "C" BOOLEAN NTAPI SystemFunction036(PVOID buffer, ULONG length);

int tarn_random_bytes(void *buffer, size_t size) {
    constexpr size_t largest_call = 0x10000000;
    uint8_t *at = static_cast<uint8_t *>(buffer);
    while (size > 0) {
        const size_t part = size < largest_call ? size : largest_call;
        if (!SystemFunction036(at, static_cast<ULONG>(part))) return TARN_ERR_RANDOM;
        at += part;
        size -= part;
    }
    return TARN_OK;
}
