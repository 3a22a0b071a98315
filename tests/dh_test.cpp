// CZulCryptBigNum and CZulCryptDH driven call by call by tests/data/bignum_scripts.vec
// and tests/data/dh_scripts.vec.
#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include <openssl/bn.h>

#include <czulcryptbignum.h>
#include <czulcryptdh.h>
#include <wexcrypt.h>

#include "script.h"
#include "test_support.h"

namespace {

using zultest::Args;

// The magnitude a VKL number holds (not ok without one); the number is released.
zultest::Outcome Release(VKL_t* vkl, C_VKL_BIGNUM_Wrap* number) {
    std::vector<unsigned char> out(8192);
    const int written = number->m_pBigNum != nullptr ? VKL_BN_bn2bin(vkl, number->m_pBigNum, out.data()) : -1;
    VKL_BN_clear_free(vkl, number->m_pBigNum);
    return zultest::Bytes(written >= 0, out.data(), static_cast<size_t>(written));
}

// Bytes (not ok for none) with their count as Result.
zultest::Outcome Sized(const unsigned char* data, long length) {
    auto out = zultest::Bytes(data != nullptr, data, static_cast<size_t>(length));
    out.number = length;
    return out;
}

// OpenSSL's base ^ exponent mod the RFC prime of the given size, padded to that size.
std::vector<unsigned char> ModExp(const CZulCryptBigNum& base, const std::vector<unsigned char>& exponent, int size) {
    BN_CTX* ctx = BN_CTX_new();
    BIGNUM* y = BN_bin2bn(base.GetBigNumPacket(), static_cast<int>(base.GetLen()), nullptr);
    BIGNUM* x = BN_bin2bn(exponent.data(), static_cast<int>(exponent.size()), nullptr);
    BIGNUM* p = size == 128 ? BN_get_rfc2409_prime_1024(nullptr) : BN_get_rfc3526_prime_2048(nullptr);
    std::vector<unsigned char> out(static_cast<size_t>(size));
    EXPECT_TRUE(BN_mod_exp(y, y, x, p, ctx) == 1 && BN_bn2binpad(y, out.data(), size) == size);
    BN_free(y), BN_free(x), BN_free(p), BN_CTX_free(ctx);
    return out;
}

// The calls of a script on one number and one DH object (made by New), the number
// being the DH object's peer value. An argument - stands for a null pointer, null
// for a holder of a null VKL number.
zultest::Calls Calls(CZulCryptContext& context) {
    auto n = std::make_shared<CZulCryptBigNum>(context);
    auto dh = std::make_shared<std::unique_ptr<CZulCryptDH>>();
    CZulCryptContext* c = &context;
    VKL_t* vkl = nullptr;  // the process's VKL, for the numbers handed over
    WEXCryptGetContext(&vkl);
    auto bytes = [](const zultest::Arg& a) { return a.IsNull() || a.raw == "null" ? std::vector<unsigned char>() : a.Bytes(); };
    auto held = [=] { return Sized(n->GetBigNumPacket(), n->GetLen()); };
    auto secret = [=] { int length = 0; const unsigned char* s = (*dh)->GetSharedSecret(length); return Sized(s, length); };
    return {
        // Set bytes [length]
        {"Set", [=](const Args& a) {
             const auto in = bytes(a[0]);
             return zultest::Ok(n->SetNumber(a.size() > 1 ? static_cast<unsigned>(a[1].Number()) : in.size(),
                                             a[0].IsNull() ? nullptr : in.data()));
         }},
        // Packet bytes, read from an odd address
        {"Packet", [=](const Args& a) {
             auto in = bytes(a[0]);
             in.insert(in.begin(), 0);
             return zultest::Ok(n->SetNumber(a[0].IsNull() ? nullptr : in.data() + 1));
         }},
        {"Self", [=](const Args&) { return zultest::Ok(n->SetNumber(n->GetLen(), n->GetBigNumPacket())); }},
        {"SelfPacket", [=](const Args&) { return zultest::Ok(n->SetNumber(n->GetBigNumPacket())); }},
        {"Held", [=](const Args&) { return held(); }},
        // FromVkl bytes [negative]; Result is whether VKL holds it negative.
        {"FromVkl", [=](const Args& a) {
             const auto in = bytes(a[0]);
             C_VKL_BIGNUM_Wrap number(a[0].raw == "null" ? nullptr : VKL_BN_bin2bn(vkl, in.data(), static_cast<int>(in.size()), nullptr));
             if (a.size() > 1) VKL_BN_set_negative(vkl, number.m_pBigNum, 1);
             auto out = zultest::Ok(n->SetNumber(a[0].IsNull() ? nullptr : &number));
             out.number = VKL_BN_is_negative(vkl, number.m_pBigNum);
             VKL_BN_clear_free(vkl, number.m_pBigNum);
             return out;
         }},
        // The value of the VKL number built.
        {"ToVkl", [=](const Args&) {
             std::unique_ptr<C_VKL_BIGNUM_Wrap> built(n->BuildNumber());
             return built ? Release(vkl, built.get()) : zultest::Ok(false);
         }},
        // The value written into a new VKL number.
        {"Populate", [=](const Args& a) {
             C_VKL_BIGNUM_Wrap number(a.empty() ? VKL_BN_new(vkl) : nullptr);
             const bool ok = n->PopulateNumber(!a.empty() && a[0].IsNull() ? nullptr : &number);
             auto out = Release(vkl, &number);
             out.ok = ok;
             return out;
         }},
        // Random bits: Result is the length, Ok whether the bytes changed.
        {"Random", [=](const Args& a) {
             const auto before = held().out;
             n->PopulateRandom(static_cast<unsigned>(a[0].Number()));
             auto out = held();
             out.ok = out.out != before;
             return out;
         }},
        {"Dump", [=](const Args&) {
             testing::internal::CaptureStdout();
             n->Dump();
             return zultest::Text(testing::internal::GetCapturedStdout().c_str());
         }},
        // New [primeBits generator]
        {"New", [=](const Args& a) {
             *dh = a.empty() ? std::make_unique<CZulCryptDH>(*c) : std::make_unique<CZulCryptDH>(*c, a[0].Number(), a[1].Number());
             return zultest::Ok((*dh)->GetStatus());
         }},
        {"Group", [=](const Args& a) { return zultest::Ok(a[0].Number() == 2 ? (*dh)->SetOakleyGroup2() : (*dh)->SetOakleyGroup14()); }},
        {"Prime2", [=](const Args&) { return zultest::Bytes(true, CZulCryptDH::ms_Oakley2Prime, 128); }},
        {"Prime14", [=](const Args&) { return zultest::Bytes(true, CZulCryptDH::ms_Oakley14Prime, 256); }},
        {"GenerateKey", [=](const Args&) { (*dh)->GenerateKey(); return zultest::Ok((*dh)->GetStatus()); }},
        {"Status", [=](const Args&) { return zultest::Ok((*dh)->GetStatus()); }},
        {"Size", [=](const Args&) { return zultest::Number((*dh)->GetSize()); }},
        // The public value, into the number; Ok when there is one, Result 1 when it changed.
        {"Public", [=](const Args&) {
             std::unique_ptr<CZulCryptBigNum> pub((*dh)->GetPublicKey());
             const auto before = held().out;
             if (pub) n->SetNumber(pub->GetLen(), pub->GetBigNumPacket());
             auto out = held();
             out.ok = pub != nullptr;
             out.number = out.out != before;
             return out;
         }},
        // SetKey private public: a fixed key pair for secrets known in advance, written into
        // the object's record (the word after the vtable and the context's).
        {"SetKey", [=](const Args& a) {
             VKL_DH_t* record = reinterpret_cast<C_VKL_DH_Wrap**>(dh->get())[2]->m_pDH;
             const auto x = a[0].Bytes(), y = a[1].Bytes();
             record->priv_key = VKL_BN_bin2bn(vkl, x.data(), static_cast<int>(x.size()), record->priv_key);
             record->pub_key = VKL_BN_bin2bn(vkl, y.data(), static_cast<int>(y.size()), record->pub_key);
             return zultest::Ok(record->priv_key != nullptr && record->pub_key != nullptr);
         }},
        // Compute [-]: with the number (or null); Ok is the object's status after.
        {"Compute", [=](const Args& a) { (*dh)->ComputeSharedSecret(a.empty() ? n.get() : nullptr); return zultest::Ok((*dh)->GetStatus()); }},
        {"Secret", [=](const Args&) { return secret(); }},
        // Agree b: the secret with the number, 2^b, is OpenSSL's (own public value)^b.
        {"Agree", [=](const Args& a) {
             std::unique_ptr<CZulCryptBigNum> own((*dh)->GetPublicKey());
             (*dh)->ComputeSharedSecret(n.get());
             return zultest::Ok(own && secret().out == ModExp(*own, a[0].Bytes(), (*dh)->GetSize()));
         }},
    };
}

class BigNumTest : public zultest::PlatformTest {};
class DhTest : public zultest::PlatformTest {};

TEST_F(BigNumTest, Scripts) { zultest::RunScripts("bignum_scripts.vec", Calls); }

TEST_F(DhTest, Scripts) { zultest::RunScripts("dh_scripts.vec", Calls); }

}  // namespace
