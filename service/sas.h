// The secure attention sequence, which only the system may generate and only where policy lets services ask for it.
#ifndef HOST_SERVICE_SAS_H
#define HOST_SERVICE_SAS_H

#include <windows.h>

namespace host_service {

// Generates the sequence for the worker: a running SYSTEM process in that session, which owns the console. True if
// it was sent; false, without a reason, if policy or any of the checks forbids it. The caller limits the rate.
bool dispatch_sas(HANDLE worker_process, DWORD session);

} // namespace host_service

#endif
