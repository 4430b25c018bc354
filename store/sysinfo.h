// Facts about the machine and small settings of the logged-on user. No state; any thread may call them. Only
// load_or_create_host_id throws, and only in the store's Machine scope; the others report by their result or fall back.
#ifndef SYSINFO_H
#define SYSINFO_H

#include <cstdint>
#include <string>
#include <vector>

// A number that stands for this host in its network, never 0, made once and kept in the store as "host_id". In the
// Machine scope a damaged file or one that can't be written fails the store and throws std::runtime_error; in the User
// scope a damaged one is replaced, and an id that can't be saved lasts as long as the process. Call it once, at start.
uint32_t load_or_create_host_id();

// The computer's name, at most 63 bytes of UTF-8, cut between characters; "Windows PC" if it has none.
std::string computer_name_utf8();

// The running program's path, cut at 520 characters with their terminator; empty if the system doesn't tell.
std::wstring exe_path();

// Start at logon of the current user. Enabled means: for this program at the path where it is now.
bool autostart_enabled();
bool set_autostart(bool enable);

// Lets the firewall pass UDP to this program in private and domain networks, whatever its port: replaces the rule named
// "TarnGlider". Asks the user for elevation, then waits 15 seconds at most. True if the rule is there.
bool add_firewall_rule(uint16_t port);

// 32 random bits, 0 included. If the system's source fails they come from its clock, so they are no key material.
uint32_t random_u32();

// UTF-8 and UTF-16; what is invalid becomes the replacement character.
std::string to_utf8(const std::wstring &text);
std::wstring to_wide(const std::string &text);

// One IPv4 address of an adapter that is up, in the system's order; without loopback and link-local addresses.
struct local_ipv4_interface {
    uint32_t ip;   // network byte order
    uint32_t mask; // likewise
    bool ethernet; // a wired adapter
};
std::vector<local_ipv4_interface> local_ipv4_interfaces();

// The same addresses as labels for display, e.g. "192.168.1.20 (Ethernet)": those of wired adapters first, then
// wireless, then all others, each kind in the system's order.
std::vector<std::string> lan_ipv4_addresses();

#endif
