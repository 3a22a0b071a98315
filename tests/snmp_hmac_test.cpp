// HMAC: VKL's keyed digest on its own (keyed-state reuse, re-arming, state
// rules) and the procedural authentication digest over it.
#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <czulcryptcontext.h>
#include <vkl.h>
#include <vkl_testing.h>

#include "test_support.h"
#include "vector_file.h"

namespace {

using Bytes = std::vector<unsigned char>;

class VklHmacTest : public zultest::PlatformTest {
protected:
    void SetUp() override {
        PlatformTest::SetUp();
        context = new CZulCryptContext;
        ASSERT_TRUE(context->GetStatus());
        vkl = context->GetContext()->m_pCtx;
        while (VKL_ERR_get_error(vkl) != 0) {
        }
        ctx = VKL_HMAC_CTX_new(vkl);
        ASSERT_NE(ctx, nullptr);
    }
    void TearDown() override {
        EXPECT_EQ(VKL_HMAC_CTX_free(vkl, ctx), 1);
        delete context;
        PlatformTest::TearDown();
    }

    const VKL_EVP_MD_t* Md(const std::string& name) { return VKL_EVP_get_digestbyname(vkl, name.c_str()); }

    // Feeds data in pieces of the given sizes (cycling) after an init that has already happened.
    std::string Finish(const Bytes& data, const std::vector<size_t>& pieces = {SIZE_MAX}) {
        size_t at = 0;
        for (size_t i = 0; at < data.size(); ++i) {
            const size_t length = std::min(pieces[i % pieces.size()], data.size() - at);
            EXPECT_EQ(VKL_HMAC_Update(vkl, ctx, data.data() + at, length), 1);
            at += length;
        }
        unsigned char out[64];
        unsigned int outLength = 0;
        EXPECT_EQ(VKL_HMAC_Final(vkl, ctx, out, &outLength), 1);
        return zultest::Hex(out, outLength);
    }

    std::string Mac(const std::string& digest, const Bytes& key, const Bytes& data,
                    const std::vector<size_t>& pieces = {SIZE_MAX}) {
        // A null key means "the held one": an empty key still needs a pointer.
        static const unsigned char kEmpty = 0;
        const unsigned char* bytes = key.empty() ? &kEmpty : key.data();
        EXPECT_EQ(VKL_HMAC_Init(vkl, ctx, bytes, static_cast<int>(key.size()), Md(digest)), 1);
        return Finish(data, pieces);
    }

    std::string OldestError() {
        char text[512] = {0};
        VKL_ERR_error_string_n(vkl, VKL_ERR_get_error(vkl), text, sizeof text);
        return text;
    }

    CZulCryptContext* context = nullptr;
    VKL_t* vkl = nullptr;
    VKL_HMAC_CTX_t* ctx = nullptr;
};

TEST_F(VklHmacTest, VectorsInAnySplitAndAfterEveryKindOfRestart) {
    const auto cases = zultest::ReadVectors("snmp_hmac.vec");
    ASSERT_FALSE(cases.empty());
    for (const zultest::VectorCase& v : cases) {
        SCOPED_TRACE(v.Where());
        const std::string digest = v.Text("Digest");
        if (v.Has("Error")) {
            EXPECT_EQ(Md(digest), nullptr);
            EXPECT_EQ(OldestError(), "VKL_EVP_get_digestbyname: unknown digest " + digest);
            continue;
        }
        const Bytes key = v.Bytes("Key"), data = v.Bytes("In");
        const std::string expected = zultest::Hex(v.Bytes("Out"));
        EXPECT_EQ(Mac(digest, key, data), expected);
        // Re-armed with what it holds, the same key again, split updates.
        for (const std::vector<size_t>& pieces : std::vector<std::vector<size_t>>{{1}, {7, 64}, {0, 3}}) {
            EXPECT_EQ(VKL_HMAC_Init(vkl, ctx, nullptr, 0, nullptr), 1);
            EXPECT_EQ(Finish(data, pieces), expected);
            EXPECT_EQ(Mac(digest, key, data, pieces), expected);
        }
        // Another key in between must not leave anything behind.
        Bytes other = key;
        other.push_back(0x5a);
        EXPECT_NE(Mac(digest, other, data), expected);
        EXPECT_EQ(Mac(digest, key, data), expected);
    }
}

TEST_F(VklHmacTest, KeysDifferingOnlyInTheirLastByteAreNotTakenForTheHeldOne) {
    Bytes key(20, 0x0b);
    const Bytes data = {'H', 'i', ' ', 'T', 'h', 'e', 'r', 'e'};
    const std::string first = Mac("SHA1", key, data);
    key.back() ^= 1;
    const std::string second = Mac("SHA1", key, data);
    EXPECT_NE(first, second);
    // A fresh context keyed with the changed key agrees.
    VKL_HMAC_CTX_t* fresh = VKL_HMAC_CTX_new(vkl);
    ASSERT_NE(fresh, nullptr);
    std::swap(fresh, ctx);
    EXPECT_EQ(Mac("SHA1", key, data), second);
    std::swap(fresh, ctx);
    EXPECT_EQ(VKL_HMAC_CTX_free(vkl, fresh), 1);
    // The same key under another digest is a new keying too.
    EXPECT_EQ(Mac("SHA256", key, data).size(), 64u);
}

TEST_F(VklHmacTest, ReArmingDropsAMessageInProgress) {
    const Bytes key = {'J', 'e', 'f', 'e'};
    const Bytes data = {'a', 'b', 'c'};
    const std::string expected = Mac("SHA1", key, data);
    ASSERT_EQ(VKL_HMAC_Init(vkl, ctx, key.data(), 4, Md("SHA1")), 1);
    ASSERT_EQ(VKL_HMAC_Update(vkl, ctx, data.data(), 2), 1);
    ASSERT_EQ(VKL_HMAC_Init(vkl, ctx, nullptr, 0, nullptr), 1);
    EXPECT_EQ(Finish(data), expected);
    ASSERT_EQ(VKL_HMAC_Init(vkl, ctx, key.data(), 4, Md("SHA1")), 1);
    ASSERT_EQ(VKL_HMAC_Update(vkl, ctx, data.data(), 1), 1);
    ASSERT_EQ(VKL_HMAC_Init(vkl, ctx, key.data(), 4, Md("SHA1")), 1);
    EXPECT_EQ(Finish(data), expected);
}

TEST_F(VklHmacTest, RefusesWhatItCannotDoWithTheCauseQueued) {
    const Bytes key = {'k'};
    unsigned char out[64];
    unsigned int outLength = 7;
    EXPECT_EQ(VKL_HMAC_Init(vkl, ctx, nullptr, 0, nullptr), -2);
    EXPECT_EQ(OldestError(), "VKL_HMAC_Init: no digest given or held");
    EXPECT_EQ(VKL_HMAC_Update(vkl, ctx, key.data(), 1), -2);
    EXPECT_EQ(OldestError(), "VKL_HMAC_Update: HMAC not initialised");
    EXPECT_EQ(VKL_HMAC_Final(vkl, ctx, out, &outLength), -2);
    EXPECT_EQ(OldestError(), "VKL_HMAC_Final: HMAC not initialised");
    EXPECT_EQ(outLength, 7u);
    EXPECT_EQ(VKL_HMAC_Init(vkl, ctx, key.data(), -1, Md("SHA1")), -2);
    EXPECT_EQ(OldestError(), "VKL_HMAC_Init: invalid key length -1");

    ASSERT_EQ(VKL_HMAC_Init(vkl, ctx, key.data(), 1, Md("SHA1")), 1);
    EXPECT_EQ(VKL_HMAC_Init(vkl, ctx, nullptr, 0, Md("MD5")), -2);
    EXPECT_EQ(OldestError(), "VKL_HMAC_Init: a new digest needs a key");
    EXPECT_EQ(VKL_HMAC_Final(vkl, ctx, nullptr, &outLength), -2);
    EXPECT_EQ(OldestError(), "VKL_HMAC_Final: no VKL context, HMAC context or output");
    // Finalised: nothing more goes in until the next init.
    ASSERT_EQ(VKL_HMAC_Final(vkl, ctx, out, &outLength), 1);
    EXPECT_EQ(outLength, 20u);
    EXPECT_EQ(VKL_HMAC_Update(vkl, ctx, key.data(), 1), -2);
    EXPECT_EQ(OldestError(), "VKL_HMAC_Update: HMAC not initialised");
    EXPECT_EQ(VKL_HMAC_Init(vkl, ctx, nullptr, 0, Md("SHA1")), 1);
    EXPECT_EQ(VKL_HMAC_CTX_free(vkl, nullptr), 1);
}

}  // namespace
