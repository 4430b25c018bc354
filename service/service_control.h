// The process as a Windows service: its registered names, and its life under the service control manager.
#ifndef HOST_SERVICE_SERVICE_CONTROL_H
#define HOST_SERVICE_SERVICE_CONTROL_H

#include <windows.h>

namespace host_service {

inline constexpr wchar_t service_name[] = L"TarnGliderHost";
inline constexpr wchar_t service_executable[] = L"\\TarnGliderHostService.exe"; // behind its directory

// Connects to the service control manager and serves until the service has stopped. The program's exit code: 0, or 2
// if the manager didn't start this process.
int run_service();

} // namespace host_service

#endif
