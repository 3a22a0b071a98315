// Out of memory at every allocation in turn: each piece of work runs once for every allocation
// it makes (the stand-in's and OpenSSL's), with that one failing. It must then give the right
// bytes or fail with a cause reported, lose no handle, and not spoil the next run.
#include <czulcryptdh.h>
#include <czulcrypthmac.h>
#include <czulcryptmdcontext.h>
#include <czulcryptsignature.h>
#include <vkl_testing.h>
#include <zulcryptimpl.h>

#include "test_support.h"
#include "vector_file.h"

namespace zultest {

using Buf = std::vector<unsigned char>;
using Rows = std::vector<std::pair<const char*, std::function<bool(CZulCryptContext&, std::vector<std::string>&)>>>;
unsigned char* U(const char* text) { return reinterpret_cast<unsigned char*>(const_cast<char*>(text)); }

// Every capability once, checked against outside values (also run from many threads). The C
// interface's work adds its status texts to `reports`.
const Rows& CapabilityRows() {
    static const VectorCase rsa = RsaSha256Signature();  // made by the openssl command line
    static const Rows rows = {
        // FIPS 180-2 B.1; RFC 4231 test case 2; two parties of Oakley group 2 agree.
        {"digest, hmac, dh", [](CZulCryptContext& c, auto&) {
             CZulCryptMDContext md(c);
             CZulCryptHMAC hmac(c, "SHA256", U("Jefe"), 4);
             CZulCryptDH a(c), b(c);
             unsigned char out[64], mac[64];
             unsigned int n = 0, m = 0;
             std::unique_ptr<CZulCryptBigNum> pa(a.SetOakleyGroup2() ? a.GetPublicKey() : nullptr), pb(b.SetOakleyGroup2() ? b.GetPublicKey() : nullptr);
             if (pa && pb) a.ComputeSharedSecret(pb.get()), b.ComputeSharedSecret(pa.get());
             int la = 0, lb = 0;
             const unsigned char *sa = a.GetSharedSecret(la), *sb = b.GetSharedSecret(lb);
             return md.SetType("SHA256") && md.AddData(U("abc"), 3) && md.GetMessageDigest(out, &n) &&
                    Hex(out, n) == "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad" &&
                    hmac.GetHMAC(U("what do ya want for nothing?"), 28, mac, &m) && Hex(mac, m) == "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843" &&
                    pa && pb && a.GetStatus() && b.GetStatus() && sa && sb && la == 128 && Buf(sa, sa + la) == Buf(sb, sb + lb);
         }},
        // A key given as n and d (completed at its first signature), then verified with n and e.
        {"signature", [](CZulCryptContext& c, auto&) {
             Buf n = rsa.Bytes("N"), e = rsa.Bytes("E"), d = rsa.Bytes("D"), in = rsa.Bytes("In"), out(512);
             unsigned int length = 0;
             CZulCryptSignature signer(c), verifier(c);
             return signer.SetHashAndKey("SHA256", n.data(), n.size(), d.data(), d.size()) && signer.GetSignature(in.data(), in.size(), out.data(), &length) &&
                    Buf(out.data(), out.data() + length) == rsa.Bytes("Out") && verifier.SetHashAndKey("SHA256", n.data(), n.size(), e.data(), e.size()) &&
                    verifier.VerifySignature(in.data(), in.size(), out.data(), length);
         }},
        // RFC 3414 A.3.1 and A.3.2 (maplesyrup, SHA-1) through the C interface.
        {"snmp", [](CZulCryptContext&, std::vector<std::string>& reports) {
             ZulVklCtxWrap* ctx = ZulVklCtxCreate();
             ZulVklStatusWrap* status = ZulVklStatusCreate();
             ZulVklMdCtxWrap* md = ctx ? ZulVklMdCtxCreate(ctx) : nullptr;
             unsigned char ku[20], kul[20], engine[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2};
             ZulVklConstBuffer pw{U("maplesyrup"), 10}, kuIn{ku, 20}, id{engine, 12};
             ZulVklBuffer kuOut{ku, 20}, kulOut{kul, 20};
             const bool ok = md && status && ZulVklMdGenerateKey(ctx, md, "SHA1", &pw, &kuOut, status) == 1 && Hex(ku, 20) == "9fb5cc0381497b3793528939ff788d5d79145211" &&
                             ZulVklMdLocaliseKey(ctx, md, "SHA1", &id, &kuIn, &kulOut, status) == 1 && Hex(kul, 20) == "6695febc9288e36282235fc7151f128497b38f3f";
             // A handle that cannot be made is told by the null handle alone.
             reports.push_back(md ? "" : "no handle");
             if (status) reports.insert(reports.end(), {status->errorMsg, status->status.description});
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
        // One run on a crypto context of its own (the VKL context under it is shared, and keeps what it fetched).
        auto run = [&](unsigned long failing) {
            VKLTest_Reset(), diagnostics->Clear(), reports.clear();
            const long live = VKLTest_LiveObjects();
            VKLTest_FailAllocation(failing);
            const bool ok = row.second(*std::make_unique<CZulCryptContext>(), reports);
            VKLTest_FailAllocation(0);
            EXPECT_EQ(VKLTest_LiveObjects(), live) << "allocation " << failing;
            for (const ErrorReport& report : diagnostics->errors) reports.push_back(report.text);
            return ok;
        };
        // The second clean run counts: the first also makes what the shared VKL context keeps.
        ASSERT_TRUE(run(0) && run(0));
        for (unsigned long k = 1, n = VKLTest_Allocations(); k <= n; ++k) {
            if (run(k)) continue;
            ++failed;
            EXPECT_TRUE(std::any_of(reports.begin(), reports.end(), [](const std::string& t) { return !t.empty(); })) << "allocation " << k << " failed unexplained";
        }
        EXPECT_TRUE(run(0)) << "a failed allocation spoiled later work";
    }
    EXPECT_GT(failed, 0u);
}

}  // namespace zultest
