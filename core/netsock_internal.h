// The inside of netsock: what it asks of the platform, and the parts that tests drive with data of their own.
// This is the one header of the library that names system headers; netsock's sources alone include it.
#ifndef TARN_NETSOCK_INTERNAL_H
#define TARN_NETSOCK_INTERNAL_H

#if defined(_WIN32)
#include <winsock2.h>
#include <ws2tcpip.h>
typedef SOCKET netsock_fd;
typedef int netsock_size; // of a buffer in sendto and recvfrom
#else
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
typedef int netsock_fd;
typedef size_t netsock_size;
#endif

#include <stddef.h>
#include <stdint.h>

#include <tarnglider/netsock.h>

// Platform (netsock_posix.cpp, netsock_win32.cpp), besides tarn_net_init.

// A bare UDP socket of AF_INET or AF_INET6, or the cast of TARN_SOCKET_NONE.
netsock_fd netsock_create(int domain);
void netsock_close(netsock_fd fd);
// Makes the socket non-blocking and keeps ICMP errors from surfacing in a receive. False if it would block.
bool netsock_unblock(netsock_fd fd);
// Waits for one of 1 to NETSOCK_WAIT_MAX distinct sockets; results as tarn_udp_wait. timeout_ms is not
// negative.
enum { NETSOCK_WAIT_MAX = 64 };
int netsock_wait(const netsock_fd *fds, int count, int timeout_ms);
// Names every IPv4 address of the adapters that are up and no loopback, in the system's order; none on
// failure.
typedef void (*netsock_adapter_fn)(void *user, const uint8_t ip[4]);
void netsock_adapters(netsock_adapter_fn found, void *user);

// The name service (netsock_lookup.cpp, alone in its file so that a test can put its own in its place): names
// every answer in order, as a socket address. Returns 0 or -1.
typedef void (*netsock_answer_fn)(void *user, const void *sa, size_t len);
int netsock_lookup(const char *name, netsock_answer_fn answer, void *user);

// The addresses that tarn_net_local_endpoints found so far.
enum { NETSOCK_LOCAL_MAX = 16 };
struct netsock_local {
    tarn_addr list[NETSOCK_LOCAL_MAX];
    int count;
};
// Takes one address, unless it is unfit to be offered, known already, or one too many.
void netsock_local_add(netsock_local *local, const uint8_t ip[4]);
// Fills `out`: private addresses first, then the others, each in order of arrival. Returns their number.
int netsock_local_pick(const netsock_local *local, tarn_addr *out, int max, uint16_t port);

// Resolves a bare name, IPv4 before everything else; the port is 0. `out` is written on success only. 0 or
// -1.
int resolve_name(const char *name, tarn_addr *out);

#endif
