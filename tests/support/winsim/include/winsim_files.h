// Files and directories as <windows.h> declares them. Only what the sources call.
#ifndef WINSIM_FILES_H
#define WINSIM_FILES_H

#include <windows.h>

constexpr DWORD MOVEFILE_REPLACE_EXISTING = 0x1;
constexpr DWORD MOVEFILE_WRITE_THROUGH = 0x8;

struct WIN32_FIND_DATAW {
    DWORD dwFileAttributes;
    DWORD nFileSizeHigh;
    DWORD nFileSizeLow;
    wchar_t cFileName[MAX_PATH];
};

extern "C" {
DWORD GetFileAttributesW(const wchar_t *path);
BOOL CreateDirectoryW(const wchar_t *path, SECURITY_ATTRIBUTES *attributes);
BOOL MoveFileExW(const wchar_t *from, const wchar_t *to, DWORD flags);
BOOL DeleteFileW(const wchar_t *path);
BOOL RemoveDirectoryW(const wchar_t *path);
HANDLE FindFirstFileW(const wchar_t *pattern, WIN32_FIND_DATAW *out);
BOOL FindNextFileW(HANDLE search, WIN32_FIND_DATAW *out);
BOOL FindClose(HANDLE search);
}

#endif
