// Loads the libraries that Windows doesn't take from its list of known ones: bcrypt, crypt32, iphlpapi, userenv. A
// program that imports them the usual way takes whatever lies beside it under their names, before its first
// instruction; and installers are started, elevated, from folders full of downloads. So the build links delay-import
// libraries (cmake/WindowsCalls.cmake), whose functions come here at their first use; the sources call Win32 by name
// as ever. Any thread may come here, several at once: each finds the same module and the same address, and stores
// them whole.
#include <windows.h>

#include <delayimp.h>

#include <cstring>
#include <cwchar>

extern "C" IMAGE_DOS_HEADER __ImageBase;

namespace {

// What Windows itself ends a program with when an import is missing (STATUS_DLL_NOT_FOUND,
// STATUS_ENTRYPOINT_NOT_FOUND).
constexpr UINT exit_no_library = 0xC0000135;
constexpr UINT exit_no_function = 0xC0000139;

// Every function that comes here protects something or finds something out, and its callers were written for a
// function that exists: there is no answer that none of them could take for success. A library missing from the
// system directory is a broken or a manipulated system, so the process ends, as it would have ended at its start.
[[noreturn]] void end(UINT code) {
    for (;;) {
        TerminateProcess(GetCurrentProcess(), code);
    }
}

// The library of this plain ASCII name in the system directory; null with the last error where that can't be
// loaded. What it needs in turn comes from there, too.
HMODULE system_library(const char *name) {
    wchar_t path[MAX_PATH];
    const UINT folder = GetSystemDirectoryW(path, MAX_PATH);
    const size_t length = std::strlen(name);
    if (folder == 0 || folder >= MAX_PATH || length + 2 > MAX_PATH - folder) {
        SetLastError(ERROR_BAD_PATHNAME);
        return nullptr;
    }
    path[folder] = L'\\';
    for (size_t i = 0; i <= length; i++) { // with the terminator
        path[folder + 1 + i] = static_cast<unsigned char>(name[i]);
    }
    return LoadLibraryExW(path, nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
}

HMODULE load(const char *name) {
    // advapi32 is known, but hands SystemFunction036 on to cryptbase, which isn't, and which would be looked for
    // beside the program first. Once the right one is in memory, nothing is looked for. Wine's advapi32 needs none
    // and may have none.
    if (std::strcmp(name, "advapi32.dll") == 0 && system_library("cryptbase.dll") == nullptr &&
        GetLastError() != ERROR_MOD_NOT_FOUND) {
        end(exit_no_library);
    }
    const HMODULE module = system_library(name);
    if (module == nullptr) {
        end(exit_no_library);
    }
    return module;
}

template <class T>
T *in_image(RVA offset) {
    return reinterpret_cast<T *>(reinterpret_cast<char *>(&__ImageBase) + offset);
}

} // namespace

// What the linker's stubs call, by this name: `slot` is the function's entry in the address table of `library`.
// Stores the function there, so that later calls don't come here, and returns it. The last error stays, for callers
// that set it before.
extern "C" FARPROC WINAPI __delayLoadHelper2(const ImgDelayDescr *library, FARPROC *slot) {
    const DWORD error = GetLastError();
    const auto *names = in_image<const IMAGE_THUNK_DATA>(library->rvaINT);
    const ptrdiff_t index = slot - in_image<FARPROC>(library->rvaIAT);
    const auto *name = in_image<const IMAGE_IMPORT_BY_NAME>(static_cast<RVA>(names[index].u1.AddressOfData));
    const HMODULE module = load(in_image<const char>(library->rvaDLLName));
    const FARPROC function = GetProcAddress(module, name->Name);
    if (function == nullptr) {
        end(exit_no_function);
    }
    InterlockedExchangePointer(reinterpret_cast<void **>(slot), reinterpret_cast<void *>(function));
    SetLastError(error);
    return function;
}
