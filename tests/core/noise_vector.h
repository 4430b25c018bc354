// A published handshake of Noise_IK_25519_ChaChaPoly_BLAKE2b with fixed ephemeral keys: github.com,
// haskell-cryptography/cacophony, vectors/cacophony.txt at 8ee9d41e34a1a596cfa3ab12aa4069ff87dc1247. Figures only.
#ifndef TEST_NOISE_VECTOR_H
#define TEST_NOISE_VECTOR_H

namespace noise_vector {

const char prologue[] = "4a6f686e2047616c74";
const char init_static[] = "e61ef9919cde45dd5f82166404bd08e38bceb5dfdfded0a34c8df7ed542214d1";
const char init_ephemeral[] = "893e28b9dc6ca8d611ab664754b8ceb7bac5117349a4439a6b0569da977c464a";
const char init_remote_static[] = "31e0303fd6418d2f8c0e78b91f22e8caed0fbe48656dcf4767e4834f701b8f62";
const char resp_static[] = "4a3acbfdb163dec651dfa3194dece676d437029c62a408b4c5ea9114246e4893";
const char resp_ephemeral[] = "bbdb4cdbd309f1a1f2e1456967fe288cadd6f712d65dc7b7793d5e63da6b375b";
const char handshake_hash[] =
    "1c8fa891cb414fedba6daa7c6f4ae0a6d98e5f9768cc9cecd27e805614943ee9c8a1b27fbfb76dc197255c8aa69f6b42"
    "85c423840b8bedf45e652ca64f797d81";

// Message one, message two, then transport messages by turns, initiator first.
const struct {
    const char *payload;
    const char *ciphertext;
} messages[] = {
    {"4c756477696720766f6e204d69736573",
     "ca35def5ae56cec33dc2036731ab14896bc4c75dbb07a61f879f8e3afa4c7944ba83a447b38c83e327ad936929812f62"
     "4884847b7831e95e197b2f797088efdd2f88f1db7e1fb0e99c64419097af91cee64e470f4b6fcd9298ce0b56fe20f86e"
     "13bf70439c538e3602a7127af71a29cc"},
    {"4d757272617920526f746862617264",
     "95ebc60d2b1fa672c1f46a8aa265ef51bfe38e7ccb39ec5be34069f1448088439f069b267a06b3de3ecb1043bcb098e9"
     "af91d9c64748d998c7b47890871571"},
    {"462e20412e20486179656b", "cd54383060e7a28434cca27fb1cc524cfbabeb18181589df219d07"},
    {"4361726c204d656e676572", "a856d3bf0246bfc476c655009cd1ed677b8dcc5b349ae8ef2a05f2"},
    {"4a65616e2d426170746973746520536179",
     "49063084b2c51f098337cb8a13739ac848f907e67cfb2cc8a8b60586467aa02fc7"},
    {"457567656e2042f6686d20766f6e2042617765726b",
     "8b9709d23b47e4639df7678d7a21741eba4ef1e9c60383001c7435549c20f9d56f30e935d3"},
};

} // namespace noise_vector

#endif
