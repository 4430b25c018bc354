// What the system declares here stands in iphlpapi.h of the simulated machine.
#include <iphlpapi.h>
