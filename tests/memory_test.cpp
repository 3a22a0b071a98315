// Out of memory at every allocation in turn: each piece of work runs once for every allocation
// it makes (the stand-in's and OpenSSL's), with that one failing. It must then give the right
// bytes or fail with a cause reported, lose no handle, and not spoil the next run.
#include <functional>

#include <czulcryptciphercontext.h>
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

namespace zultest {

using Bytes = std::vector<unsigned char>;
// A piece of work on a context; true when every result is right. The C interface's adds its status texts to `reports`.
using Work = std::function<bool(CZulCryptContext&, std::vector<std::string>& reports)>;
const unsigned char* U(const char* text) { return reinterpret_cast<const unsigned char*>(text); }
unsigned char* M(const char* text) { return const_cast<unsigned char*>(U(text)); }

// Every capability once, checked against outside values; also run from many threads.
const std::vector<std::pair<const char*, Work>>& CapabilityRows() {
    static const VectorCase rsa = RsaSha256Signature();  // made by the openssl command line
    static const std::vector<std::pair<const char*, Work>> rows = {
        // FIPS 180-2 B.1; RFC 4231 test case 2
        {"digest", [](CZulCryptContext& c, auto&) {
             CZulCryptMDContext md(c);
             unsigned char out[64];
             unsigned int n = 0;
             return md.SetType("SHA256") && md.AddData(M("abc"), 3) && md.GetMessageDigest(out, &n) &&
                    Hex(out, n) == "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
         }},
        {"hmac", [](CZulCryptContext& c, auto&) {
             CZulCryptHMAC hmac(c, "SHA256", U("Jefe"), 4);
             unsigned char out[64];
             unsigned int n = 0;
             return hmac.GetHMAC(M("what do ya want for nothing?"), 28, out, &n) &&
                    Hex(out, n) == "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843";
         }},
        // NIST SP 800-38A F.2.1, first block
        {"cipher", [](CZulCryptContext& c, auto&) {
             Bytes key = FromHex("2b7e151628aed2a6abf7158809cf4f3c"), iv = FromHex("000102030405060708090a0b0c0d0e0f");
             Bytes block = FromHex("6bc1bee22e409f96e93d7e117393172a");
             unsigned char out[32];
             int n = 0;
             CZulCryptCipherContext cipher(c);
             return cipher.SetEncryptType("AES-128-CBC", key.data(), 16, iv.data(), 16) && cipher.SetPadding(false) &&
                    cipher.EncryptData(block.data(), 16, out, &n) && Hex(out, n) == "7649abac8119b246cee98e9b12e9197d";
         }},
        // A key given as n and d (completed at its first signature), then verified with n and e; raw RSA both ways.
        {"rsa", [](CZulCryptContext& c, auto&) {
             Bytes n = rsa.Bytes("N"), e = rsa.Bytes("E"), d = rsa.Bytes("D"), in = rsa.Bytes("In"), out(512);
             unsigned int length = 0;
             CZulCryptSignature signer(c), verifier(c);
             bool ok = signer.SetHashAndKey("SHA256", n.data(), n.size(), d.data(), d.size()) &&
                       signer.GetSignature(in.data(), in.size(), out.data(), &length) && Bytes(out.data(), out.data() + length) == rsa.Bytes("Out") &&
                       verifier.SetHashAndKey("SHA256", n.data(), n.size(), e.data(), e.size()) && verifier.VerifySignature(in.data(), in.size(), out.data(), length);
             CZulCryptBigNum bn(c), bd(c), be(c);
             CZulCryptRSAKey nd(c), ne(c);
             CZulCryptRSACalculator calc(c);
             if (!bn.SetNumber(n.size(), n.data()) || !bd.SetNumber(d.size(), d.data()) || !be.SetNumber(e.size(), e.data())) return false;
             nd.PopulateWithPrivate(&bn, &bd), ne.PopulateWithPublic(&bn, &be);
             const int sealed = calc.RSAPrivateEncrypt(U("abc"), 3, nd, out.data()), encrypted = calc.RSAPublicEncrypt(U("abc"), 3, ne, out.data() + 256);
             unsigned char back[512];
             return ok && sealed > 0 && calc.RSAPublicDecrypt(out.data(), sealed, ne, back) == 3 && Bytes(back, back + 3) == Bytes(U("abc"), U("abc") + 3) &&
                    encrypted > 0 && calc.RSAPrivateDecrypt(out.data() + 256, encrypted, nd, back) == 3 && Bytes(back, back + 3) == Bytes(U("abc"), U("abc") + 3);
         }},
        // Two parties of Oakley group 2 agree.
        {"dh", [](CZulCryptContext& c, auto&) {
             CZulCryptDH a(c), b(c);
             if (!a.SetOakleyGroup2() || !b.SetOakleyGroup2()) return false;
             std::unique_ptr<CZulCryptBigNum> pa(a.GetPublicKey()), pb(b.GetPublicKey());
             if (!pa || !pb) return false;
             a.ComputeSharedSecret(pb.get()), b.ComputeSharedSecret(pa.get());
             int la = 0, lb = 0;
             const unsigned char *sa = a.GetSharedSecret(la), *sb = b.GetSharedSecret(lb);
             return sa && sb && la == 128 && Bytes(sa, sa + la) == Bytes(sb, sb + lb);
         }},
        // RFC 3414 A.3.2 (maplesyrup localised under SHA-1), RFC 2202 test case 2, through the C interface.
        {"snmp", [](CZulCryptContext&, std::vector<std::string>& reports) {
             ZulVklCtxWrap* ctx = ZulVklCtxCreate();
             ZulVklStatusWrap* status = ZulVklStatusCreate();
             ZulVklMdCtxWrap* md = ctx ? ZulVklMdCtxCreate(ctx) : nullptr;
             ZulVklHmacCtxWrap* mac = ctx ? ZulVklHmacCtxCreate(ctx) : nullptr;
             const Bytes engine = FromHex("000000000000000000000002");
             unsigned char ku[20], kul[20], digest[20];
             ZulVklConstBuffer pw{U("maplesyrup"), 10}, kuIn{ku, 20}, id{engine.data(), 12}, key{U("Jefe"), 4}, piece{U("what do ya want for nothing?"), 28};
             ZulVklBuffer kuOut{ku, 20}, kulOut{kul, 20}, macOut{digest, 0};
             ZulVklConstBuffer* pieces[] = {&piece};
             const bool ok = md && mac && status && ZulVklMdGenerateKey(ctx, md, "SHA1", &pw, &kuOut, status) == 1 &&
                             ZulVklMdLocaliseKey(ctx, md, "SHA1", &id, &kuIn, &kulOut, status) == 1 &&
                             Hex(kul, 20) == "6695febc9288e36282235fc7151f128497b38f3f" &&
                             ZulVklHmacGenerateDigest(ctx, mac, "SHA1", pieces, 1, &key, &macOut, status) == 1 &&
                             Hex(digest, macOut.length) == "effcdf6ae5eb2fa2d27416d5f184df9c259a7c79";
             // A handle that cannot be made is told by the null handle alone.
             if (!md || !mac) reports.push_back("no handle");
             if (status) reports.insert(reports.end(), {status->errorMsg, status->status.description});
             if (mac) ZulVklHmacCtxDestroy(ctx, mac);
             if (md) ZulVklMdCtxDestroy(ctx, md);
             ZulVklCtxDestroy(ctx);
             ZulVklStatusDestroy(status);
             return ok;
         }},
    };
    return rows;
}

class MemoryTest : public PlatformTest {};

TEST_F(MemoryTest, EveryAllocationFailsOnceInTurn) {
    ASSERT_EQ(VKLTest_FailAllocation(0), 1) << "OpenSSL does not allocate through the stand-in";
    unsigned long failed = 0;
    for (const auto& row : CapabilityRows()) {
        SCOPED_TRACE(row.first);
        std::vector<std::string> reports;
        auto run = [&](unsigned long failing) {
            VKLTest_Reset();
            diagnostics->Clear();
            reports.clear();
            const long live = VKLTest_LiveObjects();
            VKLTest_FailAllocation(failing);
            bool ok = false;
            {
                CZulCryptContext context;
                ok = row.second(context, reports);
            }
            VKLTest_FailAllocation(0);
            EXPECT_EQ(VKLTest_LiveObjects(), live) << "allocation " << failing;
            for (const ErrorReport& report : diagnostics->errors) reports.push_back(report.text);
            return ok;
        };
        // The second clean run counts: the first also makes what the shared VKL context keeps.
        ASSERT_TRUE(run(0) && run(0));
        const unsigned long allocations = VKLTest_Allocations();
        for (unsigned long k = 1; k <= allocations; ++k) {
            if (run(k)) continue;
            ++failed;
            EXPECT_TRUE(std::any_of(reports.begin(), reports.end(), [](const std::string& t) { return !t.empty(); })) << "allocation " << k << " failed unexplained";
        }
        EXPECT_TRUE(run(0)) << "a failed allocation spoiled later work";
    }
    EXPECT_GT(failed, 0u);
}

}  // namespace zultest
