// Where the programs meet people and those who pose as them: how many PINs may be guessed, where a secret comes from,
// which host a name means, what a clipboard takes, and when a path is cut.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <utility>
#include <vector>

#include "client/host_book.h"
#include "client/path_cut.h"
#include "common/clip_link.h"
#include "common/secret.h"
#include "common/stream_protocol.h"
#include "host/window_guard.h"

static tarn_addr at(const std::string &text) {
    tarn_addr addr{};
    EXPECT_EQ(tarn_addr_parse(&addr, text.c_str(), 0), 0) << text;
    return addr;
}

TEST(WindowGuard, ClosesAtTheFifthPinAndNamesTheGuessers) {
    app::window_guard guard;
    for (const bool again : {false, true}) {
        guard.opened();
        EXPECT_EQ(guard.sources(), "") << again;
        for (int i = 0; i < 3; i++) // from many ports of one machine
            guard.failed(at("192.0.2.7:" + std::to_string(1000 + i)));
        guard.failed(at("198.51.100.1:1"));
        for (int i = 0; i < 4; i++)
            EXPECT_FALSE(guard.pin_replaced()) << i;
        EXPECT_TRUE(guard.pin_replaced());
        EXPECT_EQ(guard.sources(), "192.0.2.7 (3), 198.51.100.1 (1)");
    }
    // A guesser with a network of addresses fills no memory and no screen, and the busiest stay in sight.
    for (int i = 0; i < 6; i++)
        guard.failed(at("[2001:db8::" + std::to_string(i + 1) + "]:9"));
    for (int i = 0; i < 1000; i++)
        guard.failed(at("203.0.113." + std::to_string(i % 250) + ":9"));
    guard.failed(at("[2001:db8::6]:10"));
    const std::string told = guard.sources();
    EXPECT_EQ(told.find("192.0.2.7 (3), [2001:db8::6] (2), 198.51.100.1 (1), "), 0u) << told;
    EXPECT_NE(told.find(", others (1000)"), std::string::npos) << told;
}

TEST(Secret, TakesOneLineOfAFile) {
    const std::string most(255, 'x');
    const std::vector<std::pair<std::string, const char *>> rows = {
        {"123456", "123456"},
        {"123456\n", "123456"},
        {"123456\r\nwhatever", "123456"},
        {" a b \n", " a b "},
        {most + "\n", most.c_str()},
        {most + "x", nullptr},
        {"", nullptr},
        {"\nsecond", nullptr},
        {"\r\n", nullptr},
        {std::string("a\0b", 3), nullptr}, // null: refused
    };
    const auto path = std::filesystem::temp_directory_path() /
                      ("tarn-secret-" + std::to_string(reinterpret_cast<uintptr_t>(&rows)));
    for (const auto &[content, secret] : rows) {
        std::ofstream(path, std::ios::binary) << content;
        app::secret_text out;
        const app::secret_sources sources = {path, "TARN_NO_SUCH_VARIABLE", "", false};
        if (secret != nullptr) {
            EXPECT_NO_THROW(app::read_secret(sources, out)) << content;
            EXPECT_EQ(out.text, secret);
        } else {
            EXPECT_THROW(app::read_secret(sources, out), std::runtime_error) << content;
        }
    }
    std::filesystem::remove(path);
    app::secret_text out;
    EXPECT_THROW(app::read_secret({path, "", "", false}, out), std::runtime_error)
        << "a file that is named and missing is no reason to ask elsewhere";
}

static app::public_key key_of(uint8_t number) {
    app::public_key key{};
    key[0] = number;
    return key;
}

TEST(HostBook, FindsTheHostThatIsMeant) {
    tarn_host_list list{};
    const auto add = [&](uint8_t number, const std::string &name, const char *lan) {
        tarn_host_entry host{};
        std::memcpy(host.key, key_of(number).data(), 32);
        name.copy(host.name, sizeof host.name - 1);
        if (lan != nullptr) host.lan_addr = at(lan);
        host.direct_addr = at("203.0.113.5:7000");
        ASSERT_GE(tarn_host_list_put(&list, &host), 0);
    };
    const std::string code2 = app::key_code(key_of(2).data());
    add(1, "den", "192.168.1.9:9876");
    add(2, "attic", nullptr);
    add(3, "twin", nullptr);
    add(4, "twin", nullptr);
    add(5, code2, nullptr); // a host may call itself whatever it likes
    const std::vector<std::pair<std::string, int>> rows = {
        {"den", 1},
        {"attic", 2},
        {code2, 2}, // a name last
        {app::key_text(key_of(3).data()), 3},
        {app::key_code(key_of(4).data()), 4},
        {app::key_text(key_of(9).data()), 9}}; // a server may know it
    for (const char *bad : {"twin", "nobody", "", "de", "0000-0000"})
        EXPECT_THROW(app::find_host(list, bad, ""), std::runtime_error) << bad;
    for (const auto &[which, number] : rows) {
        const app::host_target target = app::find_host(list, which, "");
        EXPECT_EQ(*target.key, key_of(static_cast<uint8_t>(number))) << which;
        EXPECT_EQ(target.candidates.size(), number == 9 ? 0u : number == 1 ? 2u : 1u) << which;
        EXPECT_EQ(target.lan_id, app::lan_id_of(key_of(static_cast<uint8_t>(number)).data()));
    }
    // Before a key there stands an address, even if a host has it as its name.
    add(6, "192.0.2.9", nullptr);
    const app::host_target target = app::find_host(list, "192.0.2.9", app::key_text(key_of(7).data()));
    EXPECT_EQ(*target.key, key_of(7));
    EXPECT_EQ(app::addr_text(target.candidates.at(0)), "192.0.2.9:9876");
    EXPECT_THROW(app::find_host(list, "192.0.2.9", "abc"), app::usage_error);
}

TEST(Clipboard, TellsPicturesAndTextApart) {
    const auto kind = [](const std::string &bytes) {
        return int{app::clip_kind({reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size()})};
    };
    EXPECT_EQ(kind("\x89PNG\r\n\x1A\n..."), TARN_CLIP_PNG);
    for (const char *text :
         {"plain\r\n", "\xC3\xA4 \xE2\x82\xAC \xF0\x9F\x98\x80", "\xE0\xA0\x80", "\xF4\x8F\xBF\xBF"})
        EXPECT_EQ(kind(text), TARN_CLIP_TEXT) << text;
    EXPECT_EQ(kind(std::string("a\0", 2)), 0);
    for (const char *other :
         {"\x89PNG\r\n\x1A", "\xC3", "\x80", "\xC0\x80", "\xE0\x9F\xBF", "\xED\xA0\x80", "\xE2\x82",
          "\xE2\x28\xA1", "\xF0\x8F\x80\x80", "\xF4\x90\x80\x80", "\xF5\x80\x80\x80"})
        EXPECT_EQ(kind(other), 0) << other;
}

TEST(PathCut, SparesTheRelayAndHealsInTime) {
    for (const char *bad : {"", "1", "1:", "1:0", "-1:2", "1:2x", "a:b", "1:nan"})
        EXPECT_THROW(app::parse_cut(bad), app::usage_error) << bad;
    app::path_cut cut(app::parse_cut("1.5:2"));
    tarn_client_status status{};
    status.path_count = 2;
    status.paths[0] = {TARN_PATH_LAN, 1, -1, 0, at("192.168.1.9:9876")};
    status.paths[1] = {TARN_PATH_RELAY, 1, 0, 0, at("198.51.100.1:9877")};
    for (const double now : {0.0, 1.4, 1.5, 3.4, 3.5}) {
        cut.update(now, status);
        EXPECT_EQ(cut.drops(at("192.168.1.9:9876")), now >= 1.5 && now < 3.5) << now;
        EXPECT_EQ(cut.drops(at("198.51.100.1:1")), now >= 1.5 && now < 3.5) << "another port is another way";
        EXPECT_FALSE(cut.drops(at("198.51.100.1:9877"))) << now;
    }
}
