// CZulCryptHMAC: the known answers of tests/vectors/hmac.vec through both GetHMAC
// forms and a second call, and the cases of tests/data/hmac_scripts.vec.
#include <sys/resource.h>

#include <czulcrypthmac.h>

#include "script.h"
#include "test_support.h"
#include "vector_file.h"

namespace zultest {

using Buf = std::vector<unsigned char>;
class HmacTest : public ContextTest {};

// GetHMAC into a buffer (or, allocating, its own); Result is the length it leaves (99 when untouched).
static Outcome Mac(CZulCryptHMAC& hmac, unsigned char* in, unsigned n, bool allocating, bool noOutput = false) {
    unsigned char buffer[64], *out = buffer;
    unsigned int length = 99;
    const bool ok = allocating ? hmac.GetHMAC(in, n, noOutput ? nullptr : &out, &length) : hmac.GetHMAC(in, n, noOutput ? nullptr : out, &length);
    Outcome outcome = Bytes(ok, out, length);
    outcome.number = length;
    if (out != buffer) std::free(out);
    return outcome;
}

TEST_F(HmacTest, Vectors) {
    for (const auto& v : ReadVectors("hmac.vec")) {
        SCOPED_TRACE(v.Where());
        Buf key = v.Bytes("Key"), in = v.Bytes("In"), want = v.Bytes(v.Has("Out") ? "Out" : "Prefix");
        CZulCryptHMAC hmac(*context, v.fields.at("Digest").c_str(), key.data(), key.size());
        // A pointer for the empty message.
        in.reserve(1);
        for (bool allocating : {false, false, true}) {
            Outcome got = Mac(hmac, in.data(), in.size(), allocating);
            if (!v.Has("Out")) got.out.resize(want.size());
            EXPECT_EQ(got.out, want);
        }
    }
}

// New digest (- for null) key; Mac and MacAlloc data [- for no output] [length].
TEST_F(HmacTest, Scripts) {
    RunScripts("hmac_scripts.vec", [](CZulCryptContext& context) -> Calls {
        auto hmac = std::make_shared<std::unique_ptr<CZulCryptHMAC>>();
        CZulCryptContext* on = &context;
        auto mac = [=](const Args& a, bool allocating) {
            Buf data = a[0].IsNull() ? Buf() : a[0].Bytes();
            data.reserve(1);
            return Mac(**hmac, a[0].IsNull() ? nullptr : data.data(), a.size() > 2 ? a[2].Number() : data.size(), allocating, a.size() > 1 && a[1].IsNull());
        };
        return {ZUL_CALL("New", (*hmac = std::make_unique<CZulCryptHMAC>(*on, a[0].IsNull() ? nullptr : a[0].Text().c_str(), a[1].Bytes().data(), a[1].Bytes().size()), Ok(true))), ZUL_CALL("Mac", mac(a, false)), ZUL_CALL("MacAlloc", mac(a, true))};
    });
}

// With the address space capped at 1 GiB, the inner input of a 3 GiB message cannot be allocated.
TEST_F(HmacTest, InsufficientMemoryEndsTheProcess) {
// The sanitizer's shadow memory needs more address space than the limit leaves.
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP();
#endif
    CZulCryptHMAC hmac(*context, "SHA1", nullptr, 0);
    const rlimit limit = {1 << 30, 1 << 30};
    CZulCryptContext::SetErrorResponseFn(nullptr);
    EXPECT_EXIT((setrlimit(RLIMIT_AS, &limit), Mac(hmac, reinterpret_cast<unsigned char*>(&hmac), 3u << 30, false)), testing::ExitedWithCode(255), "FILE:czulcrypthmac LINE:.*Insufficient memory");
}

}  // namespace zultest
