// The folder of a program's identity and lists: an identity is for life, and a damaged list isn't
// overwritten.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "common/directory.h"
#include "common/text.h"

namespace fs = std::filesystem;

class Directory : public testing::Test {
protected:
    void SetUp() override {
        uint8_t random[8];
        char text[17];
        ASSERT_EQ(tarn_random_bytes(random, sizeof random), TARN_OK);
        tarn_hex_encode(text, random, sizeof random);
        root_ = fs::temp_directory_path() / (std::string("tarn-test-") + text);
    }
    void TearDown() override { fs::remove_all(root_); }

    void write(const char *name, const std::string &text) const {
        std::ofstream(root_ / name, std::ios::binary) << text;
        fs::permissions(root_ / name, fs::perms::owner_read | fs::perms::owner_write);
    }
    std::string read(const char *name) const {
        std::ifstream in(root_ / name, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    size_t files() const {
        return static_cast<size_t>(std::distance(fs::directory_iterator(root_), fs::directory_iterator()));
    }

    fs::path root_;
};

TEST_F(Directory, KeepsOneIdentity) {
    app::identity first, second;
    app::directory(root_ / "below").load_identity(first);
    app::directory(root_ / "below").load_identity(second);
    EXPECT_EQ(std::memcmp(&first.keys, &second.keys, sizeof first.keys), 0);
    root_ /= "below";
    EXPECT_EQ(files(), 1u);
    char hex[65];
    tarn_hex_encode(hex, first.keys.secret, 32);
    EXPECT_EQ(read("identity"), std::string(hex) + "\n");
#ifndef _WIN32
    EXPECT_EQ(fs::status(root_ / "identity").permissions() & fs::perms::all, fs::perms(0600));
    fs::permissions(root_ / "identity", fs::perms(0640));
    EXPECT_THROW(app::directory(root_).load_identity(first), std::runtime_error) << "not for others to read";
#endif
    write("identity", "not a key");
    EXPECT_THROW(app::directory(root_).load_identity(first), std::runtime_error);
    EXPECT_EQ(read("identity"), "not a key") << "a damaged identity may be mended, a replaced one is gone";
}

TEST_F(Directory, KeepsLists) {
    const app::directory store(root_);
    tarn_client_list clients = store.clients();
    tarn_host_list hosts = store.hosts();
    EXPECT_EQ(clients.count + hosts.count, 0);
    const app::public_key key = app::parse_key(std::string(64, 'a'), "KEY");
    ASSERT_EQ(tarn_client_list_add(&clients, key.data(), "living room"), 0);
    tarn_host_entry entry{};
    std::copy(key.begin(), key.end(), entry.key);
    ASSERT_EQ(tarn_host_list_put(&hosts, &entry), 0);
    store.save(clients);
    store.save(hosts);
    EXPECT_STREQ(store.clients().entries[0].name, "living room");
    EXPECT_EQ(store.hosts().count, 1);
    // Replaced whole, with nothing left beside it.
    clients.count = 0;
    store.save(clients);
    EXPECT_EQ(read("authorized_clients"), "tarnglider-clients-v1\n");
    EXPECT_EQ(files(), 2u);
    // Damage, a folder in the file's place, and a file beyond all size are errors, not empty lists.
    write("authorized_clients", "tarnglider-clients-v1\nrubbish\n");
    EXPECT_THROW(store.clients(), std::runtime_error);
    write("hosts", "tarnglider-hosts-v1\n" + std::string(70000, '\n'));
    EXPECT_THROW(store.hosts(), std::runtime_error);
    fs::remove(root_ / "hosts");
    fs::create_directory(root_ / "hosts");
    EXPECT_THROW(store.hosts(), std::runtime_error);
    // A file is no folder.
    for (const char *path : {"authorized_clients", "authorized_clients/below"})
        EXPECT_THROW(app::directory(root_ / path), std::runtime_error);
}

TEST_F(Directory, KeepsSecretsAndTheClosedWindow) {
    const app::directory store(root_);
    app::relay_list relays, loaded;
    relays.add("tarnglider-relay://192.0.2.1:7#sekrit");
    EXPECT_THROW(relays.add("tarnglider-relay://192.0.2.1:7"), app::usage_error);
    write("links", "tarnglider-relay://a.example#x\r\n\ntarnglider-relay://192.0.2.1:7#other\n");
    relays.add("@" + app::utf8(root_ / "links")); // the second is the server that is there
    store.save(relays);
    store.relays(loaded);
    ASSERT_EQ(loaded.config.count, 2);
    EXPECT_EQ(std::memcmp(loaded.config.servers[0].key, "other", 5), 0);
    app::secret_text line;
    line.text = "stored";
    store.save_password(line);
    line.text.clear();
    store.password(line);
    EXPECT_EQ(line.text, "stored");
#ifndef _WIN32
    for (const char *name : {"relays", "password"})
        fs::permissions(root_ / name, fs::perms(0604));
    EXPECT_THROW(store.relays(loaded), std::runtime_error);
    EXPECT_THROW(store.password(line), std::runtime_error);
#endif
    EXPECT_TRUE(store.clear_password());
    EXPECT_FALSE(store.clear_password());
    store.password(line);
    EXPECT_EQ(line.text, "");
    for (const bool closed : {true, true, false, false}) {
        store.set_window_closed(closed);
        EXPECT_EQ(app::directory(root_).window_closed(), closed);
    }
}

TEST(Text, RefusesKeysThatAreNone) {
    const std::string good(64, '0');
    EXPECT_NO_THROW(app::parse_key(good, "KEY"));
    for (const std::string &bad : {std::string(), good.substr(1), good + "0", "g" + good.substr(1)})
        EXPECT_THROW(app::parse_key(bad, "KEY"), app::usage_error) << bad;
}
