// TarnGliderHostService.exe: without an argument the Windows service, with one of four switches a small tool that
// installs, removes or shows it. It prints no words about errors; the exit code tells.
#include <string_view>

#include <windows.h>

#include "service_commands.h"
#include "service_control.h"

namespace {

constexpr int refused = 1;

constexpr struct {
    std::wstring_view name;
    int (*run)();
} switches[] = {
    {L"--install", host_service::install_service},
    {L"--uninstall", host_service::uninstall_service},
    {L"--status", host_service::print_status},
    {L"--remove-data", host_service::remove_data},
};

} // namespace

int wmain(int argc, wchar_t **argv) {
    // First of all, so that no later load searches the current directory or the path.
    if (!SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_SYSTEM32 | LOAD_LIBRARY_SEARCH_APPLICATION_DIR)) {
        return refused;
    }
    if (argc == 1) {
        return host_service::run_service();
    }
    // A switch may be given, elevated, in a folder full of downloads: nothing of that folder is loaded either.
    if (argc != 2 || !SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_SYSTEM32)) {
        return refused;
    }
    for (const auto &candidate : switches) {
        if (candidate.name == argv[1]) {
            return candidate.run();
        }
    }
    return refused;
}
