// The heart of the service: keeps at most one Host worker alive in the session that owns the console, and answers
// administrators on the admin pipe.
#ifndef HOST_SERVICE_SUPERVISOR_H
#define HOST_SERVICE_SUPERVISOR_H

#include <windows.h>

namespace host_service {

// Runs until stop_event is signalled. Answers 0 after an orderly stop, 2 at once if the admin pipe can't be created.
// wake_event resets itself and only shortens the wait between two passes. The caller owns both events.
DWORD supervise(HANDLE stop_event, HANDLE wake_event);

} // namespace host_service

#endif
