// Frames over named pipes, the proof of who is at the other end, and a tool's whole exchange. Every wait has a bound,
// and the system is done with a transfer's record before that record goes out of scope, whichever way a function ends.
#include "ipc_transport.h"

#include <sddl.h>

#include <tarnglider/secure.h>

#include "handles.h"
#include "security.h"

namespace host_service {
namespace {

// Both belong to SYSTEM and inherit nothing.
constexpr wchar_t admin_descriptor[] =
    L"O:SYG:SYD:P(A;;GA;;;SY)(A;;GRGW;;;BA)";                       // Administrators may read and write
constexpr wchar_t worker_descriptor[] = L"O:SYG:SYD:P(A;;GA;;;SY)"; // nobody but SYSTEM

constexpr DWORD pipe_mode = PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS;
constexpr DWORD pipe_instances = admin_pipe_instances; // the same limit for the worker's channels
constexpr DWORD pipe_buffer = max_frame;               // one largest frame each way
constexpr DWORD pipe_default_timeout_ms = 5000;
constexpr DWORD open_retry_ms = 25;
constexpr DWORD exchange_timeout_ms = 5000; // each of a tool's three steps: open, write, read

// How one operation, or a row of them, ended: whole, nothing (timed out or cancelled with no byte moved), broken.
using io_end = frame_read;

// One overlapped operation. The system may write to the record until the operation is over, so the destructor cancels
// what is still in flight and waits for its end.
class transfer {
public:
    explicit transfer(HANDLE pipe) : pipe_(pipe), event_(CreateEventW(nullptr, TRUE, FALSE, nullptr)) {
        record_.hEvent = event_.get();
    }
    transfer(const transfer &) = delete;
    transfer &operator=(const transfer &) = delete;
    ~transfer() { stop(); }

    bool made() const { return static_cast<bool>(event_); }

    // start is given the record and answers as ReadFile does. False, with its last error, if nothing was started.
    template <class Start>
    bool begin(Start start) {
        if (start(&record_)) {
            return true;
        }
        pending_ = GetLastError() == ERROR_IO_PENDING;
        return pending_;
    }

    // The end of what was begun; moved is the number of bytes. The transfer's own event stands first in the wait: what
    // has finished counts, even if cancel is signalled too.
    io_end finish(HANDLE cancel, HANDLE peer, DWORD timeout_ms, DWORD *moved) {
        if (pending_) {
            HANDLE any[3] = {event_.get()};
            DWORD count = 1;
            for (HANDLE other : {cancel, peer}) {
                if (other != nullptr) {
                    any[count++] = other;
                }
            }
            const DWORD answer = WaitForMultipleObjects(count, any, FALSE, timeout_ms);
            if (answer != WAIT_OBJECT_0) {
                return stop() && answer != WAIT_FAILED ? io_end::nothing : io_end::broken;
            }
        }
        if (!GetOverlappedResult(pipe_, &record_, moved, FALSE)) {
            return io_end::broken;
        }
        pending_ = false;
        return io_end::whole;
    }

private:
    // True if the operation was cut short; false if it had ended, well or badly, before that.
    bool stop() {
        if (!pending_) {
            return false;
        }
        pending_ = false;
        DWORD moved = 0;
        CancelIoEx(pipe_, &record_);
        return !GetOverlappedResult(pipe_, &record_, &moved, TRUE) &&
               GetLastError() == ERROR_OPERATION_ABORTED;
    }

    HANDLE pipe_;
    unique_handle event_;
    OVERLAPPED record_ = {};
    bool pending_ = false;
};

DWORD time_left(uint64_t deadline) {
    const uint64_t now = GetTickCount64();
    return now < deadline ? static_cast<DWORD>(deadline - now) : 0;
}

// Moves length bytes in as many transfers as it takes. start(done, left, record) begins the transfer of the bytes from
// done on. Bytes that all arrived, but after the deadline, are a failure too.
template <class Start>
io_end io(HANDLE pipe, size_t length, Start start, HANDLE cancel, uint64_t deadline) {
    size_t done = 0;
    while (done < length) {
        const DWORD left = static_cast<DWORD>(length - done); // at most max_frame
        DWORD moved = 0;
        transfer step(pipe);
        if (!step.made() || !step.begin([&](OVERLAPPED *record) { return start(done, left, record); })) {
            return io_end::broken;
        }
        const io_end end = step.finish(cancel, nullptr, time_left(deadline), &moved);
        if (end != io_end::whole) {
            return done == 0 ? end : io_end::broken;
        }
        if (moved == 0 || moved > left) {
            return io_end::broken;
        }
        done += moved;
        if (GetTickCount64() > deadline) {
            return io_end::broken;
        }
    }
    return io_end::whole;
}

io_end read_bytes(HANDLE pipe, uint8_t *bytes, size_t length, HANDLE cancel, uint64_t deadline) {
    const auto start = [&](size_t done, DWORD left, OVERLAPPED *record) {
        return ReadFile(pipe, bytes + done, left, nullptr, record);
    };
    return io(pipe, length, start, cancel, deadline);
}

io_end write_bytes(HANDLE pipe, const uint8_t *bytes, size_t length, HANDLE cancel, uint64_t deadline) {
    const auto start = [&](size_t done, DWORD left, OVERLAPPED *record) {
        return WriteFile(pipe, bytes + done, left, nullptr, record);
    };
    return io(pipe, length, start, cancel, deadline);
}

// True once the pause is over, false if cancel ended it.
bool pause(HANDLE cancel, DWORD ms) {
    if (cancel == nullptr) {
        Sleep(ms);
        return true;
    }
    return WaitForSingleObject(cancel, ms) == WAIT_TIMEOUT;
}

bool running(HANDLE process) { return WaitForSingleObject(process, 0) == WAIT_TIMEOUT; }

unique_handle open_peer(DWORD id) {
    return unique_handle(OpenProcess(SYNCHRONIZE | PROCESS_QUERY_LIMITED_INFORMATION, FALSE, id));
}

// A request's frame; it may hold a password.
struct wiped_frame {
    std::vector<uint8_t> bytes;
    ~wiped_frame() { tarn_secure_wipe(bytes.data(), bytes.size()); }
};

} // namespace

HANDLE create_pipe(const std::wstring &name, bool admin, bool first) {
    unique_descriptor descriptor;
    if (!ConvertStringSecurityDescriptorToSecurityDescriptorW(admin ? admin_descriptor : worker_descriptor,
                                                              SDDL_REVISION_1, descriptor.put(), nullptr)) {
        return INVALID_HANDLE_VALUE;
    }
    SECURITY_ATTRIBUTES attributes = {};
    attributes.nLength = sizeof attributes;
    attributes.lpSecurityDescriptor = descriptor.get();
    attributes.bInheritHandle = FALSE;
    const DWORD access =
        PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED | (first ? FILE_FLAG_FIRST_PIPE_INSTANCE : 0u);
    return CreateNamedPipeW(name.c_str(), access, pipe_mode, pipe_instances, pipe_buffer, pipe_buffer,
                            pipe_default_timeout_ms, &attributes);
}

bool connect_pipe(HANDLE pipe, HANDLE cancel, DWORD timeout_ms, HANDLE peer) {
    transfer connection(pipe);
    if (!connection.made()) {
        return false;
    }
    if (!connection.begin([&](OVERLAPPED *record) { return ConnectNamedPipe(pipe, record); })) {
        return GetLastError() == ERROR_PIPE_CONNECTED; // a client came between creation and this call
    }
    DWORD moved = 0;
    return connection.finish(cancel, peer, timeout_ms, &moved) == io_end::whole;
}

HANDLE open_pipe(const std::wstring &name, HANDLE cancel, DWORD timeout_ms) {
    // A server may see who its client is, but never act as an elevated tool that ran into a fake pipe.
    constexpr DWORD flags = FILE_FLAG_OVERLAPPED | SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION;
    const uint64_t deadline = GetTickCount64() + timeout_ms;
    for (;;) {
        HANDLE pipe = CreateFileW(name.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                  flags, nullptr);
        if (pipe != INVALID_HANDLE_VALUE) {
            return pipe;
        }
        const DWORD error = GetLastError();
        if (error != ERROR_PIPE_BUSY && error != ERROR_FILE_NOT_FOUND) {
            return INVALID_HANDLE_VALUE;
        }
        if (!pause(cancel, open_retry_ms) || GetTickCount64() >= deadline) {
            return INVALID_HANDLE_VALUE;
        }
    }
}

frame_read read_frame_outcome(HANDLE pipe, std::vector<uint8_t> &out, HANDLE cancel, DWORD timeout_ms) {
    const uint64_t deadline = GetTickCount64() + timeout_ms;
    std::vector<uint8_t> frame(header_size);
    const frame_read header = read_bytes(pipe, frame.data(), header_size, cancel, deadline);
    if (header != frame_read::whole) {
        return header;
    }
    uint16_t verb = 0;
    uint32_t length = 0;
    if (!decode_header(frame.data(), frame.size(), &verb, &length)) {
        return frame_read::broken;
    }
    frame.resize(header_size + length);
    if (read_bytes(pipe, frame.data() + header_size, length, cancel, deadline) != frame_read::whole) {
        return frame_read::broken;
    }
    out.swap(frame);
    return frame_read::whole;
}

bool read_frame(HANDLE pipe, std::vector<uint8_t> &out, HANDLE cancel, DWORD timeout_ms) {
    return read_frame_outcome(pipe, out, cancel, timeout_ms) == frame_read::whole;
}

bool write_frame(HANDLE pipe, const std::vector<uint8_t> &frame, HANDLE cancel, DWORD timeout_ms) {
    if (frame.empty() || frame.size() > max_frame) {
        return false;
    }
    return write_bytes(pipe, frame.data(), frame.size(), cancel, GetTickCount64() + timeout_ms) ==
           io_end::whole;
}

void wait_client_close(HANDLE pipe, HANDLE cancel, DWORD timeout_ms) {
    uint8_t ignored = 0;
    DWORD moved = 0;
    transfer rest(pipe);
    if (rest.made() &&
        rest.begin([&](OVERLAPPED *record) { return ReadFile(pipe, &ignored, 1, nullptr, record); })) {
        rest.finish(cancel, nullptr, timeout_ms, &moved);
    }
}

bool pipe_client(HANDLE pipe, bool admin, HANDLE expected, DWORD session) {
    ULONG id = 0;
    if (!GetNamedPipeClientProcessId(pipe, &id)) {
        return false;
    }
    const unique_handle client = open_peer(id);
    if (!client || !running(client.get())) {
        return false;
    }
    if (admin) {
        return elevated_admin_process(client.get());
    }
    DWORD client_session = 0;
    return expected != nullptr && GetProcessId(expected) == id && running(expected) &&
           system_process(client.get(), &client_session) && client_session == session;
}

bool pipe_server(HANDLE pipe, DWORD expected) {
    ULONG id = 0;
    if (!GetNamedPipeServerProcessId(pipe, &id) || id == 0) {
        return false;
    }
    if (expected != 0 && expected != id) {
        return false;
    }
    const unique_handle server = open_peer(id);
    return server && system_process(server.get()) && running(server.get());
}

Response transact(const std::wstring &name, const Request &request, HANDLE cancel) {
    const unique_file pipe(open_pipe(name, cancel, exchange_timeout_ms));
    if (!pipe) {
        return {Status::unavailable, "service unavailable or access denied"};
    }
    if (!pipe_server(pipe.get(), 0)) {
        return {Status::denied, "untrusted service endpoint"};
    }
    const wiped_frame frame = {encode_request(request)};
    std::vector<uint8_t> reply;
    Response response;
    if (write_frame(pipe.get(), frame.bytes, cancel, exchange_timeout_ms) &&
        read_frame(pipe.get(), reply, cancel, exchange_timeout_ms) &&
        decode_response(reply.data(), reply.size(), request.verb, &response.status, &response.text)) {
        return response;
    }
    return {Status::failed, "bounded IPC request failed"};
}

} // namespace host_service
