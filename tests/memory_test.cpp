// Out of memory at every allocation in turn: each piece of work below runs once for every
// allocation it makes (the stand-in's and OpenSSL's, VKLTest_FailAllocation), with that one
// failing. It must then either give the right bytes or fail with a cause reported, lose no
// handle, and leave nothing behind that spoils the next run.
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <czulcryptbignum.h>
#include <czulcryptciphercontext.h>
#include <czulcryptcontext.h>
#include <czulcryptdh.h>
#include <czulcrypthmac.h>
#include <czulcryptmdcontext.h>
#include <czulcryptrsacalculator.h>
#include <czulcryptrsakey.h>
#include <czulcryptsignature.h>
#include <vkl_testing.h>
#include <zulcryptimpl.h>

#include "test_support.h"
#include "vector_file.h"

namespace {

using zultest::FromHex;
using zultest::Hex;
using Bytes = std::vector<unsigned char>;

// A piece of work on a context of its own; true when every result is right. The C interface's
// work adds its status record's texts to `reports`.
using Work = std::function<bool(CZulCryptContext&, std::vector<std::string>& reports)>;

struct Row {
    const char* name;
    Work work;
};

const zultest::VectorCase& RsaCase() {
    static const zultest::VectorCase found = zultest::RsaSha256Signature();
    return found;
}

std::unique_ptr<CZulCryptRSAKey> Key(CZulCryptContext& context, const Bytes& n, const Bytes& exponent, bool isPrivate) {
    CZulCryptBigNum modulus(context), power(context);
    auto key = std::make_unique<CZulCryptRSAKey>(context);
    if (modulus.SetNumber(static_cast<unsigned>(n.size()), n.data()) &&
        power.SetNumber(static_cast<unsigned>(exponent.size()), exponent.data())) {
        if (isPrivate) key->PopulateWithPrivate(&modulus, &power);
        else key->PopulateWithPublic(&modulus, &power);
    }
    return key;
}

const Row kRows[] = {
    // FIPS 180-2 B.1
    {"digest", [](CZulCryptContext& c, std::vector<std::string>&) {
         CZulCryptMDContext md(c);
         unsigned char abc[] = {'a', 'b', 'c'}, out[64];
         unsigned int length = 0;
         return md.SetType("SHA256") && md.AddData(abc, 3) && md.GetMessageDigest(out, &length) &&
                Hex(out, length) == "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
     }},
    // RFC 4231 test case 2
    {"hmac", [](CZulCryptContext& c, std::vector<std::string>&) {
         CZulCryptHMAC hmac(c, "SHA256", reinterpret_cast<const unsigned char*>("Jefe"), 4);
         std::string text = "what do ya want for nothing?";
         unsigned char out[64];
         unsigned int length = 0;
         return hmac.GetHMAC(reinterpret_cast<unsigned char*>(&text[0]), 28, out, &length) &&
                Hex(out, length) == "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843";
     }},
    // NIST SP 800-38A F.2.1, first block, each way
    {"cipher", [](CZulCryptContext& c, std::vector<std::string>&) {
         Bytes key = FromHex("2b7e151628aed2a6abf7158809cf4f3c"), iv = FromHex("000102030405060708090a0b0c0d0e0f");
         Bytes block = FromHex("6bc1bee22e409f96e93d7e117393172a");
         unsigned char out[32], back[32];
         int written = 0, read = 0;
         CZulCryptCipherContext encrypt(c), decrypt(c);
         return encrypt.SetEncryptType("AES-128-CBC", key.data(), 16, iv.data(), 16) && encrypt.SetPadding(false) &&
                encrypt.EncryptData(block.data(), 16, out, &written) &&
                Hex(out, static_cast<size_t>(written)) == "7649abac8119b246cee98e9b12e9197d" &&
                decrypt.SetDecryptType("AES-128-CBC", key.data(), 16, iv.data(), 16) && decrypt.SetPadding(false) &&
                decrypt.DecryptData(out, 16, back, &read) && Bytes(back, back + read) == block;
     }},
    // A key given as n and d: completed at its first signature; then verified with n and e.
    {"signature", [](CZulCryptContext& c, std::vector<std::string>&) {
         const zultest::VectorCase& rsa = RsaCase();
         Bytes n = rsa.Bytes("N"), e = rsa.Bytes("E"), d = rsa.Bytes("D"), message = rsa.Bytes("In");
         Bytes expected = rsa.Bytes("Out");
         unsigned char out[512];
         unsigned int length = 0;
         CZulCryptSignature signer(c), verifier(c);
         return signer.SetHashAndKey("SHA256", n.data(), static_cast<unsigned>(n.size()), d.data(),
                                     static_cast<unsigned>(d.size())) &&
                signer.GetSignature(message.data(), static_cast<unsigned>(message.size()), out, &length) &&
                Bytes(out, out + length) == expected &&
                verifier.SetHashAndKey("SHA256", n.data(), static_cast<unsigned>(n.size()), e.data(),
                                       static_cast<unsigned>(e.size())) &&
                verifier.VerifySignature(message.data(), static_cast<unsigned>(message.size()), out, length);
     }},
    // Raw RSA both ways with the two halves of the same key.
    {"rsa", [](CZulCryptContext& c, std::vector<std::string>&) {
         const zultest::VectorCase& rsa = RsaCase();
         auto nd = Key(c, rsa.Bytes("N"), rsa.Bytes("D"), true), ne = Key(c, rsa.Bytes("N"), rsa.Bytes("E"), false);
         CZulCryptRSACalculator calculator(c);
         unsigned char abc[] = {'a', 'b', 'c'}, sealed[512], opened[512];
         const int signedLength = calculator.RSAPrivateEncrypt(abc, 3, *nd, sealed);
         const int encrypted = calculator.RSAPublicEncrypt(abc, 3, *ne, sealed + 256);
         return signedLength > 0 && calculator.RSAPublicDecrypt(sealed, signedLength, *ne, opened) == 3 &&
                Bytes(opened, opened + 3) == Bytes(abc, abc + 3) && encrypted > 0 &&
                calculator.RSAPrivateDecrypt(sealed + 256, encrypted, *nd, opened) == 3 &&
                Bytes(opened, opened + 3) == Bytes(abc, abc + 3);
     }},
    // Two parties of the 1024-bit Oakley group 2 agree.
    {"dh", [](CZulCryptContext& c, std::vector<std::string>&) {
         CZulCryptDH a(c), b(c);
         if (!a.SetOakleyGroup2() || !b.SetOakleyGroup2()) return false;
         a.GenerateKey();
         b.GenerateKey();
         // Each public key is the caller's to delete.
         std::unique_ptr<CZulCryptBigNum> publicA(a.GetPublicKey()), publicB(b.GetPublicKey());
         if (!publicA || !publicB) return false;
         a.ComputeSharedSecret(publicB.get());
         b.ComputeSharedSecret(publicA.get());
         int lengthA = 0, lengthB = 0;
         const unsigned char* secretA = a.GetSharedSecret(lengthA);
         const unsigned char* secretB = b.GetSharedSecret(lengthB);
         return secretA != nullptr && secretB != nullptr && lengthA == 128 &&
                Bytes(secretA, secretA + lengthA) == Bytes(secretB, secretB + lengthB);
     }},
    // RFC 3414 A.3.1 and A.3.2 (maplesyrup, SHA-1), then RFC 2202 test case 2, through the C interface.
    {"snmp", [](CZulCryptContext&, std::vector<std::string>& reports) {
         ZulVklCtxWrap* ctx = ZulVklCtxCreate();
         ZulVklStatusWrap* status = ZulVklStatusCreate();
         ZulVklMdCtxWrap* md = ctx != nullptr ? ZulVklMdCtxCreate(ctx) : nullptr;
         ZulVklHmacCtxWrap* mac = ctx != nullptr ? ZulVklHmacCtxCreate(ctx) : nullptr;
         const Bytes engine = FromHex("000000000000000000000002");
         std::string text = "what do ya want for nothing?";
         unsigned char ku[20], kul[20], digest[20];
         ZulVklConstBuffer password{reinterpret_cast<const unsigned char*>("maplesyrup"), 10}, kuIn{ku, 20},
             engineId{engine.data(), 12}, key{reinterpret_cast<const unsigned char*>("Jefe"), 4},
             piece{reinterpret_cast<const unsigned char*>(text.data()), 28};
         ZulVklBuffer kuOut{ku, 20}, kulOut{kul, 20}, macOut{digest, 0};
         ZulVklConstBuffer* pieces[] = {&piece};
         const bool ok = md != nullptr && mac != nullptr && status != nullptr &&
                         ZulVklMdGenerateKey(ctx, md, "SHA1", &password, &kuOut, status) == 1 &&
                         Hex(ku, 20) == "9fb5cc0381497b3793528939ff788d5d79145211" &&
                         ZulVklMdLocaliseKey(ctx, md, "SHA1", &engineId, &kuIn, &kulOut, status) == 1 &&
                         Hex(kul, 20) == "6695febc9288e36282235fc7151f128497b38f3f" &&
                         ZulVklHmacGenerateDigest(ctx, mac, "SHA1", pieces, 1, &key, &macOut, status) == 1 &&
                         Hex(digest, macOut.length) == "effcdf6ae5eb2fa2d27416d5f184df9c259a7c79";
         // A handle that cannot be made is told by the null handle alone.
         if (md == nullptr || mac == nullptr) reports.push_back("no handle");
         if (status != nullptr) {
             reports.push_back(status->errorMsg);
             reports.push_back(status->status.description);
         }
         if (ctx != nullptr) {
             if (mac != nullptr) ZulVklHmacCtxDestroy(ctx, mac);
             if (md != nullptr) ZulVklMdCtxDestroy(ctx, md);
         }
         ZulVklCtxDestroy(ctx);
         ZulVklStatusDestroy(status);
         return ok;
     }},
};

class MemoryTest : public zultest::PlatformTest {};

TEST_F(MemoryTest, EveryAllocationFailsOnceInTurn) {
    ASSERT_TRUE(RsaCase().Has("Out"));
    ASSERT_EQ(VKLTest_FailAllocation(0), 1) << "OpenSSL does not allocate through the stand-in";
    // A class that makes its VKL object again at the next call may absorb a failure; some must show.
    unsigned long failed = 0;
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.name);
        // One run, on a CZulCryptContext of its own (the VKL context under it is shared, and keeps what it fetched).
        auto run = [&](unsigned long failing, std::vector<std::string>& reports) {
            VKLTest_Reset();
            diagnostics->Clear();
            const long live = VKLTest_LiveObjects();
            VKLTest_FailAllocation(failing);
            bool ok = false;
            {
                CZulCryptContext context;
                ok = row.work(context, reports);
            }
            VKLTest_FailAllocation(0);
            EXPECT_EQ(VKLTest_LiveObjects(), live) << "allocation " << failing;
            for (const zultest::ErrorReport& report : diagnostics->errors) reports.push_back(report.text);
            return ok;
        };
        // The second clean run counts: the first also makes what the shared VKL context keeps.
        std::vector<std::string> reports;
        ASSERT_TRUE(run(0, reports));
        ASSERT_TRUE(run(0, reports));
        const unsigned long allocations = VKLTest_Allocations();
        ASSERT_GT(allocations, 0u);
        for (unsigned long k = 1; k <= allocations; ++k) {
            reports.clear();
            if (run(k, reports)) continue;
            ++failed;
            bool explained = false;
            for (const std::string& text : reports) explained = explained || !text.empty();
            EXPECT_TRUE(explained) << "allocation " << k << " of " << allocations << " failed the work unexplained";
        }
        reports.clear();
        EXPECT_TRUE(run(0, reports)) << "a failed allocation spoiled later work";
    }
    EXPECT_GT(failed, 0u);
}

}  // namespace
