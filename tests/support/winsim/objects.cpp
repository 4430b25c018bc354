// Handles, events, waits, the calls that files and pipes share, and the memory that the system hands out.
#include "winsim/sim.h"

#include <algorithm>

namespace winsim {

namespace {

struct handle_values {
    uintptr_t last = 0x100;
    std::map<HANDLE, std::string> closed; // what they stood for
};

struct block {
    DWORD process;
    const char *kind;
    std::unique_ptr<uint64_t[]> bytes;
};

struct memory {
    std::map<void *, block> blocks;
};

std::string number(HANDLE handle) { return std::to_string(reinterpret_cast<uintptr_t>(handle)); }

void stale(const std::string &use, HANDLE handle) {
    const auto &closed = part<handle_values>().closed;
    const auto was = closed.find(handle);
    breach(use + " " +
           (was == closed.end() ? "a handle that never was, " + number(handle)
                                : "the closed handle " + number(handle) + " of " + was->second));
    refuse(ERROR_INVALID_HANDLE);
}

// One handle less; the object may go with it.
void drop(const std::shared_ptr<object> &what) {
    if (--what->handles == 0) {
        what->last_handle_closed();
    }
}

DWORD wait_for(DWORD count, const HANDLE *handles, uint64_t deadline) {
    std::vector<std::shared_ptr<object>> objects;
    for (DWORD i = 0; i < count; i++) {
        objects.push_back(find_object(handles[i]));
        if (!objects.back()) {
            return WAIT_FAILED;
        }
        if (!(access_of(handles[i]) & SYNCHRONIZE)) {
            return refuse(ERROR_ACCESS_DENIED), WAIT_FAILED;
        }
    }
    const auto count_waits = [&objects](int by) {
        for (const auto &one : objects) {
            one->waits += by;
        }
    };
    count_waits(1);
    const std::shared_ptr<void> until_left(nullptr, [&](void *) { count_waits(-1); }); // by an exception, too

    const auto first = [&objects] {
        return std::find_if(objects.begin(), objects.end(), [](const auto &one) { return one->signalled(); });
    };
    std::string why;
    for (const auto &one : objects) {
        why += one->describe() + " ";
    }
    if (!wait_until([&] { return first() != objects.end(); }, deadline, why.c_str())) {
        return WAIT_TIMEOUT;
    }
    const auto taken = first();
    (*taken)->consumed();
    return WAIT_OBJECT_0 + static_cast<DWORD>(taken - objects.begin());
}

} // namespace

// -- events

void event::consumed() {
    if (!manual) {
        set = false;
    }
    std::erase_if(flights, [](const auto &one) {
        one->seen = one->seen || one->finished;
        return one->seen;
    });
}

void event::handle_closing() {
    for (const auto &one : flights) {
        if (handles == 1 && !one->seen) {
            breach("closes an event while a transfer that signals it is in flight");
            one->abandoned = true;
        }
    }
}

// -- handles

HANDLE make_handle(std::shared_ptr<object> what, DWORD access) {
    const HANDLE handle = reinterpret_cast<HANDLE>(part<handle_values>().last += 4);
    what->handles++;
    acting().open[handle] = {std::move(what), access};
    return handle;
}

std::shared_ptr<object> find_object(HANDLE handle) {
    if (handle == GetCurrentProcess()) {
        return process_by_id(acting().id);
    }
    const auto found = acting().open.find(handle);
    if (found == acting().open.end()) {
        stale("uses", handle);
        return nullptr;
    }
    return found->second.what;
}

DWORD access_of(HANDLE handle) {
    const auto found = acting().open.find(handle);
    return found == acting().open.end() ? 0xFFFFFFFF : found->second.access;
}

void wrong_kind(HANDLE handle) {
    breach("uses the handle " + number(handle) + " of " + find_object(handle)->describe() +
           " as what it is not");
    refuse(ERROR_INVALID_HANDLE);
}

void close_handles_of(process &ended) {
    const auto open = std::move(ended.open);
    ended.open.clear();
    for (const auto &one : open) {
        drop(one.second.what);
    }
}

std::vector<std::string> machine::open_handles(DWORD id) const {
    std::vector<std::string> all;
    for (const auto &one : process_by_id(id)->open) {
        all.push_back(one.second.what->describe());
    }
    for (const auto &one : part<memory>().blocks) {
        if (one.second.process == id) {
            all.push_back(one.second.kind);
        }
    }
    return all;
}

// -- memory

void *make_block(size_t size, const char *kind) {
    auto bytes = std::make_unique<uint64_t[]>(size / sizeof(uint64_t) + 1);
    void *made = bytes.get();
    part<memory>().blocks[made] = {acting().id, kind, std::move(bytes)};
    return made;
}

bool free_block(void *freed, const char *kind) {
    auto &blocks = part<memory>().blocks;
    const auto found = blocks.find(freed);
    if (found == blocks.end() || found->second.kind != std::string(kind)) {
        freed ? breach(std::string("frees what is no ") + kind) : void();
        return !freed;
    }
    blocks.erase(found);
    return true;
}

void *sim_local_alloc(size_t size) { return make_block(size, "local memory"); }

std::string narrow(const std::wstring &text) {
    std::string out;
    for (const wchar_t unit : text) {
        const auto c = static_cast<uint32_t>(unit);
        const int more = c < 0x80 ? 0 : c < 0x800 ? 1 : c < 0x10000 ? 2 : 3;
        out += static_cast<char>(more == 0 ? c : (0xFF00u >> (more + 1) & 0xFF) | c >> 6 * more);
        for (int i = more - 1; i >= 0; i--) {
            out += static_cast<char>(0x80 | (c >> 6 * i & 0x3F));
        }
    }
    return out;
}

std::wstring fold(std::wstring text) {
    for (wchar_t &unit : text) {
        unit = unit >= L'A' && unit <= L'Z' ? static_cast<wchar_t>(unit - L'A' + L'a') : unit;
    }
    return text;
}

} // namespace winsim

using namespace winsim;

extern "C" {

HLOCAL LocalFree(HLOCAL freed) {
    enter(__func__);
    return machine_exists() && free_block(freed, "local memory") ? nullptr : freed;
}

BOOL CloseHandle(HANDLE handle) {
    enter(__func__);
    if (!machine_exists() || acting().ended) {
        return refuse(ERROR_INVALID_HANDLE);
    }
    const auto found = acting().open.find(handle);
    if (found == acting().open.end()) {
        stale("closes", handle);
        return FALSE;
    }
    const std::shared_ptr<object> what = found->second.what;
    if (what->handles == 1 && what->waits > 0) {
        breach("closes " + what->describe() + " while a thread waits for it");
    }
    what->handle_closing();
    part<handle_values>().closed[handle] = what->describe();
    acting().open.erase(handle);
    drop(what);
    return TRUE;
}

HANDLE CreateEventW(SECURITY_ATTRIBUTES *, BOOL manual_reset, BOOL initial_state, LPCWSTR) {
    BEGIN_CALL(nullptr);
    const auto made = std::make_shared<event>();
    made->manual = manual_reset != FALSE;
    made->set = initial_state != FALSE;
    return make_handle(made);
}

BOOL SetEvent(HANDLE handle) {
    const auto found = asked<event>(__func__, handle);
    return found ? (found->set = true, TRUE) : FALSE;
}

DWORD WaitForSingleObject(HANDLE handle, DWORD timeout_ms) {
    return failing("WaitForSingleObject") ? WAIT_FAILED : wait_for(1, &handle, deadline_after(timeout_ms));
}

DWORD WaitForMultipleObjects(DWORD count, const HANDLE *handles, BOOL all, DWORD timeout_ms) {
    BEGIN_CALL(WAIT_FAILED);
    if (all) { // not modelled
        return refuse(ERROR_INVALID_PARAMETER), WAIT_FAILED;
    }
    return wait_for(count, handles, deadline_after(timeout_ms));
}

BOOL ReadFile(HANDLE file, LPVOID bytes, DWORD size, DWORD *moved, OVERLAPPED *overlapped) {
    const auto found = asked<stream>(__func__, file);
    return found ? found->read(bytes, size, moved, overlapped) : FALSE;
}

BOOL WriteFile(HANDLE file, LPCVOID bytes, DWORD size, DWORD *moved, OVERLAPPED *overlapped) {
    const auto found = asked<stream>(__func__, file);
    return found ? found->write(bytes, size, moved, overlapped) : FALSE;
}

BOOL GetFileSizeEx(HANDLE file, LARGE_INTEGER *size) {
    const auto found = asked<stream>(__func__, file);
    return found ? found->size(size) : FALSE;
}

BOOL FlushFileBuffers(HANDLE file) {
    const auto found = asked<stream>(__func__, file);
    return found ? found->flush() : FALSE;
}

} // extern "C"
