// Socket addresses on the simulated machine: the compiler's own, which have the same fields.
#ifndef WINSIM_WINSOCK2_H
#define WINSIM_WINSOCK2_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <windows.h>

using SOCKADDR = sockaddr;
using SOCKADDR_IN = sockaddr_in;

#endif
