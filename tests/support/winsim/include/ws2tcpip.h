// What the system declares here stands in winsock2.h of the simulated machine.
#include <winsock2.h>
