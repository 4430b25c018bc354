// Owners of Win32 handles: one for each pair of closer and value that means none. Move only; closing keeps the last
// error, so that a guard clause may release and its caller still see why it failed.
#ifndef HOST_SERVICE_HANDLES_H
#define HOST_SERVICE_HANDLES_H

#include <windows.h>

namespace host_service {

// Process, thread, token, event and job handles: null means none.
struct null_handle {
    using type = HANDLE;
    static type none() { return nullptr; }
    static void close(type handle) { CloseHandle(handle); }
};

// Pipe and file handles: the invalid value means none.
struct file_handle {
    using type = HANDLE;
    static type none() { return INVALID_HANDLE_VALUE; }
    static void close(type handle) { CloseHandle(handle); }
};

// Directory searches of FindFirstFileW.
struct find_handle {
    using type = HANDLE;
    static type none() { return INVALID_HANDLE_VALUE; }
    static void close(type handle) { FindClose(handle); }
};

// Whatever the system hands out for LocalFree: descriptors, SIDs and texts.
template <class T>
struct local_memory {
    using type = T;
    static type none() { return nullptr; }
    static void close(type memory) { LocalFree(memory); }
};

template <class Kind>
class owned {
public:
    using type = typename Kind::type;

    owned() = default;
    explicit owned(type handle) : handle_(handle) {}
    owned(owned &&other) noexcept : handle_(other.release()) {}
    owned &operator=(owned &&other) noexcept {
        if (this != &other) {
            reset(other.release());
        }
        return *this;
    }
    owned(const owned &) = delete;
    owned &operator=(const owned &) = delete;
    ~owned() { reset(); }

    explicit operator bool() const { return handle_ != Kind::none(); }
    type get() const { return handle_; }

    // Where a call stores the handle it makes; whatever was owned before is released first.
    type *put() {
        reset();
        return &handle_;
    }

    type release() {
        type handle = handle_;
        handle_ = Kind::none();
        return handle;
    }

    void reset(type handle = Kind::none()) {
        if (handle_ != Kind::none()) {
            DWORD error = GetLastError();
            Kind::close(handle_);
            SetLastError(error);
        }
        handle_ = handle;
    }

private:
    type handle_ = Kind::none();
};

using unique_handle = owned<null_handle>;
using unique_file = owned<file_handle>;
using unique_find = owned<find_handle>;
using unique_descriptor = owned<local_memory<PSECURITY_DESCRIPTOR>>;

} // namespace host_service

#endif
