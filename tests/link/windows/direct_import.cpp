// The control of the tests on imports: a program that imports as programs usually do.
#include <windows.h>

#include <bcrypt.h>

#include <cstdio>

extern "C" BOOLEAN NTAPI SystemFunction036(PVOID buffer, ULONG length);

int main() {
    unsigned char byte = 0;
    BCryptGenRandom(nullptr, &byte, sizeof byte, BCRYPT_USE_SYSTEM_PREFERRED_RNG);
    SystemFunction036(&byte, sizeof byte);
    const bool planted = GetEnvironmentVariableW(L"TARN_PLANTED", nullptr, 0) != 0;
    std::puts(planted ? "took the planted library" : "took the system's library");
}
