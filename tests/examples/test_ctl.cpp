// An administrator's tool: no setting out of range, no wrong client, no key in an error, no terminal driven by a name from
// outside, never "failed" for what may have been done. And the reference worker's video, which clients have to cut.
#include <gtest/gtest.h>
#include <regex>

#include "ctl/ctl_text.h"
#include "worker/test_pattern.h"
#include "worker/worker_settings.h"

static std::vector<std::string> split(const std::string &text) {
    static const std::regex comma(",");
    return {std::sregex_token_iterator(text.begin(), text.end(), comma, -1), {}};
}

TEST(Settings, TakeWhatTheServiceTakesAndNothingElse) {
    host_service::Settings settings;
    EXPECT_TRUE(app::assign_settings(settings, split("port=1,frame_rate=1,bitrate_kbps=500,mode=1,flag_a=0,"
                                                     "level=0,flag_b=0,packet_size=512")));
    const std::vector<uint8_t> low = {1, 0, 1, 0, 0xF4, 1, 0, 0, 1, 0, 0, 0, 0, 2, 0, 0};
    EXPECT_EQ(host_service::encode_settings(settings), low);
    EXPECT_FALSE(app::assign_settings(settings, split("packet_size=1400,flag_b=1,level=2,flag_a=1,mode=2,"
                                                      "bitrate_kbps=500000,frame_rate=240")));
    EXPECT_FALSE(app::assign_settings(settings, {"port=65535"}));
    const std::vector<uint8_t> high = {255, 255, 240, 0, 0x20, 0xA1, 7, 0, 2, 1, 2, 1, 0x78, 5, 0, 0};
    EXPECT_EQ(host_service::encode_settings(settings), high);
    const char *bad = "port=0,port=65536,frame_rate=0,frame_rate=241,bitrate_kbps=499,bitrate_kbps=500001,"
                      "mode=0,mode=3,flag_a=2,level=3,flag_b=2,packet_size=511,packet_size=1401,mode=,mode,"
                      "mode= 1,mode=+1,mode=-1,mode=1x,mode=4294967297,size=1";
    for (const std::string &one : split(bad))
        EXPECT_THROW(app::assign_settings(settings, {one}), app::usage_error) << one;
    EXPECT_THROW(app::assign_settings(settings, {"level=1", "level=1"}), app::usage_error);
    EXPECT_EQ(settings.level, 2) << "all or nothing";
    const app::server_settings applied = app::apply_settings(settings, app::test_pattern(60, 500));
    EXPECT_TRUE(applied.payload_max == 1400 && applied.clips.echo && applied.stream.frame_rate == 240);
}

TEST(Clients, AreMeantByKeyOrByTheOneCode) {
    tarn_client_list list{};
    const app::public_key a{1}, b{2};
    const std::string code_a = app::key_code(a.data()), code_b = app::key_code(b.data());
    tarn_client_list_add(&list, a.data(), code_b.c_str()); // a name says nothing
    EXPECT_EQ(app::find_client(code_a, &list), a);
    EXPECT_EQ(app::find_client(app::key_text(b.data()), nullptr), b);
    EXPECT_THROW(app::find_client(code_b, &list), std::runtime_error);
    EXPECT_THROW(app::find_client(code_a, nullptr), std::runtime_error);
    list.entries[list.count++] = list.entries[0];
    EXPECT_THROW(app::find_client(code_a, &list), std::runtime_error) << "two fit";
}

TEST(Relays, AreCheckedByLineAndStaySecret) {
    const std::string head = "tarnglider-relays-v1\n", link = "tarnglider-relay://h.example:1#sesame\n";
    std::string nine = head;
    for (const char port : std::string("123456789"))
        nine += "tarnglider-relay://h.example:" + (port + std::string("#sesame\n"));
    EXPECT_EQ(app::relays_fault(head) + app::relays_fault(head + "\r\n" + link), "");
    EXPECT_EQ(app::relays_fault(""), "a list of relay servers has 1 to 16384 bytes");
    EXPECT_EQ(app::relays_fault(head + link + std::string(16384, '\n')), app::relays_fault(""));
    EXPECT_NE(app::relays_fault(link).find("first line"), std::string::npos);
    EXPECT_EQ(app::relays_fault(head + link + "\nsesame\n"),
              "line 4 is no relay link: tarnglider-relay://HOST:PORT#KEY");
    EXPECT_NE(app::relays_fault(nine).find("more than 8"), std::string::npos);
}

TEST(Answers, AreSafeToPrintAndSayWhatMayHaveHappened) {
    EXPECT_EQ(app::printable("\xC3\xA4 \x1B[2J\n\t\r\x7F\xC2\x9B\xE2\x80\xAE\xFF\xE2\x80 \xC0\x80"),
              "\xC3\xA4 \\x1b[2J\\n\\t\\r\\x7f\\xc2\\x9b\\xe2\\x80\\xae\\xff\\xe2\\x80 \\xc0\\x80");
    using host_service::Status, host_service::Verb;
    EXPECT_EQ(app::answer_text(Verb::status, {Status::ok, "running; a\n; b"}), "running\na\\n\nb");
    const char *rows = "?bounded IPC request failed,?worker communication failed,.worker unavailable,.a; b";
    for (const std::string &row : split(rows)) {
        const std::string text = app::answer_text(Verb::set_password, {Status::failed, row.substr(1)});
        EXPECT_EQ(text.find("failed: " + row.substr(1)), 0u) << text;
        EXPECT_EQ(text.find(" may have ") != std::string::npos, row[0] == '?') << text;
    }
}

TEST(Worker, StreamsAPatternThatKeepsItsRate) {
    const std::pair<uint16_t, uint32_t> rows[] = {{60, 20000}, {25, 1300}, {240, 500}, {1, 500000}};
    for (const auto &[rate, kbps] : rows) {
        const app::video_file video = app::test_pattern(rate, kbps);
        const std::vector<app::access_unit> units = app::split_access_units(video.bytes);
        ASSERT_EQ(units.size(), video.units.size());
        for (size_t i = 0; i < units.size(); i++)
            EXPECT_TRUE(units[i].offset == video.units[i].offset && units[i].key) << i;
        EXPECT_EQ(app::stream_frame_rate(video.bytes), std::optional<double>(rate));
        const double got = static_cast<double>(video.bytes.size()) / static_cast<double>(units.size());
        EXPECT_NEAR(got, std::clamp(kbps * 125.0 / rate, 1300.0, 340000.0), 0.03 * got)
            << rate << " " << kbps;
    }
}
