// What stands in for the service's log and for the secure attention sequence on a service_rig.
#include <cstdarg>
#include <cstdio>

#include <gtest/gtest.h>

#include "log.h"
#include "sas.h"
#include "service_rig.h"

namespace host_service {

void hlog(const char *format, ...) {
    char line[256];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    service_rig::current->log.emplace_back(GetTickCount64(), line);
}

bool dispatch_sas(HANDLE worker_process, DWORD session) {
    EXPECT_EQ(service_rig::current->machine.session_of(GetProcessId(worker_process)), session);
    service_rig::current->sas_count++;
    return service_rig::current->sas_allowed;
}

} // namespace host_service
