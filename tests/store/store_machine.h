// The simulated machine as the store's tests want it: a process that the store runs in, a store that starts over, and
// the lines of the log. hlog is a stand-in here, so one source file of a test includes this.
#ifndef STORE_MACHINE_H
#define STORE_MACHINE_H

#include <algorithm>
#include <cstdarg>
#include <cstdio>

#include <gtest/gtest.h>

#include "service/log.h"
#include "store/keystore_internal.h"
#include "support/winsim/machine.h"

using lines = std::vector<std::string>;

inline constexpr char private_list[] = "O:BAG:BAD:P(A;;FA;;;SY)(A;;FA;;;BA)";
inline constexpr char private_directory[] = "O:BAG:BAD:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)";
inline constexpr char weak_list[] = "O:BAG:BAD:P(A;;FA;;;SY)(A;;FR;;;BU)";
inline constexpr char user_list[] = "D:P(A;;FA;;;S-1-5-21-1-2-3-1001)(A;;FA;;;SY)";

inline lines log_lines;

void host_service::hlog(const char *format, ...) {
    char line[2048];
    va_list list;
    va_start(list, format);
    vsnprintf(line, sizeof line, format, list);
    va_end(list);
    log_lines.push_back(line);
}

// The parts of a text between its bars; an '@' in it stands for a NUL byte.
inline lines split(std::string text) {
    std::replace(text.begin(), text.end(), '@', '\0');
    lines parts(1);
    for (const char c : text) {
        if (c == '|') {
            parts.emplace_back();
        } else {
            parts.back() += c;
        }
    }
    return parts;
}

struct store_machine {
    winsim::machine m;
    const bool machine;
    const std::wstring base =
        machine ? L"C:\\ProgramData\\TarnGlider" : L"C:\\Users\\person\\AppData\\Roaming";
    const std::wstring dir = base + (machine ? L"\\Host" : L"\\TarnGlider");
    const DWORD process =
        m.make_process(machine ? winsim::system_token() : winsim::filtered_admin_token(), L"C:\\store.exe");

    // The store is as configureHostStore leaves it, with an empty directory, or as a process finds it at its start.
    explicit store_machine(bool machine_scope, bool configured = true) : machine(machine_scope) {
        log_lines.clear();
        m.act_as(process);
        keystore::store_state &state = keystore::state();
        state.healthy = true;
        state.failure.clear();
        state.configured = configured;
        state.scope = keystore::HostStoreScope{machine && configured};
        state.machine_dir = machine && configured ? dir : L"";
        if (configured) {
            if (machine) {
                m.make_directory(base, private_directory);
            }
            m.make_directory(dir, machine ? private_directory : m.descriptor(base));
        }
    }
    ~store_machine() { EXPECT_TRUE(m.open_handles(process).empty() && m.breaches().empty()); }

    std::wstring path(const std::wstring &name) const { return dir + L"\\" + name; }
    void put(const std::wstring &name, const std::string &bytes, const char *list = private_list) {
        m.make_file(path(name), machine ? list : std::string("O:S-1-5-21-1-2-3-1001") + user_list, bytes);
    }
    std::string get(const std::wstring &name) const {
        return m.exists(path(name)) ? m.read(path(name)) : "none";
    }
    static std::string sealed(const std::string &plain) {
        std::vector<uint8_t> out;
        EXPECT_TRUE(keystore::dpapi(true, {plain.begin(), plain.end()}, out));
        return {out.begin(), out.end()};
    }
    // What another user of this machine sealed for himself.
    std::string foreign(const std::string &plain) {
        const keystore::HostStoreScope scope = keystore::state().scope;
        keystore::state().scope = keystore::HostStoreScope::User;
        m.act_as(m.make_process(winsim::user_token(), L"C:\\other.exe"));
        const std::string out = sealed(plain);
        m.act_as(process);
        keystore::state().scope = scope;
        return out;
    }
    static std::string health() { // "healthy", or the store's failure
        std::string reason = "healthy";
        keystore::hostStoreHealthy(&reason);
        return reason;
    }
    std::string entries() const { // names in the store's directory
        std::string names;
        for (const std::wstring &found : m.tree(dir)) {
            names.append(found.begin() + static_cast<ptrdiff_t>(dir.size()) + 1, found.end()).append(" ");
        }
        return names;
    }
};

#endif
