// What the system declares here stands in windows.h of the simulated machine.
#include <windows.h>
