// CZulCryptBigNum and CZulCryptDH: the known answers of tests/vectors/dh.vec and the
// cases of tests/data/bignum_scripts.vec and dh_scripts.vec.
#include <czulcryptdh.h>

#include "script.h"
#include "test_support.h"
#include "vector_file.h"

namespace zultest {
namespace {

using Buf = std::vector<unsigned char>;
class DhTest : public ContextTest {};

TEST_F(DhTest, Vectors) {
    for (const auto& v : ReadVectors("dh.vec")) {
        CZulCryptDH dh(*context);
        ASSERT_TRUE(v.Number("Group") == 2 ? dh.SetOakleyGroup2() : dh.SetOakleyGroup14());
        // The fixed key pair goes into the object's record (the word after the vtable and the context's).
        VKL_DH_t* record = reinterpret_cast<C_VKL_DH_Wrap**>(&dh)[2]->m_pDH;
        const Buf x = v.Bytes("Priv"), y = v.Bytes("Pub"), peer = v.Bytes("Peer");
        record->priv_key = VKL_BN_bin2bn(vkl, x.data(), x.size(), record->priv_key);
        record->pub_key = VKL_BN_bin2bn(vkl, y.data(), y.size(), record->pub_key);
        CZulCryptBigNum number(*context);
        ASSERT_TRUE(number.SetNumber(peer.size(), peer.data()));
        dh.ComputeSharedSecret(&number);
        int n = 0;
        const unsigned char* secret = dh.GetSharedSecret(n);
        EXPECT_TRUE(dh.GetStatus() && secret && Buf(secret, secret + n) == v.Bytes("Out"));
    }
}

// One number (the DH object's peer value) and one DH object (made by New); - is a null pointer.
Calls Driver(CZulCryptContext& context) {
    auto n = std::make_shared<CZulCryptBigNum>(context);
    using DH = CZulCryptDH;
    auto dh = std::make_shared<std::unique_ptr<DH>>();
    CZulCryptContext* c = &context;
    VKL_t* vkl = context.GetContext() ? context.GetContext()->m_pCtx : nullptr;
    auto bytes = [](const Arg& a) { return a.IsNull() ? Buf() : a.Bytes(); };
    // Calls on the number give their success, and the bytes held after with their count.
    auto held = [=](bool ok) { Outcome o = Bytes(true, n->GetBigNumPacket(), n->GetLen()); o.ok = ok, o.number = n->GetLen(); return o; };
    // FromVkl bytes: set from a VKL number.
    auto fromVkl = [=](const Args& a) {
        C_VKL_BIGNUM_Wrap number(VKL_BN_bin2bn(vkl, bytes(a[0]).data(), bytes(a[0]).size(), nullptr));
        const bool ok = n->SetNumber(a[0].IsNull() ? nullptr : &number);
        VKL_BN_clear_free(vkl, number.m_pBigNum);
        return held(ok);
    };
    // ToVkl: the VKL number built; ToVkl x: the value written into a new one (ToVkl -: into none).
    auto toVkl = [=](const Args& a) {
        std::unique_ptr<C_VKL_BIGNUM_Wrap> made(a.empty() ? n->BuildNumber() : new C_VKL_BIGNUM_Wrap(VKL_BN_new(vkl)));
        const bool ok = made && (a.empty() || n->PopulateNumber(a[0].IsNull() ? nullptr : made.get()));
        unsigned char out[512];
        const int length = made ? VKL_BN_bn2bin(vkl, made->m_pBigNum, out) : 0;
        if (made) VKL_BN_clear_free(vkl, made->m_pBigNum);
        return Bytes(ok, out, length);
    };
    // Public: this party's value, into the number.
    auto pub = [=] { std::unique_ptr<CZulCryptBigNum> p((*dh)->GetPublicKey()); return Ok(p && n->SetNumber(p->GetLen(), p->GetBigNumPacket())); };
    auto secret = [=] { int size = 0; const unsigned char* s = (*dh)->GetSharedSecret(size); Outcome o = Bytes(s, s, size); o.number = size; return o; };
    return {ZUL_CALL("Set", held(n->SetNumber(a.size() > 1 ? a[1].Number() : bytes(a[0]).size(), a[0].IsNull() ? nullptr : bytes(a[0]).data()))),
            ZUL_CALL("Packet", held(n->SetNumber(a[0].IsNull() ? nullptr : bytes(a[0]).data()))), ZUL_CALL("Self", held(n->SetNumber(n->GetLen(), n->GetBigNumPacket()))),
            ZUL_CALL("FromVkl", fromVkl(a)), ZUL_CALL("ToVkl", toVkl(a)), ZUL_CALL("Random", (n->PopulateRandom(a[0].Number()), held(true))),
            // New [primeBits generator]
            ZUL_CALL("New", (*dh = a.empty() ? std::make_unique<DH>(*c) : std::make_unique<DH>(*c, a[0].Number(), a[1].Number()), Ok((*dh)->GetStatus()))),
            ZUL_CALL("Group", Ok(a[0].Number() == 2 ? (*dh)->SetOakleyGroup2() : (*dh)->SetOakleyGroup14())), ZUL_CALL("Size", Number((*dh)->GetSize())),
            ZUL_CALL("Public", pub()), ZUL_CALL("Secret", secret()),
            // Compute [-]: with the number (or null); Ok is the status after.
            ZUL_CALL("Compute", ((*dh)->ComputeSharedSecret(a.empty() ? n.get() : nullptr), Ok((*dh)->GetStatus())))};
}

TEST_F(DhTest, Scripts) {
    RunScripts("bignum_scripts.vec", Driver);
    RunScripts("dh_scripts.vec", Driver);
}

}  // namespace
}  // namespace zultest
