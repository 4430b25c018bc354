// The system facts: the host id in both scopes, what names and addresses are cut and sorted to, and the settings of the
// logged-on user.
#include "store/sysinfo.h"
#include "store_machine.h"

namespace {

TEST(sysinfo, stored_host_id) {
    const struct {
        uint32_t machine, user; // 0: refused there, made anew here
        lines texts;
    } rows[] = {
        {123, 123, split("123\n|123\r\n|123|0123\n\n|\t 123")},
        {0, 123, split("123 |123 \r\n")},
        {0, 0,
         split("123\t|12 "
               "3|abc|123abc||\n|0\n|-4294967173|+123|0x10|18446744073709551739|123\n@|123@|4294967296")},
        {~0u, ~0u, split("4294967295")},
        {0, 7, {"7" + std::string(254, '\n') + "x"}}, // 255 bytes are looked at
        {0, 0, {"7" + std::string(253, '\n') + "x"}},
    };
    for (const auto &row : rows) {
        for (size_t i = 0; i < 2 * row.texts.size(); i++) {
            const std::string &text = row.texts[i / 2];
            const uint32_t expected = i % 2 ? row.machine : row.user;
            store_machine s(i % 2);
            s.put(L"host_id", text);
            s.put(L"host_id.tmp", std::string(40, 'x')); // of a start that was cut off
            if (s.machine && expected == 0) {
                EXPECT_THROW(load_or_create_host_id(), std::runtime_error) << text;
                EXPECT_EQ(s.health() + s.get(L"host_id"), "machine host id malformed" + text);
                continue;
            }
            const uint32_t id = load_or_create_host_id();
            EXPECT_TRUE(expected == 0 ? id != 0 && id != 123 : id == expected) << text;
            EXPECT_EQ(s.get(L"host_id"), expected == 0 ? std::to_string(id) + "\n" : text);
            EXPECT_TRUE(log_lines.empty() && s.health() == "healthy");
        }
    }
}

// Every call of making one fails in turn: it is kept, or somebody is told.
TEST(sysinfo, new_host_id) {
    for (const bool machine : {true, false}) {
        std::string failed = "first";
        for (int nth = 1; !failed.empty(); nth++) {
            store_machine s(machine);
            s.m.fail_nth_call(nth, 31);
            uint32_t id = 0;
            try {
                id = load_or_create_host_id();
            } catch (const std::runtime_error &failure) {
                log_lines.push_back(failure.what());
            }
            failed = s.m.failed_call();
            s.m.clear_failures();
            const bool kept = s.get(L"host_id") == std::to_string(id) + "\n";
            EXPECT_EQ(id == 0, machine && !kept) << failed;
            const char *told = !machine ? "warning: could not persist the host id"
                               : s.health() == "machine file unreadable"
                                   ? "machine file unreadable"
                                   : "machine host id persistence failed";
            EXPECT_EQ(log_lines, kept ? lines() : lines{told}) << failed;
        }
    }
    store_machine s(false);
    LARGE_INTEGER before, after;
    QueryPerformanceCounter(&before);
    s.m.fail("BCryptGenRandom", 31);
    const uint32_t number = random_u32();
    QueryPerformanceCounter(&after);
    bool found = false;
    for (LONGLONG at = before.QuadPart; at <= after.QuadPart; at++) {
        found = found || number == ((static_cast<uint32_t>(at) * 0x9e3779b1u) ^ s.process);
    }
    EXPECT_TRUE(found && random_u32() != random_u32());
}

TEST(sysinfo, computer_name) {
    const auto letters = [](size_t count) { return std::string(count, 'a'); };
    const std::string umlaut = "\xC3\xA4", emoji = "\xF0\x9F\x98\x80";
    const lines rows[] = {
        // the two names, and what becomes of them
        {"pc", "PC", "pc"},
        {"", "PC", "PC"},
        {"", "", "Windows PC"},
        {letters(63), "", letters(63)},
        {letters(70), "", letters(63)},
        {letters(62) + umlaut, "", letters(62)},
        {letters(61) + umlaut + "b", "", letters(61) + umlaut},
        {letters(60) + emoji, "", letters(60)},
        {letters(59) + emoji + "b", "", letters(59) + emoji},
    };
    store_machine s(false);
    for (const lines &row : rows) {
        s.m.set_computer_name(to_wide(row[0]), to_wide(row[1]));
        EXPECT_EQ(computer_name_utf8(), row[2]);
    }
    EXPECT_TRUE(to_utf8(L"").empty() && to_wide("").empty());
}

TEST(sysinfo, start_at_logon) {
    const wchar_t key[] = L"HKCU\\Software\\Microsoft\\Windows\\CurrentVersion\\Run", value[] = L"TarnGlider";
    store_machine s(false);
    EXPECT_EQ(exe_path(), L"C:\\store.exe");
    EXPECT_FALSE(autostart_enabled());
    EXPECT_TRUE(set_autostart(false)) << "nothing to take away";
    EXPECT_TRUE(set_autostart(true) && autostart_enabled());
    EXPECT_EQ(s.m.registry_text(key, value), std::wstring(L"\"C:\\store.exe\"\0", 15));
    for (const char *call :
         {"RegCreateKeyExW", "RegSetValueExW", "RegDeleteValueW", "RegGetValueW", "GetModuleFileNameW"}) {
        s.m.fail(call, 5, 1, 3);
        EXPECT_TRUE(call[3] != 'G' && *call != 'G' ? !set_autostart(call[3] != 'D') : !autostart_enabled())
            << call;
        s.m.clear_failures();
    }
    const std::wstring blanks(507, L' ');
    const std::pair<std::wstring, bool> rows[] = {
        {exe_path(), true}, {L"\"C:\\store.exe\" -x", true}, {L"\"D:\\store.exe\"", false},
        {L"", false},       {blanks + exe_path(), true},     {blanks + L" " + exe_path(), false}};
    for (const auto &[text, enabled] : rows) {
        s.m.set_registry(key, value, text);
        EXPECT_EQ(autostart_enabled(), enabled) << to_utf8(text);
    }
    EXPECT_TRUE(set_autostart(false) && s.m.registry_text(key, value).empty());
    s.m.act_as(s.m.make_process(winsim::user_token(), L"C:\\" + std::wstring(600, L'x')));
    EXPECT_EQ(exe_path(), L"C:\\" + std::wstring(516, L'x'));
    s.m.act_as(s.process);
}

TEST(sysinfo, firewall) {
    const wchar_t shell[] = L"C:\\Windows\\System32\\cmd.exe";
    const struct {
        DWORD ms, code;
        bool there;
    } rows[] = {{0, 0, true}, {14999, 0, true}, {15001, 0, false}, {0, 1, false}, {0, STILL_ACTIVE, false}};
    store_machine s(false);
    EXPECT_FALSE(add_firewall_rule(1)) << "no process";
    for (const auto &row : rows) {
        s.m.install_program(shell, [&](const std::wstring &) { return Sleep(row.ms), row.code; });
        EXPECT_EQ(add_firewall_rule(9876), row.there) << row.ms;
        s.m.run_for(20000);
    }
    const winsim::shell_start start = s.m.shell_starts().back();
    EXPECT_TRUE(start.verb == L"runas" && start.file == shell && start.show == SW_HIDE);
    EXPECT_EQ(
        to_utf8(start.parameters),
        R"(/c netsh advfirewall firewall delete rule name="TarnGlider" >nul 2>&1 & netsh advfirewall firewall )"
        R"(add rule name="TarnGlider" dir=in action=allow program="C:\store.exe" protocol=UDP )"
        R"(profile=private,domain)");
    for (const char *call :
         {"ShellExecuteExW", "GetSystemDirectoryW", "WaitForSingleObject", "GetExitCodeProcess"}) {
        s.m.install_program(shell, [](const std::wstring &) { return 0u; });
        s.m.fail(call, 1223);
        EXPECT_FALSE(add_firewall_rule(1)) << call;
        s.m.clear_failures();
    }
}

TEST(sysinfo, lan_addresses) {
    store_machine s(false);
    s.m.set_adapters({{L"Tailscale", 53, {"100.64.0.1/32"}},
                      {L"WLAN", 71, {"192.168.1.9/24"}},
                      {L"Zweite B\u00FCro", 6, {"fe80::1/64", "10.0.0.2/8", "169.254.1.1/16", "10.0.0.1/8"}},
                      {L"off", 6, {"10.1.1.1/8"}, false},
                      {L"", 6, {"169.253.0.1/15", "168.254.0.1/32", "10.0.0.2/0"}},
                      {L"Loopback", 24, {"127.0.0.1/8"}}});
    EXPECT_EQ(lan_ipv4_addresses(),
              (lines{"10.0.0.2 (Zweite B\xC3\xBCro)", "10.0.0.1 (Zweite B\xC3\xBCro)", "169.253.0.1 ()",
                     "168.254.0.1 ()", "10.0.0.2 ()", "192.168.1.9 (WLAN)", "100.64.0.1 (Tailscale)"}));
    std::string all; // host byte order of a little-endian machine, as the addresses lie in memory
    for (const local_ipv4_interface &one : local_ipv4_interfaces()) {
        char text[32];
        snprintf(text, sizeof text, "%x/%x%s ", one.ip, one.mask, one.ethernet ? "e" : "");
        all += text;
    }
    EXPECT_EQ(all, "1004064/ffffffff 901a8c0/ffffff 200000a/ffe 100000a/ffe 100fda9/feffe 100fea8/ffffffffe "
                   "200000a/0e ");
    for (const DWORD error : {31u, 111u}) {
        s.m.fail("GetAdaptersAddresses", error, 1, error == 31 ? 1 : 3);
        EXPECT_TRUE(lan_ipv4_addresses().empty());
        s.m.clear_failures();
    }
    winsim::adapter big{L"big"}; // too large a list for the first call; its addresses keep their order
    lines labels;
    for (int i = 0; i < 1000; i++) {
        const std::string address = "10.0." + std::to_string(i % 7) + "." + std::to_string(i / 7);
        big.addresses.push_back(address + "/8");
        labels.push_back(address + " (big)");
    }
    s.m.set_adapters({big});
    EXPECT_EQ(lan_ipv4_addresses(), labels);
    for (const int calls : {1, 2}) { // too little room; the next one tells how much; the third is the last
        s.m.fail("GetAdaptersAddresses", 111, 1, calls);
        EXPECT_EQ(lan_ipv4_addresses().size(), calls == 1 ? 1000u : 0u);
    }
    s.m.set_adapters({});
    EXPECT_TRUE(lan_ipv4_addresses().empty());
}

} // namespace
