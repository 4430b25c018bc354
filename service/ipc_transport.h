// Frames over named pipes, and who may be at the other end. Every operation is overlapped and bounded by a time-out in
// milliseconds and by an event that cancels it (or null), so that no peer can hold a thread; none is ever left in
// flight. No state: any number of threads may use different pipes, one thread at a time one pipe.
#ifndef HOST_SERVICE_IPC_TRANSPORT_H
#define HOST_SERVICE_IPC_TRANSPORT_H

#include <cstdint>
#include <string>
#include <vector>

#include <windows.h>

#include "ipc_protocol.h"

namespace host_service {

constexpr wchar_t admin_pipe_name[] = L"\\\\.\\pipe\\TarnGliderHostAdmin-v1";
constexpr DWORD admin_pipe_instances = 4;

// A server end of the pipe, or INVALID_HANDLE_VALUE. admin admits SYSTEM and Administrators, otherwise SYSTEM alone;
// first demands that no instance of that name exists. The caller owns the handle.
HANDLE create_pipe(const std::wstring &name, bool admin, bool first);

// Waits until a client has connected. Ends early, with false, when cancel or peer is signalled; peer is the process
// that is expected to connect, if there is one.
bool connect_pipe(HANDLE pipe, HANDLE cancel, DWORD timeout_ms, HANDLE peer = nullptr);

// A client end, or INVALID_HANDLE_VALUE. Retries every 25 ms while the pipe is busy or missing. The server may identify
// the caller, but not act as it. The caller owns the handle.
HANDLE open_pipe(const std::wstring &name, HANDLE cancel, DWORD timeout_ms);

// One whole frame; header and payload share the time-out. out is replaced on success and unchanged otherwise.
bool read_frame(HANDLE pipe, std::vector<uint8_t> &out, HANDLE cancel, DWORD timeout_ms);

// The same, telling the two kinds of failure apart: after nothing the next frame on the pipe can still be read from its
// first byte, after broken the pipe's place in the stream is lost.
enum class frame_read {
    whole,   // out holds a frame
    nothing, // timed out or cancelled before the first byte
    broken,  // the pipe failed, the header is no header, or the frame stopped in the middle
};
frame_read read_frame_outcome(HANDLE pipe, std::vector<uint8_t> &out, HANDLE cancel, DWORD timeout_ms);

// False, with no byte written, for an empty frame or one above max_frame.
bool write_frame(HANDLE pipe, const std::vector<uint8_t> &frame, HANDLE cancel, DWORD timeout_ms);

// Lets the client read the reply: returns when it has gone or sent a byte, at the time-out, or when cancelled.
void wait_client_close(HANDLE pipe, HANDLE cancel, DWORD timeout_ms);

// The server's test of its client, a running process. With admin: an elevated administrator. Otherwise: the very
// process expected, still running, as SYSTEM, in that session.
bool pipe_client(HANDLE pipe, bool admin, HANDLE expected, DWORD session);

// The client's test of its server: a running SYSTEM process, and the one with the id expected if that isn't 0.
bool pipe_server(HANDLE pipe, DWORD expected);

// A tool's whole exchange with the service. No byte leaves before the server is proved. The status and text are the
// service's; or, made here, unavailable "service unavailable or access denied", denied "untrusted service endpoint",
// failed "bounded IPC request failed". After the last one the service may have acted all the same.
Response transact(const std::wstring &name, const Request &request, HANDLE cancel);

} // namespace host_service

#endif
