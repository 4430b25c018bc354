// Figures of CPace over X25519 with SHA-512. The published set and the low-order points are those of the
// draft draft-irtf-cfrg-cpace-21; the others were computed with Python's big integers, hashlib and hmac, by a
// script that reproduces the published ones.
#ifndef TEST_CPACE_VECTORS_H
#define TEST_CPACE_VECTORS_H

#include <stddef.h>
#include <stdint.h>

#include <utility>

namespace cpace_vector {

constexpr char prs[] = "50617373776f7264", ada[] = "414461", adb[] = "414462";
constexpr char ci[] = "0b415f696e69746961746f720b425f726573706f6e646572";
constexpr char sid[] = "7e4b4791d6a8ef019b936c79fb7f2c57";
constexpr char generator[] = "d04bf6d41f6a289632a2e929fa29bebd51092512a7829fdde7d314b62f05a73f";
constexpr char ya_secret[] = "21b4f4bd9e64ed355c3eb676a28ebedaf6d8f17bdc365995b319097153044080";
constexpr char ya[] = "1d13c89278cdadd826f6d8d7f887701430f8380ddc17611cdd6dc989ce0c9f32";
constexpr char yb_secret[] = "848b0779ff415f0af4ea14df9dd1d3c29ac41d836c7808896c4eba19c51ac40a";
constexpr char yb[] = "248cccf6d5cdc3646f0ad593f9e6cef4e69d4945f8372e623512ecea32185623";
constexpr char k[] = "5b067effbdc0b2a0e1d907b21ebb25cfedb96a852179a847c37e43ee71322c6b";
constexpr char isk[] =
    "6e19b875f7a561d6b3ca3dbb9ef42ac55de3e717881018204b8922b4d5e53bb2aa82c300bea7b65d2b671da71922ddf6472301b7"
    "9bc270adfa8bf413285f2263";

// 32 bytes by the first, the thirty of the middle, and the last.
struct bytes32 {
    uint8_t first, middle, last;
};

// Points whose product with any scalar is zero, so that the run must end, and points that only look like
// them.
constexpr char zero[] = "0000000000000000000000000000000000000000000000000000000000000000";
constexpr char low_order_scalar[] = "af46e36bf0527c9d3b16154b82465edd62144c0ac1fc5a18506a2244ba449aff";
constexpr bytes32 low_order[] = {
    {0, 0, 0}, {1, 0, 0}, {0xEC, 0xFF, 0x7F}, {0xED, 0xFF, 0x7F}, {0xEE, 0xFF, 0x7F}};
constexpr const char *low_order_more[] = {"e0eb7a7c3b41b8ae1656e3faf19fc46ada098deb9c32b1fd866205165f49b800",
                                          "5f9c95bca3508c24b1d0b1559c83ef5b04445cc4581c8e86d8224eddd09f1157"};
constexpr bytes32 full_order[] = {{0xDA, 0xFF, 0xFF}, {0xDB, 0xFF, 0xFF}, {0xD9, 0xFF, 0xFF}};

// Generator for a secret of so many bytes (1, 2, 3, ...), this library's channel and the session id 00 01 ...
// 0f. The padding ends at 117 bytes; from 128 on the length has two bytes.
constexpr std::pair<size_t, const char *> generators[] = {
    {0, "845324ccf3605763388f9a6df481824d44ae758da7563d49a4edd5c07084d571"},
    {116, "362ac7aa34a28d9c9a598cf378c6f58cd3117e28376c78688f8fd0f622d3df2d"},
    {117, "bbf8e38a284b02a7048903d382e8c321ef8c1b3440a8256100911e9c48c12374"},
    {127, "8be8d0e498421dee1c632b5846f26f1e1a440cf608e7b8dc22c7773028619271"},
    {128, "d00a7f7efe09d226add0754d47007a426582d57fccee4dfc0b91521a78190b1d"},
    {300, "0aa7e05bbee9cff29341a38c89de99f87b8855068740335782c40d7a92119527"},
};

// Where a hash leads, at the borders of the field and of its lower half: 1; bit 254 clear, taken as it is;
// set, p minus it; p - 1; p; p + 1; 2^255 - 1; and bit 255, which does not count.
constexpr std::pair<bytes32, const char *> maps[] = {
    {{0x01, 0x00, 0x00}, "9cdb525555555555555555555555555555555555555555555555555555555555"},
    {{0xFF, 0xFF, 0x3F}, "80e5132b658f7f451b2b658f7f451b2b658f7f451b2b658f7f451b2b658f7f45"},
    {{0x00, 0x00, 0x40}, "bcf24d5555555555555555555555555555555555555555555555555555555555"},
    {{0xEC, 0xFF, 0x7F}, "9cdb525555555555555555555555555555555555555555555555555555555555"},
    {{0xED, 0xFF, 0x7F}, "0000000000000000000000000000000000000000000000000000000000000000"},
    {{0xEE, 0xFF, 0x7F}, "9cdb525555555555555555555555555555555555555555555555555555555555"},
    {{0xFF, 0xFF, 0x7F}, "1e5942dd97c756040d27755f1e5b11349cd47d796c45d07052f7e5b11541c349"},
    {{0xFF, 0xFF, 0xFF}, "1e5942dd97c756040d27755f1e5b11349cd47d796c45d07052f7e5b11541c349"},
};

// A whole pairing: PIN "042137"; session id 10 ... 1f; scalars 20 ... 3f (client) and 60 ... 7f (host);
// static secret keys of 32 times 1 and 32 times 200; names "laptop" and "Studio é".
constexpr char run_init[] =
    "5001500000000000101112131415161718191a1b1c1d1e1f86bba3fe9c97f8b6a83c78cb6bb1d0cd45ec736be9de89cbb07e4ced"
    "0963f257";
constexpr char run_resp[] =
    "5001510000000000101112131415161718191a1b1c1d1e1fd29a61427ec36231d530d44e47c8e1ba33628dac1038b62136cc8867"
    "eba509368d1c1274c0eca400682dc5d3d0dcc83b8a2281117989e4093400a9b56927cc395308757e0c951a6931a44089be0056af"
    "d15bc5bcaebed302793c";
constexpr char run_confirm[] =
    "5001520000000000101112131415161718191a1b1c1d1e1f1db57d5b3b3668eb9296221784056c8b13fd5812599e5fea0dd9c17f"
    "574ead18a546e6f7b2d3060057ad0e897c5cadcb8c5448d1481601";
constexpr char run_done[] =
    "5001530000000000101112131415161718191a1b1c1d1e1f61b4c938bc5d03847193f501027e18b12c";
constexpr char run_generator[] = "626a8ed7e5414f8fcfea5f004e376f74f886021da5027ee8805c6d97608c0c46";
constexpr char run_k[] = "6ebb2b64065788015738ec92a016a3ef49629c1b125453787e0204c9f9360135";
constexpr char run_isk[] =
    "42edc78e467e394b5b74915ba21c94bf70729975b39f850b14dc524ef69d2899a61cd3dde416005b16cd34e99443570ef42602f1"
    "0a2661af9da6aff1a8c4bafb";
constexpr char run_host_key[] = "3990c030caaa5390fda25027528a197a367849432fe2b59b4e2ac3bfeafde611";
constexpr char run_client_key[] = "ff86cd44f9616eb7291e87bae852090e4289ce980b8ee9eee8f09d3dc33ea021";

} // namespace cpace_vector

#endif
