// CZulCryptHMAC: the known answers of tests/vectors/hmac.vec through both GetHMAC
// forms and a second call, and the cases of tests/data/hmac_scripts.vec.
#include <sys/resource.h>

#include <czulcrypthmac.h>

#include "script.h"
#include "test_support.h"
#include "vector_file.h"

namespace {

using zultest::Args;
using Bytes = std::vector<unsigned char>;
class HmacTest : public zultest::ContextTest {};

TEST_F(HmacTest, Vectors) {
    for (const auto& v : zultest::ReadVectors("hmac.vec")) {
        SCOPED_TRACE(v.Where());
        Bytes key = v.Bytes("Key"), in = v.Bytes("In"), want = v.Bytes(v.Has("Out") ? "Out" : "Prefix");
        CZulCryptHMAC hmac(*context, v.Text("Digest").c_str(), key.data(), static_cast<unsigned>(key.size()));
        in.reserve(1);  // a non-null pointer for the empty message
        for (int round = 0; round < 3; ++round) {
            unsigned char buffer[64], *out = buffer;
            unsigned int length = 0;
            const bool ok = round < 2 ? hmac.GetHMAC(in.data(), static_cast<unsigned>(in.size()), out, &length)
                                      : hmac.GetHMAC(in.data(), static_cast<unsigned>(in.size()), &out, &length);
            ASSERT_TRUE(ok);
            EXPECT_EQ(Bytes(out, out + std::min<size_t>(length, want.size())), want);
            EXPECT_EQ(static_cast<int>(length), v.Has("Out") ? static_cast<int>(want.size()) : hmac.GetDigestSize());
            if (round == 2) std::free(out);
        }
    }
    EXPECT_EQ(diagnostics->TakeErrors("czulcryptmdcontext"), std::vector<std::string>{});
}

// "New digest key [length]" (- for null); Mac and MacAlloc "data [- for null output] [length]"
// give the length they leave (99 when untouched).
zultest::Calls HmacCalls(CZulCryptContext& context) {
    auto hmac = std::make_shared<std::unique_ptr<CZulCryptHMAC>>();
    CZulCryptContext* on = &context;
    auto mac = [=](const Args& a, bool allocating) {
        unsigned char buffer[64], *out = buffer;
        unsigned int length = 99;
        Bytes data = a[0].IsNull() ? Bytes() : a[0].Bytes();
        data.reserve(1);
        unsigned char* in = a[0].IsNull() ? nullptr : data.data();
        const bool none = a.size() > 1 && a[1].IsNull();
        const unsigned n = a.size() > 2 ? static_cast<unsigned>(std::stoul(a[2].raw)) : static_cast<unsigned>(data.size());
        const bool ok = allocating ? (*hmac)->GetHMAC(in, n, none ? nullptr : &out, &length)
                                   : (*hmac)->GetHMAC(in, n, none ? nullptr : out, &length);
        zultest::Outcome outcome = zultest::Bytes(ok, out, length);
        outcome.number = length;
        if (out != buffer) std::free(out);
        return outcome;
    };
    return {
        {"New", [=](const Args& a) {
             const Bytes key = a[1].IsNull() ? Bytes() : a[1].Bytes();
             const unsigned length = a.size() > 2 ? static_cast<unsigned>(a[2].Number()) : static_cast<unsigned>(key.size());
             hmac->reset();
             *hmac = std::make_unique<CZulCryptHMAC>(*on, a[0].IsNull() ? nullptr : a[0].Text().c_str(),
                                                     a[1].IsNull() ? nullptr : key.data(), length);
             return zultest::Ok(true);
         }},
        {"Mac", [=](const Args& a) { return mac(a, false); }},
        {"MacAlloc", [=](const Args& a) { return mac(a, true); }},
        {"Size", [=](const Args&) { return zultest::Number((*hmac)->GetDigestSize()); }},
        {"Block", [=](const Args&) { return zultest::Number((*hmac)->GetDigestBlockSize()); }},
        {"Type", [=](const Args&) { return zultest::Text((*hmac)->GetType()); }},
        {"Status", [=](const Args&) { return zultest::Ok((*hmac)->GetStatus()); }},
    };
}

TEST_F(HmacTest, Scripts) { zultest::RunScripts("hmac_scripts.vec", HmacCalls); }

// With the address space capped at 1 GiB, the inner input of a 3 GiB message cannot be allocated.
TEST_F(HmacTest, InsufficientMemoryEndsTheProcess) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer's shadow memory needs more address space than the limit leaves";
#else
    CZulCryptHMAC hmac(*context, "SHA1", reinterpret_cast<const unsigned char*>("abc"), 3);
    auto child = [&] {
        CZulCryptContext::SetErrorResponseFn(nullptr);
        const struct rlimit limit = {rlim_t{1} << 30, rlim_t{1} << 30};
        setrlimit(RLIMIT_AS, &limit);
        unsigned char data[1] = {}, out[20];
        unsigned int length = 0;
        hmac.GetHMAC(data, 3u << 30, out, &length);
    };
    EXPECT_EXIT(child(), ::testing::ExitedWithCode(255), "FILE:czulcrypthmac LINE:[0-9]+ DESC:Insufficient memory");
#endif
}

}  // namespace
