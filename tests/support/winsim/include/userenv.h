// Environment blocks on the simulated machine.
#ifndef WINSIM_USERENV_H
#define WINSIM_USERENV_H

#include <windows.h>

extern "C" {
BOOL CreateEnvironmentBlock(LPVOID *environment, HANDLE token, BOOL inherit);
BOOL DestroyEnvironmentBlock(LPVOID environment);
}

#endif
