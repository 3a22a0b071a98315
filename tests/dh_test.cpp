// CZulCryptBigNum and CZulCryptDH: the known answers of tests/vectors/dh.vec, agreement of
// generated keys, and the cases of tests/data/bignum_scripts.vec and dh_scripts.vec.
#include <czulcryptbignum.h>
#include <czulcryptdh.h>
#include <wexcrypt.h>

#include "script.h"
#include "test_support.h"
#include "vector_file.h"

namespace {

using zultest::Args;
using Bytes = std::vector<unsigned char>;
class DhTest : public zultest::ContextTest {};

Bytes Of(const CZulCryptBigNum* n) { return n ? Bytes(n->GetBigNumPacket(), n->GetBigNumPacket() + n->GetLen()) : Bytes(); }
Bytes Secret(CZulCryptDH& dh) { int n = 0; const unsigned char* s = dh.GetSharedSecret(n); return s ? Bytes(s, s + n) : Bytes(); }

// The private and public value written into the object's record (the word after the vtable and the context's).
void SetKey(CZulCryptDH& dh, VKL_t* vkl, const Bytes& x, const Bytes& y) {
    VKL_DH_t* record = reinterpret_cast<C_VKL_DH_Wrap**>(&dh)[2]->m_pDH;
    record->priv_key = VKL_BN_bin2bn(vkl, x.data(), static_cast<int>(x.size()), record->priv_key);
    record->pub_key = VKL_BN_bin2bn(vkl, y.data(), static_cast<int>(y.size()), record->pub_key);
}

TEST_F(DhTest, Vectors) {
    for (const auto& v : zultest::ReadVectors("dh.vec")) {
        SCOPED_TRACE(v.Where());
        const bool two = v.Number("Group") == 2;
        if (v.Has("Prime")) {
            EXPECT_EQ(v.Bytes("Prime"), two ? Bytes(CZulCryptDH::ms_Oakley2Prime, CZulCryptDH::ms_Oakley2Prime + 128)
                                            : Bytes(CZulCryptDH::ms_Oakley14Prime, CZulCryptDH::ms_Oakley14Prime + 256));
            continue;
        }
        CZulCryptDH dh(*context);
        ASSERT_TRUE(two ? dh.SetOakleyGroup2() : dh.SetOakleyGroup14());
        SetKey(dh, vkl, v.Bytes("Priv"), v.Bytes("Pub"));
        std::unique_ptr<CZulCryptBigNum> pub(dh.GetPublicKey());
        EXPECT_EQ(Of(pub.get()), v.Bytes("Pub"));
        CZulCryptBigNum peer(*context);
        const Bytes b = v.Bytes("Peer");
        ASSERT_TRUE(peer.SetNumber(static_cast<unsigned>(b.size()), b.data()));
        dh.ComputeSharedSecret(&peer);
        EXPECT_TRUE(dh.GetStatus());
        EXPECT_EQ(Secret(dh), v.Bytes("Out"));
    }
}

// Generated key pairs, on a fixed group and on generated parameters, agree.
TEST_F(DhTest, GeneratedKeysAgree) {
    CZulCryptDH a(*context), b(*context), c(*context, 512, 2);
    ASSERT_TRUE(a.SetOakleyGroup14() && b.SetOakleyGroup14() && c.GetStatus());
    std::unique_ptr<CZulCryptBigNum> pa(a.GetPublicKey()), pb(b.GetPublicKey()), pc(c.GetPublicKey());
    a.ComputeSharedSecret(pb.get());
    b.ComputeSharedSecret(pa.get());
    c.ComputeSharedSecret(pc.get());
    EXPECT_EQ(Secret(a).size(), 256u);
    EXPECT_EQ(Secret(a), Secret(b));
    EXPECT_EQ(Secret(c).size(), 64u);
    EXPECT_TRUE(a.GetStatus() && b.GetStatus() && c.GetStatus());
}

// One number (the DH object's peer value) and one DH object (made by New). - is a null pointer.
zultest::Calls Calls(CZulCryptContext& context) {
    auto n = std::make_shared<CZulCryptBigNum>(context);
    auto dh = std::make_shared<std::unique_ptr<CZulCryptDH>>();
    CZulCryptContext* c = &context;
    VKL_t* vkl = context.GetContext() ? context.GetContext()->m_pCtx : nullptr;
    auto held = [=] { auto o = zultest::Bytes(true, n->GetBigNumPacket(), n->GetLen()); o.number = n->GetLen(); return o; };
    return {
        // Set bytes [count]
        {"Set", [=](const Args& a) {
             const Bytes in = a[0].IsNull() ? Bytes() : a[0].Bytes();
             return zultest::Ok(n->SetNumber(a.size() > 1 ? static_cast<unsigned>(a[1].Number()) : in.size(), a[0].IsNull() ? nullptr : in.data()));
         }},
        {"Packet", [=](const Args& a) { const Bytes in = a[0].IsNull() ? Bytes() : a[0].Bytes(); return zultest::Ok(n->SetNumber(a[0].IsNull() ? nullptr : in.data())); }},
        {"Self", [=](const Args&) { return zultest::Ok(n->SetNumber(n->GetLen(), n->GetBigNumPacket())); }},
        {"Held", [=](const Args&) { return held(); }},
        // FromVkl bytes [negative]
        {"FromVkl", [=](const Args& a) {
             const Bytes in = a[0].IsNull() ? Bytes() : a[0].Bytes();
             C_VKL_BIGNUM_Wrap number(VKL_BN_bin2bn(vkl, in.data(), static_cast<int>(in.size()), nullptr));
             if (a.size() > 1) VKL_BN_set_negative(vkl, number.m_pBigNum, 1);
             const bool ok = n->SetNumber(a[0].IsNull() ? nullptr : &number);
             VKL_BN_clear_free(vkl, number.m_pBigNum);
             return zultest::Ok(ok);
         }},
        // ToVkl: the value of the VKL number built; Populate [-]: written into a new one.
        {"ToVkl", [=](const Args& a) {
             std::unique_ptr<C_VKL_BIGNUM_Wrap> made(a.empty() ? n->BuildNumber() : new C_VKL_BIGNUM_Wrap(VKL_BN_new(vkl)));
             const bool ok = made && (a.empty() || n->PopulateNumber(a[0].IsNull() ? nullptr : made.get()));
             unsigned char out[512];
             const int length = made ? VKL_BN_bn2bin(vkl, made->m_pBigNum, out) : 0;
             if (made) VKL_BN_clear_free(vkl, made->m_pBigNum);
             return zultest::Bytes(ok, out, static_cast<size_t>(length));
         }},
        {"Random", [=](const Args& a) { n->PopulateRandom(static_cast<unsigned>(a[0].Number())); return held(); }},
        {"Dump", [=](const Args&) { testing::internal::CaptureStdout(); n->Dump(); return zultest::Text(testing::internal::GetCapturedStdout().c_str()); }},
        // New [primeBits generator]
        {"New", [=](const Args& a) {
             *dh = a.empty() ? std::make_unique<CZulCryptDH>(*c) : std::make_unique<CZulCryptDH>(*c, a[0].Number(), a[1].Number());
             return zultest::Ok((*dh)->GetStatus());
         }},
        {"Group", [=](const Args& a) { return zultest::Ok(a[0].Number() == 2 ? (*dh)->SetOakleyGroup2() : (*dh)->SetOakleyGroup14()); }},
        {"Size", [=](const Args&) { return zultest::Number((*dh)->GetSize()); }},
        {"Public", [=](const Args&) { std::unique_ptr<CZulCryptBigNum> p((*dh)->GetPublicKey()); return zultest::Ok(p != nullptr); }},
        // Compute [-]: with the number (or null); Ok is the status after.
        {"Compute", [=](const Args& a) { (*dh)->ComputeSharedSecret(a.empty() ? n.get() : nullptr); return zultest::Ok((*dh)->GetStatus()); }},
        {"Secret", [=](const Args&) { int length = 0; const unsigned char* s = (*dh)->GetSharedSecret(length); auto o = zultest::Ok(s != nullptr); o.number = length; return o; }},
    };
}

TEST_F(DhTest, Scripts) {
    zultest::RunScripts("bignum_scripts.vec", Calls);
    zultest::RunScripts("dh_scripts.vec", Calls);
}

}  // namespace
