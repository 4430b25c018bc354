/* A library by a system library's name, in a download folder: it does its harm when it is loaded, and is too small to be
 * noticed. Here the harm is a variable of the environment. */
#include <windows.h>

BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, void *reserved) {
    (void)instance;
    (void)reserved;
    return reason != DLL_PROCESS_ATTACH || SetEnvironmentVariableW(L"TARN_PLANTED", L"1");
}

__declspec(dllexport) int PlantedAnswer(void) { return 1; }
__declspec(dllexport) long BCryptGenRandom(void) { return 1; }
