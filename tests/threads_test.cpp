// Distinct objects of one crypto context used from 8 threads at once, every
// result checked. Run under ThreadSanitizer by the tsan preset.
#include <atomic>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <czulcryptciphercontext.h>
#include <czulcryptcontext.h>
#include <czulcrypthmac.h>
#include <czulcryptmdcontext.h>

#include "test_support.h"

namespace {

using zultest::FromHex;
using zultest::Hex;

constexpr int kThreads = 8;
constexpr int kRounds = 200;

std::atomic<int> g_errors{0};
void CountError(const char*, unsigned int, const char*, bool) { g_errors.fetch_add(1); }

class ThreadsTest : public zultest::PlatformTest {
protected:
    // Runs work(thread, round) on kThreads threads; counts the rounds that came out wrong.
    int RunOnThreads(const std::function<bool(int)>& work) {
        // The capturing callbacks of the fixture are not for several threads.
        CZulCryptContext::SetDebugResponseFn(nullptr);
        CZulCryptContext::SetErrorResponseFn(CountError);
        g_errors.store(0);
        std::atomic<int> wrong{0};
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([&, t] {
                for (int round = 0; round < kRounds; ++round) {
                    if (!work(t)) wrong.fetch_add(1);
                }
            });
        }
        for (std::thread& thread : threads) thread.join();
        return wrong.load();
    }

    CZulCryptContext context;
};

TEST_F(ThreadsTest, DigestsHmacsAndCiphersAgreeWithTheirVectors) {
    ASSERT_TRUE(context.GetStatus());
    // FIPS 180-2 B.1; RFC 4231 test case 2; NIST SP 800-38A F.2.1 (first block).
    const std::string sha256Abc = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
    const std::string hmacJefe = "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843";
    const std::vector<unsigned char> aesKey = FromHex("2b7e151628aed2a6abf7158809cf4f3c");
    const std::vector<unsigned char> aesIv = FromHex("000102030405060708090a0b0c0d0e0f");
    const std::vector<unsigned char> aesPlain = FromHex("6bc1bee22e409f96e93d7e117393172a");
    const std::string aesCipher = "7649abac8119b246cee98e9b12e9197d";

    int wrong = RunOnThreads([&](int thread) {
        // Each thread makes its own objects: objects are not shared, the context is.
        CZulCryptMDContext md(context);
        // Alternate names so that cache lookups and first fetches race.
        const char* name = thread % 2 == 0 ? "SHA256" : "SHA-256";
        unsigned char digest[64];
        unsigned int digestLength = 0;
        char abc[] = "abc";
        bool ok = md.SetType(name) && md.AddData(abc, 3) && md.GetMessageDigest(digest, &digestLength) &&
                  Hex(digest, digestLength) == sha256Abc;

        const char key[] = "Jefe";
        char message[] = "what do ya want for nothing?";
        CZulCryptHMAC hmac(context, "SHA256", reinterpret_cast<const unsigned char*>(key), 4);
        unsigned char mac[64];
        unsigned int macLength = 0;
        ok = ok && hmac.GetHMAC(reinterpret_cast<unsigned char*>(message), 28, mac, &macLength) &&
             Hex(mac, macLength) == hmacJefe;

        CZulCryptCipherContext cipher(context);
        std::vector<unsigned char> in = aesPlain;
        unsigned char out[64];
        int outLength = 0;
        ok = ok && cipher.SetEncryptType("AES-128-CBC", aesKey.data(), 16, aesIv.data(), 16) &&
             cipher.SetPadding(false) && cipher.EncryptData(in.data(), 16, out, &outLength) &&
             Hex(out, static_cast<size_t>(outLength)) == aesCipher;
        return ok;
    });
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(g_errors.load(), 0);
}

}  // namespace
