// FIPS algorithm policy with the host's mode forced both ways.
#include <string>
#include <type_traits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <czulcryptcontext.h>
#include <wexcrypt_testing.h>

#include "test_support.h"
#include "vector_file.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

class PolicyTest : public zultest::PlatformTest {
protected:
    CZulCryptContext context;
};

std::string NonFips(const std::string& name) { return "Non FIPS algorithm " + name + " called in a FIPS context.\n"; }

TEST_F(PolicyTest, FipsListsPerUsage) {
    // Fips = 1 when the name is on the usage's list.
    diagnostics->Clear();
    for (const zultest::VectorCase& vector : zultest::ReadVectors("fips_policy.vec")) {
        SCOPED_TRACE(vector.Where());
        auto usage = static_cast<EZulCryptAlgorithmUsage>(vector.Number("Usage"));
        EXPECT_EQ(context.IsAlgorithmFIPS(usage, vector.Text("Name").c_str()), vector.Number("Fips") == 1);
    }
    EXPECT_FALSE(context.IsAlgorithmFIPS(eZulCryptUsageCipher, nullptr));
    EXPECT_THAT(diagnostics->errors, IsEmpty());
    EXPECT_THAT(diagnostics->traces, IsEmpty());
}

TEST_F(PolicyTest, EverythingAllowedOffFipsHosts) {
    WEXTest_SetSystemFips(0);
    diagnostics->Clear();
    EXPECT_TRUE(context.CheckAlgorithmAllowed(eZulCryptUsageDigest, "MD4"));
    EXPECT_TRUE(context.CheckAlgorithmAllowed(eZulCryptUsageCipher, "RC4"));
    context.SetIsNonFIPSAllowedInFIPS(false);
    EXPECT_TRUE(context.CheckAlgorithmAllowed(eZulCryptUsageDigest, "MD5"));
    WEXTest_SetSystemFips(2);  // only exactly 1 means FIPS
    EXPECT_TRUE(context.CheckAlgorithmAllowed(eZulCryptUsageDigest, "MD5"));
    EXPECT_THAT(diagnostics->errors, IsEmpty());
    EXPECT_THAT(diagnostics->traces, IsEmpty());
}

TEST_F(PolicyTest, NonFipsNameOnFipsHostIsReportedThenOverrideDecides) {
    WEXTest_SetSystemFips(1);
    diagnostics->Clear();
    EXPECT_TRUE(context.CheckAlgorithmAllowed(eZulCryptUsageDigest, "MD5"));
    context.SetIsNonFIPSAllowedInFIPS(false);
    EXPECT_FALSE(context.CheckAlgorithmAllowed(eZulCryptUsageDigest, "MD5"));
    context.SetIsNonFIPSAllowedInFIPS(true);
    EXPECT_TRUE(context.CheckAlgorithmAllowed(eZulCryptUsageDigest, "MD5"));
    EXPECT_THAT(diagnostics->ErrorTexts(), ElementsAre(NonFips("MD5"), NonFips("MD5"), NonFips("MD5")));
    EXPECT_EQ(diagnostics->errors[0].file, "czulcryptcontext");
    EXPECT_FALSE(diagnostics->errors[0].fatal);
    EXPECT_THAT(diagnostics->traces, IsEmpty());
}

TEST_F(PolicyTest, FipsNamesPassSilentlyOnFipsHosts) {
    WEXTest_SetSystemFips(1);
    context.SetIsNonFIPSAllowedInFIPS(false);
    diagnostics->Clear();
    EXPECT_TRUE(context.CheckAlgorithmAllowed(eZulCryptUsageCipher, "DESX-CBC"));
    EXPECT_TRUE(context.CheckAlgorithmAllowed(eZulCryptUsageCipher, "AES-256-CBC"));
    EXPECT_TRUE(context.CheckAlgorithmAllowed(eZulCryptUsageSignature, "RSA-SHA1"));
    EXPECT_THAT(diagnostics->errors, IsEmpty());
    EXPECT_FALSE(context.CheckAlgorithmAllowed(eZulCryptUsageCipher, "des-cbc"));
    // Only a fixed underlying type makes these two values defined (no -fstrict-enums surprise).
    static_assert(std::is_same_v<std::underlying_type_t<EZulCryptAlgorithmUsage>, int>);
    EXPECT_FALSE(context.CheckAlgorithmAllowed(static_cast<EZulCryptAlgorithmUsage>(4), "SHA1"));
    EXPECT_FALSE(context.CheckAlgorithmAllowed(static_cast<EZulCryptAlgorithmUsage>(-1), "SHA1"));
    EXPECT_THAT(diagnostics->ErrorTexts(), ElementsAre(NonFips("des-cbc"), NonFips("SHA1"), NonFips("SHA1")));
}

TEST_F(PolicyTest, NullNameRefusedEverywhereWithoutReport) {
    for (int fips : {0, 1}) {
        WEXTest_SetSystemFips(fips);
        EXPECT_FALSE(context.CheckAlgorithmAllowed(eZulCryptUsageDigest, nullptr));
    }
    EXPECT_THAT(diagnostics->errors, IsEmpty());
}

TEST_F(PolicyTest, HostModeIsReadOnEveryCheck) {
    context.SetIsNonFIPSAllowedInFIPS(false);
    WEXTest_SetSystemFips(1);
    EXPECT_FALSE(context.CheckAlgorithmAllowed(eZulCryptUsageDigest, "SHA256"));
    WEXTest_SetSystemFips(0);
    EXPECT_TRUE(context.CheckAlgorithmAllowed(eZulCryptUsageDigest, "SHA256"));
}

}  // namespace
