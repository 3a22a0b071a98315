// Distinct objects of one crypto context used from 8 threads at once, every
// result checked. Run under ThreadSanitizer by the tsan preset.
#include <atomic>
#include <cstring>
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
using Bytes = std::vector<unsigned char>;

constexpr int kThreads = 8;
constexpr int kRounds = 50;

std::atomic<int> g_errors{0};
void CountError(const char*, unsigned int, const char*, bool) { g_errors.fetch_add(1); }

class ThreadsTest : public zultest::PlatformTest {
protected:
    CZulCryptContext context;
};

// Every kind of object, the signature with one key given as n and d from all threads (VKL
// completes it once, racing threads may each try, and all sign with the key it keeps), and the
// procedural interface over one shared context handle.
TEST_F(ThreadsTest, EveryCapabilityAgreesWithItsVectors) {
    ASSERT_TRUE(context.GetStatus());
    const zultest::VectorCase rsa = zultest::RsaSha256Signature();
    ASSERT_TRUE(rsa.Has("Out"));
    const Bytes n = rsa.Bytes("N"), e = rsa.Bytes("E"), d = rsa.Bytes("D"), signed_ = rsa.Bytes("Out");
    ZulVklCtxWrap* ctx = ZulVklCtxCreate();
    ASSERT_NE(ctx, nullptr);
    // FIPS 180-2 B.1; RFC 4231 test case 2; NIST SP 800-38A F.2.1 (first block);
    // RFC 3414 A.3.2 (maplesyrup localised to engine 00..02 under SHA-1); RFC 2202 test case 2.
    const Bytes aesKey = FromHex("2b7e151628aed2a6abf7158809cf4f3c"), iv = FromHex("000102030405060708090a0b0c0d0e0f");
    const Bytes engine = FromHex("000000000000000000000002");
    const std::string jefe = "what do ya want for nothing?";

    // The capturing callbacks of the fixture are not for several threads.
    CZulCryptContext::SetDebugResponseFn(nullptr);
    CZulCryptContext::SetErrorResponseFn(CountError);
    std::atomic<int> wrong{0};
    auto round = [&](int thread) {
        // Each thread makes its own objects: objects are not shared, the context is.
        Bytes message = rsa.Bytes("In"), text(jefe.begin(), jefe.end()), abc = {'a', 'b', 'c'};
        Bytes block = FromHex("6bc1bee22e409f96e93d7e117393172a");
        unsigned char out[512];
        unsigned int length = 0;
        int written = 0;
        CZulCryptMDContext md(context);
        // Alternate names so that cache lookups and first fetches race.
        bool ok = md.SetType(thread % 2 == 0 ? "SHA256" : "SHA-256") && md.AddData(abc.data(), 3) &&
                  md.GetMessageDigest(out, &length) &&
                  Hex(out, length) == "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
        CZulCryptHMAC hmac(context, "SHA256", reinterpret_cast<const unsigned char*>("Jefe"), 4);
        ok = ok && hmac.GetHMAC(text.data(), 28, out, &length) &&
             Hex(out, length) == "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843";
        CZulCryptCipherContext cipher(context);
        ok = ok && cipher.SetEncryptType("AES-128-CBC", aesKey.data(), 16, iv.data(), 16) &&
             cipher.SetPadding(false) && cipher.EncryptData(block.data(), 16, out, &written) &&
             Hex(out, static_cast<size_t>(written)) == "7649abac8119b246cee98e9b12e9197d";
        CZulCryptSignature signer(context), verifier(context);
        Bytes signature = signed_;
        ok = ok && signer.SetHashAndKey("SHA256", n.data(), static_cast<unsigned>(n.size()), d.data(),
                                        static_cast<unsigned>(d.size())) &&
             signer.GetSignature(message.data(), static_cast<unsigned>(message.size()), out, &length) &&
             Bytes(out, out + length) == signed_ &&
             verifier.SetHashAndKey("SHA256", n.data(), static_cast<unsigned>(n.size()), e.data(),
                                    static_cast<unsigned>(e.size())) &&
             verifier.VerifySignature(message.data(), static_cast<unsigned>(message.size()), signature.data(),
                                      static_cast<unsigned>(signature.size()));

        ZulVklStatusWrap* status = ZulVklStatusCreate();
        ZulVklMdCtxWrap* handle = ZulVklMdCtxCreate(ctx);
        ZulVklHmacCtxWrap* mac = ZulVklHmacCtxCreate(ctx);
        unsigned char ku[20];
        ZulVklConstBuffer pw{reinterpret_cast<const unsigned char*>("maplesyrup"), 10}, kuIn{ku, 20},
            engineId{engine.data(), 12}, key{reinterpret_cast<const unsigned char*>("Jefe"), 4},
            first{text.data(), 10}, second{text.data() + 10, 18};
        ZulVklBuffer kuOut{ku, 20}, localOut{out, 20}, macOut{out, 0};
        ZulVklConstBuffer* pieces[] = {&first, &second};
        ok = ok && ZulVklMdGenerateKey(ctx, handle, "SHA1", &pw, &kuOut, status) == 1 &&
             ZulVklMdLocaliseKey(ctx, handle, "SHA1", &engineId, &kuIn, &localOut, status) == 1 &&
             Hex(out, 20) == "6695febc9288e36282235fc7151f128497b38f3f" &&
             ZulVklHmacGenerateDigest(ctx, mac, "SHA1", pieces, 2, &key, &macOut, status) == 1 &&
             Hex(out, macOut.length) == "effcdf6ae5eb2fa2d27416d5f184df9c259a7c79";
        ZulVklHmacCtxDestroy(ctx, mac);
        ZulVklMdCtxDestroy(ctx, handle);
        ZulVklStatusDestroy(status);
        return ok;
    };
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kRounds; ++i) wrong += round(t) ? 0 : 1;
        });
    }
    for (std::thread& thread : threads) thread.join();
    ZulVklCtxDestroy(ctx);
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(g_errors.load(), 0);
}

}  // namespace
