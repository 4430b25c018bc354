// The list of network adapters on the simulated machine.
#ifndef WINSIM_IPHLPAPI_H
#define WINSIM_IPHLPAPI_H

#include <winsock2.h>

constexpr ULONG GAA_FLAG_SKIP_ANYCAST = 0x2, GAA_FLAG_SKIP_MULTICAST = 0x4, GAA_FLAG_SKIP_DNS_SERVER = 0x8;
constexpr DWORD IF_TYPE_ETHERNET_CSMACD = 6, IF_TYPE_SOFTWARE_LOOPBACK = 24, IF_TYPE_IEEE80211 = 71;
enum IF_OPER_STATUS { IfOperStatusUp = 1, IfOperStatusDown = 2 };

struct IP_ADAPTER_UNICAST_ADDRESS {
    IP_ADAPTER_UNICAST_ADDRESS *Next;
    struct {
        sockaddr *lpSockaddr;
        int iSockaddrLength;
    } Address;
    BYTE OnLinkPrefixLength;
};
struct IP_ADAPTER_ADDRESSES {
    IP_ADAPTER_ADDRESSES *Next;
    IP_ADAPTER_UNICAST_ADDRESS *FirstUnicastAddress;
    PWSTR FriendlyName;
    DWORD IfType;
    IF_OPER_STATUS OperStatus;
};

extern "C" {
ULONG GetAdaptersAddresses(ULONG family, ULONG flags, PVOID reserved, IP_ADAPTER_ADDRESSES *out, ULONG *size);
DWORD ConvertLengthToIpv4Mask(ULONG length, ULONG *mask);
}

#endif
