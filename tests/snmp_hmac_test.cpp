// HMAC: VKL's keyed digest on its own (keyed-state reuse, re-arming, state
// rules) and the procedural authentication digest over it.
#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <czulcryptcontext.h>
#include <vkl.h>
#include <vkl_testing.h>
#include <zulcryptimpl.h>

#include "snmp_fixture.h"
#include "test_support.h"
#include "vector_file.h"

namespace {

using Bytes = std::vector<unsigned char>;

// VKL's HMAC context on its own (raw) beside the procedural handles of the fixture.
class VklHmacTest : public zultest::SnmpTest {
protected:
    void SetUp() override {
        SnmpTest::SetUp();
        raw = VKL_HMAC_CTX_new(vkl);
        ASSERT_NE(raw, nullptr);
    }
    void TearDown() override {
        EXPECT_EQ(VKL_HMAC_CTX_free(vkl, raw), 1);
        SnmpTest::TearDown();
    }

    // The procedural digest of data cut into pieces of the given sizes (the last takes the rest).
    int Generate(const std::string& digest, const Bytes& key, const Bytes& data, const std::vector<size_t>& sizes,
                 std::string& result) {
        zultest::Gathered gathered(data, sizes);
        std::vector<ZulVklConstBuffer*>& list = gathered.list;
        ZulVklConstBuffer k = In(key);
        unsigned char area[64];
        ZulVklBuffer out{area, 3};
        const int ok = ZulVklHmacGenerateDigest(ctx, hmac, digest.c_str(), list.data(),
                                                static_cast<unsigned>(list.size()), &k, &out, status);
        EXPECT_EQ(out.data, area);
        result = ok ? zultest::Hex(area, out.length) : "";
        return ok;
    }

    const VKL_EVP_MD_t* Md(const std::string& name) { return VKL_EVP_get_digestbyname(vkl, name.c_str()); }

    // Feeds data in pieces of the given sizes (cycling) after an init that has already happened.
    std::string Finish(const Bytes& data, const std::vector<size_t>& pieces = {SIZE_MAX}) {
        zultest::InPieces(data, pieces, [&](const unsigned char* piece, size_t length) {
            EXPECT_EQ(VKL_HMAC_Update(vkl, raw, piece, length), 1);
        });
        unsigned char out[64];
        unsigned int outLength = 0;
        EXPECT_EQ(VKL_HMAC_Final(vkl, raw, out, &outLength), 1);
        return zultest::Hex(out, outLength);
    }

    std::string Mac(const std::string& digest, const Bytes& key, const Bytes& data,
                    const std::vector<size_t>& pieces = {SIZE_MAX}) {
        // A null key means "the held one": an empty key still needs a pointer.
        static const unsigned char kEmpty = 0;
        const unsigned char* bytes = key.empty() ? &kEmpty : key.data();
        EXPECT_EQ(VKL_HMAC_Init(vkl, raw, bytes, static_cast<int>(key.size()), Md(digest)), 1);
        return Finish(data, pieces);
    }

    std::string OldestError() {
        char text[512] = {0};
        VKL_ERR_error_string_n(vkl, VKL_ERR_get_error(vkl), text, sizeof text);
        return text;
    }

    VKL_HMAC_CTX_t* raw = nullptr;
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
            FreshStatus();
            std::string result = "untouched";
            EXPECT_EQ(Generate(digest, v.Bytes("Key"), v.Bytes("In"), {SIZE_MAX}, result), 0);
            EXPECT_EQ(Msg(), v.Text("Error"));
            EXPECT_EQ(result, "");
            EXPECT_TRUE(zultest::TakeQueue(vkl).empty()) << "the status record alone tells of the miss";
            continue;
        }
        const Bytes key = v.Bytes("Key"), data = v.Bytes("In");
        const std::string expected = zultest::Hex(v.Bytes("Out"));
        EXPECT_EQ(Mac(digest, key, data), expected);
        // Re-armed with what it holds, the same key again, split updates.
        for (const std::vector<size_t>& pieces : std::vector<std::vector<size_t>>{{1}, {7, 64}, {0, 3}}) {
            EXPECT_EQ(VKL_HMAC_Init(vkl, raw, nullptr, 0, nullptr), 1);
            EXPECT_EQ(Finish(data, pieces), expected);
            EXPECT_EQ(Mac(digest, key, data, pieces), expected);
        }
        // Another key in between must not leave anything behind.
        Bytes other = key;
        other.push_back(0x5a);
        EXPECT_NE(Mac(digest, other, data), expected);
        EXPECT_EQ(Mac(digest, key, data), expected);

        // The procedural digest, gathered from pieces, twice on one handle.
        for (const std::vector<size_t>& sizes :
             std::vector<std::vector<size_t>>{{SIZE_MAX}, {1, 2, SIZE_MAX}, {0, 5, 0, SIZE_MAX}, {SIZE_MAX}}) {
            std::string result;
            EXPECT_EQ(Generate(digest, key, data, sizes, result), 1);
            EXPECT_EQ(result, expected);
        }
        std::string rekeyed;
        EXPECT_EQ(Generate(digest, other, data, {SIZE_MAX}, rekeyed), 1);
        EXPECT_EQ(rekeyed, Mac(digest, other, data));
        EXPECT_NE(rekeyed, expected);
        EXPECT_STREQ(status->errorMsg, "");
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
    std::swap(fresh, raw);
    EXPECT_EQ(Mac("SHA1", key, data), second);
    std::swap(fresh, raw);
    EXPECT_EQ(VKL_HMAC_CTX_free(vkl, fresh), 1);
    // The same key under another digest is a new keying too.
    EXPECT_EQ(Mac("SHA256", key, data).size(), 64u);
}

TEST_F(VklHmacTest, ReArmingDropsAMessageInProgress) {
    const Bytes key = {'J', 'e', 'f', 'e'};
    const Bytes data = {'a', 'b', 'c'};
    const std::string expected = Mac("SHA1", key, data);
    ASSERT_EQ(VKL_HMAC_Init(vkl, raw, key.data(), 4, Md("SHA1")), 1);
    ASSERT_EQ(VKL_HMAC_Update(vkl, raw, data.data(), 2), 1);
    ASSERT_EQ(VKL_HMAC_Init(vkl, raw, nullptr, 0, nullptr), 1);
    EXPECT_EQ(Finish(data), expected);
    ASSERT_EQ(VKL_HMAC_Init(vkl, raw, key.data(), 4, Md("SHA1")), 1);
    ASSERT_EQ(VKL_HMAC_Update(vkl, raw, data.data(), 1), 1);
    ASSERT_EQ(VKL_HMAC_Init(vkl, raw, key.data(), 4, Md("SHA1")), 1);
    EXPECT_EQ(Finish(data), expected);
}

TEST_F(VklHmacTest, RefusesWhatItCannotDoWithTheCauseQueued) {
    const Bytes key = {'k'};
    unsigned char out[64];
    unsigned int outLength = 7;
    EXPECT_EQ(VKL_HMAC_Init(vkl, raw, nullptr, 0, nullptr), -2);
    EXPECT_EQ(OldestError(), "VKL_HMAC_Init: no digest given or held");
    EXPECT_EQ(VKL_HMAC_Update(vkl, raw, key.data(), 1), -2);
    EXPECT_EQ(OldestError(), "VKL_HMAC_Update: HMAC not initialised");
    EXPECT_EQ(VKL_HMAC_Final(vkl, raw, out, &outLength), -2);
    EXPECT_EQ(OldestError(), "VKL_HMAC_Final: HMAC not initialised");
    EXPECT_EQ(outLength, 7u);
    EXPECT_EQ(VKL_HMAC_Init(vkl, raw, key.data(), -1, Md("SHA1")), -2);
    EXPECT_EQ(OldestError(), "VKL_HMAC_Init: invalid key length -1");

    ASSERT_EQ(VKL_HMAC_Init(vkl, raw, key.data(), 1, Md("SHA1")), 1);
    EXPECT_EQ(VKL_HMAC_Init(vkl, raw, nullptr, 0, Md("MD5")), -2);
    EXPECT_EQ(OldestError(), "VKL_HMAC_Init: a new digest needs a key");
    EXPECT_EQ(VKL_HMAC_Final(vkl, raw, nullptr, &outLength), -2);
    EXPECT_EQ(OldestError(), "VKL_HMAC_Final: no VKL context, HMAC context or output");
    // Finalised: nothing more goes in until the next init.
    ASSERT_EQ(VKL_HMAC_Final(vkl, raw, out, &outLength), 1);
    EXPECT_EQ(outLength, 20u);
    EXPECT_EQ(VKL_HMAC_Update(vkl, raw, key.data(), 1), -2);
    EXPECT_EQ(OldestError(), "VKL_HMAC_Update: HMAC not initialised");
    EXPECT_EQ(VKL_HMAC_Init(vkl, raw, nullptr, 0, Md("SHA1")), 1);
    EXPECT_EQ(VKL_HMAC_CTX_free(vkl, nullptr), 1);
}

TEST_F(VklHmacTest, PiecesAreOneMessageAndNoPiecesIsTheEmptyOne) {
    const Bytes key = {'J', 'e', 'f', 'e'};
    const Bytes abc = {'a', 'b', 'c'};
    std::string split, whole, none;
    ASSERT_EQ(Generate("SHA1", key, abc, {2, SIZE_MAX}, split), 1);
    ASSERT_EQ(Generate("SHA1", key, abc, {SIZE_MAX}, whole), 1);
    EXPECT_EQ(split, whole);
    EXPECT_EQ(whole, Mac("SHA1", key, abc));

    // A count of 0: the HMAC of the empty message, at the digest's full size.
    ZulVklConstBuffer k = In(key);
    unsigned char area[20];
    ZulVklBuffer out{area, 12};
    ZulVklConstBuffer* noPieces[1] = {nullptr};
    ASSERT_EQ(ZulVklHmacGenerateDigest(ctx, hmac, "SHA1", noPieces, 0, &k, &out, status), 1);
    EXPECT_EQ(out.length, 20u);
    EXPECT_EQ(zultest::Hex(area, out.length), Mac("SHA1", key, {}));
}

TEST_F(VklHmacTest, ANullPieceStopsTheDigestAndLeavesNothingBehind) {
    const Bytes key = {'J', 'e', 'f', 'e'};
    const Bytes abc = {'a', 'b', 'c'};
    ZulVklConstBuffer k = In(key), a{abc.data(), 1}, bc{abc.data() + 1, 2};
    ZulVklConstBuffer* pieces[] = {&a, nullptr, &bc};
    unsigned char area[20] = {0};
    ZulVklBuffer out{area, 7};
    EXPECT_EQ(ZulVklHmacGenerateDigest(ctx, hmac, "SHA1", pieces, 3, &k, &out, status), 0);
    EXPECT_EQ(Msg(), "Invalid buffer passed in for SNMPv3 msg authentication");
    EXPECT_EQ(out.length, 7u);
    EXPECT_EQ(zultest::Hex(area, sizeof area), std::string(40, '0'));
    pieces[1] = &bc;
    EXPECT_EQ(ZulVklHmacGenerateDigest(ctx, hmac, "SHA1", pieces, 2, &k, &out, status), 1);
    EXPECT_EQ(zultest::Hex(area, out.length), Mac("SHA1", key, abc));
}

// Any VKL failure gives 0 with its text and leaves the output as it was; the handle
// serves the next message (MACs from Python's hmac module).
TEST_F(VklHmacTest, VklFailuresInsideTheHmacAreReportedAndWriteNothing) {
    const Bytes key = {'k'};
    const Bytes abc = {'a', 'b', 'c'};
    const std::string expected = "f9bef091fe00d9f5128593836dba99e193f08174";
    for (const auto& [function, skip] : std::vector<std::pair<const char*, unsigned>>{
             {"VKL_HMAC_Init", 0}, {"VKL_HMAC_Init", 1}, {"VKL_HMAC_Update", 1}, {"VKL_HMAC_Final", 0}}) {
        SCOPED_TRACE(std::string(function) + " after " + std::to_string(skip));
        FreshStatus();
        // The handle holds another user's key: a failed init must not MAC under it.
        std::string result;
        ASSERT_EQ(Generate("SHA1", {'o', 't', 'h', 'e', 'r'}, abc, {SIZE_MAX}, result), 1);
        VKLTest_FailCall(function, skip, 1, -2);
        zultest::Gathered gathered(abc, {1, SIZE_MAX});
        ZulVklConstBuffer k = In(key);
        unsigned char area[20] = {0};
        ZulVklBuffer out{area, 7};
        EXPECT_EQ(ZulVklHmacGenerateDigest(ctx, hmac, "SHA1", gathered.list.data(), 2, &k, &out, status), 0);
        EXPECT_EQ(Msg(), std::string(function) + ": injected failure");
        EXPECT_EQ(zultest::TakeQueue(vkl), std::vector<std::string>{});
        EXPECT_EQ(out.length, 7u);
        EXPECT_EQ(zultest::Hex(area, sizeof area), std::string(40, '0'));
        EXPECT_EQ(Generate("SHA1", key, abc, {SIZE_MAX}, result), 1);
        EXPECT_EQ(result, expected);
    }
}

}  // namespace
