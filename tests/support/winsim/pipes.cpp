// Named pipes in byte mode with overlapped transfers, and the calls that files share with them.
//
// A pipe's name has instances (one for each server end), an instance has at most one connection at a time, and a
// connection carries two streams of bytes. A transfer that can't be done at once stands in its stream's queue; pump()
// moves what can be moved after every change. By seed, one that could be done at once is left to the next wait, as the
// system may, too.
#include "winsim/pipe_streams.h"

#include <algorithm>

namespace winsim {

namespace {

struct pipe_name;

struct instance {
    std::shared_ptr<pipe_name> name;
    bool listens = true;               // from its creation on, and while a ConnectNamedPipe waits
    std::shared_ptr<transfer> waiting; // that ConnectNamedPipe
    std::shared_ptr<connection> now;

    bool free() const { return listens && (!waiting || !waiting->finished); }
};

struct pipe_name {
    std::wstring name;
    std::string sddl;
    std::vector<DWORD> setup;
    DWORD max_instances = 0, server_id = 0;
    size_t out_size = 0, in_size = 0;
    std::vector<std::shared_ptr<instance>> instances;
};

struct pipe_world {
    std::map<std::wstring, std::shared_ptr<pipe_name>> names; // folded; with instances only
    std::map<std::wstring, DWORD> client_flags;
    std::map<OVERLAPPED *, std::shared_ptr<transfer>> transfers; // the latest of each
    size_t piece = SIZE_MAX;
};

struct pipe_end : stream {
    bool server = false;
    bool reads = true, writes = true;
    std::shared_ptr<instance> of;       // a server end's
    std::shared_ptr<connection> joined; // a client end's, for good
    std::wstring name;

    std::shared_ptr<connection> current() const { return server ? of->now : joined; }

    BOOL read(void *bytes, DWORD size, DWORD *moved, OVERLAPPED *overlapped) override {
        return transfer_bytes(operation::read, static_cast<uint8_t *>(bytes), nullptr, size, moved,
                              overlapped);
    }

    BOOL write(const void *bytes, DWORD size, DWORD *moved, OVERLAPPED *overlapped) override {
        return transfer_bytes(operation::write, nullptr, static_cast<const uint8_t *>(bytes), size, moved,
                              overlapped);
    }

    // A transfer that nothing has moved for yet; null with the last error set if the call is wrong.
    std::shared_ptr<transfer> begin(operation what, OVERLAPPED *overlapped) {
        const auto signals = overlapped ? find_as<event>(overlapped->hEvent) : nullptr;
        if (!signals) {
            breach("begins a transfer without an event");
            return refuse(ERROR_INVALID_PARAMETER), nullptr;
        }
        if (what != operation::connect && !(what == operation::read ? reads : writes)) {
            return refuse(ERROR_ACCESS_DENIED), nullptr;
        }
        auto &latest = part<pipe_world>().transfers[overlapped];
        if (latest && !latest->finished) {
            breach("begins a transfer with the OVERLAPPED of one in flight");
            return refuse(ERROR_INVALID_PARAMETER), nullptr;
        }
        const auto made = std::make_shared<transfer>();
        made->what = what;
        made->overlapped = overlapped;
        made->done = signals;
        made->end = this;
        made->thread = thread_id();
        signals->set = false;
        overlapped->Internal = 0x103; // still to come
        latest = made;
        return made;
    }

    BOOL transfer_bytes(operation what, uint8_t *to, const uint8_t *from, DWORD size, DWORD *moved,
                        OVERLAPPED *overlapped) {
        const auto made = begin(what, overlapped);
        if (!made) {
            return FALSE;
        }
        made->to = to;
        made->from = from;
        made->size = std::min<size_t>(size, part<pipe_world>().piece);
        const bool in = what == operation::read;
        const auto on = current();
        if (!on || on->cut) {
            return no_transfer(*made, on || !of->free() ? ERROR_PIPE_NOT_CONNECTED : ERROR_PIPE_LISTENING);
        }
        byte_stream &through = in == server ? on->to_server : on->to_client;
        const bool other_here = server ? on->client_here : on->server_here;
        if (!other_here && (!in || through.bytes.empty())) {
            return no_transfer(*made, in ? ERROR_BROKEN_PIPE : ERROR_NO_DATA);
        }
        (in ? through.reads : through.writes).push_back(made);
        if (other_here && by_chance(3)) {
            soon([on] { pump(*on); });
        } else {
            pump(*on);
        }
        return answer(made, moved);
    }

    BOOL answer(const std::shared_ptr<transfer> &made, DWORD *moved) {
        if (!made->finished) {
            made->done->flights.push_back(made);
            return refuse(ERROR_IO_PENDING);
        }
        made->seen = true;
        if (moved) {
            *moved = static_cast<DWORD>(made->moved);
        }
        return made->error == ERROR_SUCCESS ? TRUE : refuse(made->error);
    }

    // Failed at once: nothing is in flight, and the event stays as it is.
    static BOOL no_transfer(transfer &failed, DWORD error) {
        failed.finished = failed.seen = true;
        failed.error = error;
        return refuse(error);
    }

    BOOL connect(OVERLAPPED *overlapped) {
        const auto made = begin(operation::connect, overlapped);
        if (!made) {
            return FALSE;
        }
        if (of->now && !of->now->cut) {
            return no_transfer(*made, of->now->client_here ? ERROR_PIPE_CONNECTED : ERROR_NO_DATA);
        }
        if (of->waiting && !of->waiting->finished) {
            return no_transfer(*made, ERROR_PIPE_LISTENING);
        }
        of->now = nullptr;
        of->listens = true;
        of->waiting = made;
        return answer(made, nullptr);
    }

    void disconnect() {
        if (of->now) {
            of->now->cut = true;
            of->now->to_client.end_all(ERROR_PIPE_NOT_CONNECTED);
            of->now->to_server.end_all(ERROR_PIPE_NOT_CONNECTED);
        }
        if (of->waiting) {
            of->waiting->finish(ERROR_OPERATION_ABORTED);
        }
        of->listens = false;
    }

    void handle_closing() override {
        for (const auto &one : part<pipe_world>().transfers) {
            if (one.second->end == this && !one.second->seen && handles == 1) {
                breach("closes " + describe() + " with a transfer in flight that nobody waited for");
            }
        }
    }

    void last_handle_closed() override {
        for (const auto &one : part<pipe_world>().transfers) {
            if (one.second->end == this) {
                one.second->finish(ERROR_OPERATION_ABORTED);
                one.second->end = nullptr; // its address may be another's later
            }
        }
        const auto on = current();
        if (on) {
            (server ? on->server_here : on->client_here) = false;
            pump(*on);
        }
        if (server) {
            std::erase(of->name->instances, of);
            if (of->name->instances.empty()) {
                part<pipe_world>().names.erase(fold(name));
            }
        }
    }

    std::string describe() const override { return "pipe " + narrow(name) + (server ? "" : " (client)"); }
};

bool is_pipe_name(const std::wstring &name) {
    return fold(name.substr(0, 9)) == L"\\\\.\\pipe\\" && name.size() > 9;
}

const std::shared_ptr<pipe_name> *find_pipe(const std::wstring &name) {
    const auto &names = part<pipe_world>().names;
    const auto found = names.find(fold(name));
    return found == names.end() ? nullptr : &found->second;
}

HANDLE make_end(bool server, DWORD access, std::shared_ptr<instance> of, const std::wstring &name) {
    const auto end = std::make_shared<pipe_end>();
    end->server = server;
    end->reads = access & (GENERIC_READ | GENERIC_ALL | FILE_READ_DATA);
    end->writes = access & (GENERIC_WRITE | GENERIC_ALL | FILE_WRITE_DATA);
    end->name = name;
    end->joined = server ? nullptr : of->now;
    end->of = server ? std::move(of) : nullptr;
    return make_handle(end);
}

HANDLE open_pipe(const std::wstring &name, DWORD access, DWORD disposition, DWORD flags) {
    const auto *found = find_pipe(name);
    if (!found) {
        return refuse(ERROR_FILE_NOT_FOUND), INVALID_HANDLE_VALUE;
    }
    pipe_name &pipe = **found;
    if (disposition != OPEN_EXISTING || !(flags & FILE_FLAG_OVERLAPPED)) { // others are not modelled
        return refuse(ERROR_INVALID_PARAMETER), INVALID_HANDLE_VALUE;
    }
    if (!access_allowed(*acting().who, pipe.sddl, access | SYNCHRONIZE | FILE_READ_ATTRIBUTES)) {
        return refuse(ERROR_ACCESS_DENIED), INVALID_HANDLE_VALUE;
    }
    const auto free = std::find_if(pipe.instances.begin(), pipe.instances.end(),
                                   [](const auto &one) { return one->free(); });
    if (free == pipe.instances.end()) {
        return refuse(ERROR_PIPE_BUSY), INVALID_HANDLE_VALUE;
    }
    part<pipe_world>().client_flags[fold(name)] = flags;
    instance &taken = **free;
    taken.listens = false;
    taken.now = std::make_shared<connection>();
    taken.now->server_id = pipe.server_id;
    taken.now->client_id = acting().id;
    taken.now->to_client.capacity = pipe.out_size;
    taken.now->to_server.capacity = pipe.in_size;
    if (taken.waiting) {
        taken.waiting->finish(ERROR_SUCCESS);
        taken.waiting = nullptr;
    }
    return make_end(false, access, *free, name);
}

// Sets *id to the process at one side of the pipe.
BOOL peer_id(const char *call, HANDLE handle, ULONG *id, bool server) {
    const auto end = asked<pipe_end>(call, handle);
    const auto on = end ? end->current() : nullptr;
    if (!on || on->cut) {
        return end ? refuse(ERROR_PIPE_NOT_CONNECTED) : FALSE;
    }
    *id = server ? on->server_id : on->client_id;
    return TRUE;
}

} // namespace

void thread_has_ended(DWORD id) {
    for (const auto &one : part<pipe_world>().transfers) {
        if (one.second->thread == id && !one.second->seen) {
            breach("ends a thread with a transfer of its own in flight");
            one.second->abandoned = true;
            one.second->finish(ERROR_OPERATION_ABORTED);
            one.second->seen = true;
        }
    }
}

void machine::pipe_pieces(size_t bytes) { part<pipe_world>().piece = bytes ? bytes : SIZE_MAX; }
bool machine::pipe_exists(const std::wstring &name) const { return find_pipe(name) != nullptr; }

std::string machine::pipe_descriptor(const std::wstring &name) const { return (*find_pipe(name))->sddl; }

std::vector<DWORD> machine::pipe_setup(const std::wstring &name) const { return (*find_pipe(name))->setup; }

DWORD machine::pipe_client_flags(const std::wstring &name) const {
    return part<pipe_world>().client_flags[fold(name)];
}

} // namespace winsim

using namespace winsim;

extern "C" {

HANDLE CreateFileW(LPCWSTR name, DWORD access, DWORD share, SECURITY_ATTRIBUTES *security, DWORD disposition,
                   DWORD flags, HANDLE) {
    BEGIN_CALL(INVALID_HANDLE_VALUE);
    return is_pipe_name(name) ? open_pipe(name, access, disposition, flags)
                              : open_file(name, access, share, security, disposition, flags);
}

HANDLE CreateNamedPipeW(LPCWSTR name, DWORD open_mode, DWORD mode, DWORD max_instances, DWORD out_size,
                        DWORD in_size, DWORD timeout_ms, SECURITY_ATTRIBUTES *security) {
    BEGIN_CALL(INVALID_HANDLE_VALUE);
    std::shared_ptr<pipe_name> pipe;
    if (const auto *found = find_pipe(name)) {
        pipe = *found;
        if ((open_mode & FILE_FLAG_FIRST_PIPE_INSTANCE) ||
            !access_allowed(*acting().who, pipe->sddl, FILE_CREATE_PIPE_INSTANCE)) {
            return refuse(ERROR_ACCESS_DENIED), INVALID_HANDLE_VALUE;
        }
        if (pipe->instances.size() >= pipe->max_instances) {
            return refuse(ERROR_PIPE_BUSY), INVALID_HANDLE_VALUE;
        }
    } else {
        pipe = std::make_shared<pipe_name>();
        pipe->name = name;
        pipe->sddl = security ? sddl_of(security->lpSecurityDescriptor) : "D:(A;;GA;;;WD)";
        pipe->max_instances = max_instances;
        pipe->server_id = acting().id;
        pipe->out_size = out_size;
        pipe->in_size = in_size;
        part<pipe_world>().names[fold(name)] = pipe;
    }
    const DWORD inherit = security && security->bInheritHandle;
    pipe->setup = {open_mode, mode, max_instances, out_size, in_size, timeout_ms, inherit};
    pipe->instances.push_back(std::make_shared<instance>());
    pipe->instances.back()->name = pipe;
    return make_end(true, GENERIC_READ | GENERIC_WRITE, pipe->instances.back(), name);
}

BOOL ConnectNamedPipe(HANDLE handle, OVERLAPPED *overlapped) {
    const auto end = asked<pipe_end>(__func__, handle);
    return end && end->server ? end->connect(overlapped) : FALSE;
}

BOOL DisconnectNamedPipe(HANDLE handle) {
    const auto end = asked<pipe_end>(__func__, handle);
    return end && end->server ? (end->disconnect(), TRUE) : FALSE;
}

BOOL GetNamedPipeClientProcessId(HANDLE pipe, ULONG *id) { return peer_id(__func__, pipe, id, false); }
BOOL GetNamedPipeServerProcessId(HANDLE pipe, ULONG *id) { return peer_id(__func__, pipe, id, true); }

// Failing on demand keeps what no failure of the system's takes away: a waiting call waits first, and
// CancelIoEx, which fails only if there is nothing to cancel, cancels.
BOOL GetOverlappedResult(HANDLE file, OVERLAPPED *overlapped, DWORD *moved, BOOL wait) {
    const bool fails = failing(__func__);
    const DWORD demanded = GetLastError();
    const auto end = acting().ended ? nullptr : find_as<pipe_end>(file);
    if (!end) {
        return FALSE;
    }
    const auto &all = part<pipe_world>().transfers;
    const std::shared_ptr<transfer> of = all.contains(overlapped) ? all.at(overlapped) : nullptr;
    if (!of || of->end != end.get()) {
        breach("asks for the result of a transfer that was never begun on " + end->describe());
        return refuse(ERROR_INVALID_PARAMETER);
    }
    if (wait) {
        wait_until([&of] { return of->finished; }, no_deadline, "a transfer's end");
    }
    if (fails) {
        of->seen = of->seen || of->finished;
        return refuse(demanded);
    }
    return of->finished ? end->answer(of, moved) : refuse(ERROR_IO_INCOMPLETE);
}

BOOL CancelIoEx(HANDLE file, OVERLAPPED *overlapped) {
    const bool fails = failing(__func__);
    const DWORD demanded = fails ? GetLastError() : ERROR_NOT_FOUND;
    const auto end = acting().ended ? nullptr : find_as<pipe_end>(file);
    bool any = false;
    for (const auto &[key, of] : part<pipe_world>().transfers) {
        if (end && of->end == end.get() && !of->finished && (!overlapped || key == overlapped)) {
            soon([of = of] { of->finish(ERROR_OPERATION_ABORTED); }); // unless it is done by then
            any = true;
        }
    }
    return any && !fails ? TRUE : end ? refuse(demanded) : FALSE;
}

} // extern "C"
