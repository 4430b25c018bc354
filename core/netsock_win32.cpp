// What netsock asks of Windows: Winsock 2.2 and IP Helper.
#include "netsock_internal.h"

#include <iphlpapi.h>
#include <mstcpip.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>

// Older SDK headers leave this control code out.
#ifndef SIO_UDP_CONNRESET
#define SIO_UDP_CONNRESET _WSAIOW(IOC_VENDOR, 12)
#endif

static_assert(FD_SETSIZE >= NETSOCK_WAIT_MAX);

// Two threads may both find the flag down and start Winsock twice; it counts its users and is never cleaned
// up here, so the second start costs nothing.
int tarn_net_init(void) {
    static std::atomic<bool> started{false};
    if (started.load()) return 0;
    WSADATA data;
    if (WSAStartup(MAKEWORD(2, 2), &data) != 0) return -1;
    started.store(true);
    return 0;
}

netsock_fd netsock_create(int domain) { return socket(domain, SOCK_DGRAM, IPPROTO_UDP); }

void netsock_close(netsock_fd fd) { closesocket(fd); }

bool netsock_unblock(netsock_fd fd) {
    u_long on = 1;
    const bool unblocked = ioctlsocket(fd, static_cast<long>(FIONBIO), &on) == 0;
    // Otherwise a datagram to a closed port would make a later receive fail with WSAECONNRESET.
    BOOL off = FALSE;
    DWORD size = 0;
    WSAIoctl(fd, SIO_UDP_CONNRESET, &off, sizeof off, nullptr, 0, &size, nullptr, nullptr);
    return unblocked;
}

int netsock_wait(const netsock_fd *fds, int count, int timeout_ms) {
    fd_set readable;
    readable.fd_count = static_cast<u_int>(count);
    for (int i = 0; i < count; i++)
        readable.fd_array[i] = fds[i];
    timeval limit;
    limit.tv_sec = timeout_ms / 1000;
    limit.tv_usec = timeout_ms % 1000 * 1000;
    const int ready = select(0, &readable, nullptr, nullptr, &limit);
    if (ready == SOCKET_ERROR) return -1;
    return ready > 0 ? 1 : 0;
}

// The adapters of this machine in a buffer that the caller frees; null on failure. The list may grow between
// two calls, but not for ever.
static IP_ADAPTER_ADDRESSES *read_adapters() {
    const ULONG flags = GAA_FLAG_SKIP_ANYCAST | GAA_FLAG_SKIP_MULTICAST | GAA_FLAG_SKIP_DNS_SERVER;
    ULONG size = 15000; // what the system's documentation advises as a start
    for (int attempt = 0; attempt < 3; attempt++) {
        auto *all = static_cast<IP_ADAPTER_ADDRESSES *>(malloc(size));
        if (!all) return nullptr;
        const ULONG result = GetAdaptersAddresses(AF_INET, flags, nullptr, all, &size);
        if (result == ERROR_SUCCESS) return all;
        free(all);
        if (result != ERROR_BUFFER_OVERFLOW) return nullptr;
    }
    return nullptr;
}

void netsock_adapters(netsock_adapter_fn found, void *user) {
    IP_ADAPTER_ADDRESSES *all = read_adapters();
    for (const IP_ADAPTER_ADDRESSES *at = all; at; at = at->Next) {
        if (at->OperStatus != IfOperStatusUp || at->IfType == IF_TYPE_SOFTWARE_LOOPBACK) continue;
        for (const IP_ADAPTER_UNICAST_ADDRESS *one = at->FirstUnicastAddress; one; one = one->Next) {
            const sockaddr *sa = one->Address.lpSockaddr;
            if (!sa || sa->sa_family != AF_INET) continue;
            sockaddr_in in;
            memcpy(&in, sa, sizeof in);
            uint8_t ip[4];
            memcpy(ip, &in.sin_addr, sizeof ip);
            found(user, ip);
        }
    }
    free(all);
}
