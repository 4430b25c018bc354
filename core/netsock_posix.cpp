// What netsock asks of a POSIX system.
#include "netsock_internal.h"

#include <errno.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <poll.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

int tarn_net_init(void) { return 0; }

netsock_fd netsock_create(int domain) { return socket(domain, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP); }

void netsock_close(netsock_fd fd) { close(fd); }

// An unconnected socket never sees ICMP errors here, so there is nothing to switch off.
bool netsock_unblock(netsock_fd fd) {
    int on = 1;
    return ioctl(fd, FIONBIO, &on) == 0;
}

// poll, since select can't watch a descriptor of FD_SETSIZE or above, and a program with many files may well
// get one.
int netsock_wait(const netsock_fd *fds, int count, int timeout_ms) {
    pollfd watch[NETSOCK_WAIT_MAX];
    for (int i = 0; i < count; i++) {
        if (fds[i] < 0) return -1; // poll itself would pass over it
        watch[i] = {fds[i], POLLIN, 0};
    }
    const int ready = poll(watch, static_cast<nfds_t>(count), timeout_ms);
    if (ready < 0) return errno == EINTR ? 0 : -1; // a signal wakes the caller, who may want to stop
    for (int i = 0; i < count; i++) {
        if (watch[i].revents & POLLNVAL) return -1;
    }
    return ready > 0 ? 1 : 0;
}

void netsock_adapters(netsock_adapter_fn found, void *user) {
    ifaddrs *all = nullptr;
    if (getifaddrs(&all) != 0) return;
    for (const ifaddrs *at = all; at; at = at->ifa_next) {
        // IFF_UP is the administrator's wish, IFF_RUNNING the operational state.
        const bool up = (at->ifa_flags & IFF_UP) && (at->ifa_flags & IFF_RUNNING);
        if (!up || (at->ifa_flags & IFF_LOOPBACK)) continue;
        if (!at->ifa_addr || at->ifa_addr->sa_family != AF_INET) continue;
        sockaddr_in in;
        memcpy(&in, at->ifa_addr, sizeof in);
        uint8_t ip[4];
        memcpy(ip, &in.sin_addr, sizeof ip);
        found(user, ip);
    }
    freeifaddrs(all);
}
