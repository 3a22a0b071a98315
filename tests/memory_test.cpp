// Out of memory at every allocation in turn: each piece of work runs once for every allocation
// it makes (the stand-in's and OpenSSL's), with that one failing. It must then give the right
// bytes or fail with a cause reported, lose no handle, and not spoil the next run.
#include <czulcryptdh.h>
#include <czulcrypthmac.h>
#include <czulcryptsignature.h>
#include <vkl_testing.h>

#include "test_support.h"
#include "vector_file.h"

namespace zultest {

using Buf = std::vector<unsigned char>;
using Rows = std::vector<std::pair<const char*, std::function<bool(CZulCryptContext&, std::vector<std::string>&)>>>;
static unsigned char* U(const char* text) { return reinterpret_cast<unsigned char*>(const_cast<char*>(text)); }

// Every capability once, checked against outside values (also run from many threads); a
// piece of work may add texts that explain a failure to `reports`.
const Rows& CapabilityRows() {
    // Made by the openssl command line.
    static const VectorCase rsa = RsaSha256Signature();
    static const Rows rows = {
        // FIPS 180-2 B.1; RFC 4231 test case 2; two parties of Oakley group 2 agree.
        {"digest, hmac, dh", [](CZulCryptContext& c, auto&) {
             CZulCryptMDContext md(c);
             CZulCryptHMAC hmac(c, "SHA256", U("Jefe"), 4);
             CZulCryptDH a(c), b(c);
             unsigned char out[64];
             unsigned int n = 0;
             std::unique_ptr<CZulCryptBigNum> pa(a.SetOakleyGroup2() ? a.GetPublicKey() : nullptr), pb(b.SetOakleyGroup2() ? b.GetPublicKey() : nullptr);
             if (pa && pb) a.ComputeSharedSecret(pb.get()), b.ComputeSharedSecret(pa.get());
             int la = 0, lb = 0;
             const unsigned char *sa = a.GetSharedSecret(la), *sb = b.GetSharedSecret(lb);
             return md.SetType("SHA256") && md.AddData(U("abc"), 3) && md.GetMessageDigest(out, &n) &&
                    Hex(out, n) == "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad" &&
                    hmac.GetHMAC(U("what do ya want for nothing?"), 28, out, &n) && Hex(out, n) == "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843" &&
                    pa && pb && a.GetStatus() && b.GetStatus() && sa && sb && la == 128 && std::equal(sa, sa + la, sb);
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
    };
    return rows;
}

class MemoryTest : public PlatformTest {};

TEST_F(MemoryTest, EveryAllocationFailsOnceInTurn) {
    // Else OpenSSL does not allocate through the stand-in and only the stand-in's own allocations could fail.
    ASSERT_EQ(VKLTest_FailAllocation(0), 1);
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
            EXPECT_TRUE(run(k) || std::any_of(reports.begin(), reports.end(), [](const std::string& t) { return !t.empty(); })) << "allocation " << k;
        }
        // A failed allocation spoils no later work.
        EXPECT_TRUE(run(0));
    }
}

}  // namespace zultest
