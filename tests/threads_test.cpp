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
#include <czulcryptsignature.h>
#include <zulcryptimpl.h>

#include "test_support.h"
#include "vector_file.h"

namespace {

using zultest::FromHex;
using zultest::Hex;

constexpr int kThreads = 8;
constexpr int kRounds = 50;

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

TEST_F(ThreadsTest, SignaturesAgreeWithOpensslsAndVerify) {
    // A SHA-256 case of the fixed key's signatures made by the openssl command line.
    zultest::VectorCase vector;
    for (const zultest::VectorCase& candidate : zultest::ReadVectors("rsa_signature.vec")) {
        if (candidate.Text("Digest") == "SHA256" && candidate.Number("Valid") == 1 && !candidate.Bytes("In").empty()) {
            vector = candidate;
            break;
        }
    }
    ASSERT_TRUE(vector.Has("Out"));
    const std::vector<unsigned char> n = vector.Bytes("N"), e = vector.Bytes("E"), d = vector.Bytes("D");
    const std::vector<unsigned char> expected = vector.Bytes("Out");
    const std::vector<unsigned char> message = vector.Bytes("In");

    int wrong = RunOnThreads([&](int thread) {
        std::vector<unsigned char> data = message;
        if (thread % 2 == 0) {
            CZulCryptSignature signer(context);
            unsigned char signature[512];
            unsigned int length = 0;
            return signer.SetHashAndKey("SHA256", n.data(), static_cast<unsigned int>(n.size()), d.data(),
                                        static_cast<unsigned int>(d.size())) &&
                   signer.GetSignature(data.data(), static_cast<unsigned int>(data.size()), signature, &length) &&
                   std::vector<unsigned char>(signature, signature + length) == expected;
        }
        CZulCryptSignature verifier(context);
        std::vector<unsigned char> signature = expected;
        return verifier.SetHashAndKey("SHA256", n.data(), static_cast<unsigned int>(n.size()), e.data(),
                                      static_cast<unsigned int>(e.size())) &&
               verifier.VerifySignature(data.data(), static_cast<unsigned int>(data.size()), signature.data(),
                                        static_cast<unsigned int>(signature.size()));
    });
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(g_errors.load(), 0);
}

TEST_F(ThreadsTest, ProceduralInterfaceFromEveryThread) {
    // One context handle shared by all threads; each has its own object handles and status record.
    ZulVklCtxWrap* ctx = ZulVklCtxCreate();
    ASSERT_NE(ctx, nullptr);
    // RFC 3414 A.3.2: maplesyrup localised to engine 00..02 under SHA-1.
    const std::string password = "maplesyrup";
    const std::vector<unsigned char> engine = FromHex("000000000000000000000002");
    const std::string kul = "6695febc9288e36282235fc7151f128497b38f3f";
    // RFC 2202 test case 2.
    const std::string jefe = "effcdf6ae5eb2fa2d27416d5f184df9c259a7c79";

    int wrong = RunOnThreads([&](int) {
        ZulVklStatusWrap* status = ZulVklStatusCreate();
        ZulVklMdCtxWrap* md = ZulVklMdCtxCreate(ctx);
        ZulVklHmacCtxWrap* hmac = ZulVklHmacCtxCreate(ctx);
        unsigned char ku[20], local[20], mac[20];
        ZulVklConstBuffer pw{reinterpret_cast<const unsigned char*>(password.data()),
                             static_cast<uint32_t>(password.size())};
        ZulVklBuffer kuOut{ku, 20};
        ZulVklConstBuffer kuIn{ku, 20};
        ZulVklConstBuffer engineId{engine.data(), static_cast<uint32_t>(engine.size())};
        ZulVklBuffer localOut{local, 20};
        bool ok = ZulVklMdGenerateKey(ctx, md, "SHA1", &pw, &kuOut, status) == 1 &&
                  ZulVklMdLocaliseKey(ctx, md, "SHA1", &engineId, &kuIn, &localOut, status) == 1 &&
                  Hex(local, 20) == kul;

        const char key[] = "Jefe";
        const char text[] = "what do ya want for nothing?";
        ZulVklConstBuffer keyIn{reinterpret_cast<const unsigned char*>(key), 4};
        ZulVklConstBuffer first{reinterpret_cast<const unsigned char*>(text), 10};
        ZulVklConstBuffer second{reinterpret_cast<const unsigned char*>(text) + 10, 18};
        ZulVklConstBuffer* pieces[] = {&first, &second};
        ZulVklBuffer macOut{mac, 0};
        ok = ok && ZulVklHmacGenerateDigest(ctx, hmac, "SHA1", pieces, 2, &keyIn, &macOut, status) == 1 &&
             Hex(mac, macOut.length) == jefe;
        ZulVklHmacCtxDestroy(ctx, hmac);
        ZulVklMdCtxDestroy(ctx, md);
        ZulVklStatusDestroy(status);
        return ok;
    });
    ZulVklCtxDestroy(ctx);
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(g_errors.load(), 0);
}

}  // namespace
