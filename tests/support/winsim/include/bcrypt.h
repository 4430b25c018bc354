// The random source of the simulated machine: bytes by its seed.
#ifndef WINSIM_BCRYPT_H
#define WINSIM_BCRYPT_H

#include <windows.h>

using BCRYPT_ALG_HANDLE = void *;
constexpr ULONG BCRYPT_USE_SYSTEM_PREFERRED_RNG = 2;
constexpr NTSTATUS STATUS_UNSUCCESSFUL = static_cast<NTSTATUS>(0xC0000001);
constexpr bool BCRYPT_SUCCESS(NTSTATUS status) { return status >= 0; }

extern "C" NTSTATUS BCryptGenRandom(BCRYPT_ALG_HANDLE algorithm, PUCHAR bytes, ULONG size, ULONG flags);

#endif
