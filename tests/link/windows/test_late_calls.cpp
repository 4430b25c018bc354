// The functions that are looked up at their first use, called for real, in a folder where libraries by the system's names
// are planted.
#include <gtest/gtest.h>

#include <winsock2.h>

#include <windows.h>

#include <bcrypt.h>
#include <iphlpapi.h>
#include <userenv.h>
#include <wincrypt.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

extern "C" BOOLEAN NTAPI SystemFunction036(PVOID buffer, ULONG length);
extern "C" int PlantedAnswer();
extern "C" int NoSuchFunction();

namespace {

using blob = std::vector<BYTE>;
const blob nothing(32);

DATA_BLOB as_input(blob &bytes) { return {static_cast<DWORD>(bytes.size()), bytes.data()}; }

blob take(const DATA_BLOB &out) {
    blob bytes(out.pbData, out.pbData + out.cbData);
    LocalFree(out.pbData);
    return bytes;
}

bool planted_was_loaded() { return GetEnvironmentVariableW(L"TARN_PLANTED", nullptr, 0) != 0; }

TEST(late_calls, answer_from_the_system_directory_alone) {
    const wchar_t *const names[] = {L"bcrypt.dll", L"crypt32.dll", L"iphlpapi.dll", L"userenv.dll"};
    for (const wchar_t *name : names) {
        EXPECT_EQ(GetModuleHandleW(name), nullptr) << "loaded before its first use";
    }

    // Many threads at once make the first call.
    std::atomic<bool> go = false;
    std::vector<blob> filled(8, nothing);
    std::vector<std::thread> threads;
    for (blob &bytes : filled) {
        threads.emplace_back([&] {
            while (!go) {
                std::this_thread::yield();
            }
            BCryptGenRandom(nullptr, bytes.data(), 32, BCRYPT_USE_SYSTEM_PREFERRED_RNG);
        });
    }
    go = true;
    for (std::thread &thread : threads) {
        thread.join();
    }
    for (const blob &bytes : filled) {
        EXPECT_NE(bytes, nothing);
    }

    blob plain = {'a', 'b', 'c'}, bytes = nothing;
    DATA_BLOB in = as_input(plain), out = {};
    ASSERT_TRUE(CryptProtectData(&in, nullptr, nullptr, nullptr, nullptr, CRYPTPROTECT_UI_FORBIDDEN, &out));
    blob sealed = take(out);
    EXPECT_NE(sealed, plain);
    in = as_input(sealed);
    ASSERT_TRUE(CryptUnprotectData(&in, nullptr, nullptr, nullptr, nullptr, CRYPTPROTECT_UI_FORBIDDEN, &out));
    EXPECT_EQ(take(out), plain);

    HANDLE token = nullptr;
    void *block = nullptr;
    ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY | TOKEN_DUPLICATE, &token));
    ASSERT_TRUE(CreateEnvironmentBlock(&block, token, FALSE));
    EXPECT_NE(*static_cast<wchar_t *>(block), L'\0');
    EXPECT_TRUE(DestroyEnvironmentBlock(block));
    CloseHandle(token);

    ULONG size = 0;
    EXPECT_EQ(GetAdaptersAddresses(AF_INET, 0, nullptr, nullptr, &size), ERROR_BUFFER_OVERFLOW);

    ULONG mask = 0;
    EXPECT_EQ(ConvertLengthToIpv4Mask(24, &mask), 0u);
    EXPECT_EQ(mask, 0x00FFFFFFu);

    SetLastError(77); // a lookup behind the caller's back doesn't touch it
    EXPECT_TRUE(SystemFunction036(bytes.data(), 32));
    EXPECT_EQ(GetLastError(), 77U);
    EXPECT_NE(bytes, nothing);

    wchar_t folder[MAX_PATH], path[MAX_PATH];
    GetSystemDirectoryW(folder, MAX_PATH);
    for (const wchar_t *name : names) {
        ASSERT_NE(GetModuleFileNameW(GetModuleHandleW(name), path, MAX_PATH), 0U);
        EXPECT_EQ(lstrcmpiW(path, (std::wstring(folder) + L"\\" + name).c_str()), 0);
    }
    EXPECT_FALSE(planted_was_loaded());
}

// The system's own codes for a missing library and a missing function.
TEST(late_calls, end_the_process_where_nothing_answers) {
    EXPECT_EXIT(PlantedAnswer(), testing::ExitedWithCode(static_cast<int>(0xC0000135)), "");
    EXPECT_EXIT(NoSuchFunction(), testing::ExitedWithCode(static_cast<int>(0xC0000139)), "");
}

} // namespace
