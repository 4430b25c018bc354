// The machine's IPv4 addresses, and their order for display by kind of adapter: wired, wireless, anything else. Asked
// for by a user, so it allocates freely; no state.
#include "sysinfo.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include <winsock2.h>

#include <iphlpapi.h>
#include <ws2tcpip.h>

namespace {

struct AdapterAddr {
    uint32_t ip;   // network byte order
    uint32_t mask; // likewise
    std::wstring name;
    bool ethernet;
    bool wifi;
};

// The system's list in `buffer`; null if it can't be had. Adapters may come and go between two calls, so the size that
// one call reports may be too small for the next.
const IP_ADAPTER_ADDRESSES *list_adapters(std::vector<uint8_t> &buffer) {
    constexpr ULONG first_size = 16384;
    constexpr int calls = 3;
    ULONG size = first_size;
    for (int call = 0; call < calls; call++) {
        buffer.resize(size);
        IP_ADAPTER_ADDRESSES *list = reinterpret_cast<IP_ADAPTER_ADDRESSES *>(buffer.data());
        const ULONG result = GetAdaptersAddresses(
            AF_INET, GAA_FLAG_SKIP_ANYCAST | GAA_FLAG_SKIP_MULTICAST | GAA_FLAG_SKIP_DNS_SERVER, nullptr,
            list, &size);
        if (result == ERROR_SUCCESS) {
            return list;
        }
        if (result != ERROR_BUFFER_OVERFLOW) {
            return nullptr;
        }
    }
    return nullptr;
}

bool link_local(uint32_t ip) {
    uint8_t bytes[4];
    std::memcpy(bytes, &ip, sizeof bytes);
    return bytes[0] == 169 && bytes[1] == 254;
}

void add_addresses(const IP_ADAPTER_ADDRESSES &adapter, std::vector<AdapterAddr> &out) {
    for (const IP_ADAPTER_UNICAST_ADDRESS *at = adapter.FirstUnicastAddress; at; at = at->Next) {
        const sockaddr *address = at->Address.lpSockaddr;
        if (!address || address->sa_family != AF_INET) {
            continue;
        }
        sockaddr_in v4;
        std::memcpy(&v4, address, sizeof v4);
        if (link_local(v4.sin_addr.s_addr)) {
            continue;
        }
        ULONG mask = 0;
        ConvertLengthToIpv4Mask(at->OnLinkPrefixLength, &mask);
        out.push_back({static_cast<uint32_t>(v4.sin_addr.s_addr), static_cast<uint32_t>(mask),
                       adapter.FriendlyName ? adapter.FriendlyName : L"",
                       adapter.IfType == IF_TYPE_ETHERNET_CSMACD, adapter.IfType == IF_TYPE_IEEE80211});
    }
}

std::vector<AdapterAddr> adapters() {
    std::vector<uint8_t> buffer;
    std::vector<AdapterAddr> out;
    for (const IP_ADAPTER_ADDRESSES *at = list_adapters(buffer); at; at = at->Next) {
        if (at->OperStatus == IfOperStatusUp && at->IfType != IF_TYPE_SOFTWARE_LOOPBACK) {
            add_addresses(*at, out);
        }
    }
    return out;
}

std::string label(const AdapterAddr &adapter) {
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &adapter.ip, text, sizeof text);
    return std::string(text) + " (" + to_utf8(adapter.name) + ")";
}

int rank(const AdapterAddr &adapter) { return adapter.ethernet ? 0 : adapter.wifi ? 1 : 2; }

} // namespace

std::vector<local_ipv4_interface> local_ipv4_interfaces() {
    std::vector<local_ipv4_interface> out;
    for (const AdapterAddr &adapter : adapters()) {
        out.push_back({adapter.ip, adapter.mask, adapter.ethernet});
    }
    return out;
}

std::vector<std::string> lan_ipv4_addresses() {
    std::vector<AdapterAddr> found = adapters();
    std::stable_sort(found.begin(), found.end(),
                     [](const AdapterAddr &a, const AdapterAddr &b) { return rank(a) < rank(b); });
    std::vector<std::string> labels;
    for (const AdapterAddr &adapter : found) {
        labels.push_back(label(adapter));
    }
    return labels;
}
