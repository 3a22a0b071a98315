// The crypto context: its life (obtaining VKL, the start-up checks and their
// order), status decoding, the error and trace channels, the hex dump and the
// FIPS policy, as the scripts of tests/data/context_scripts.vec, status.vec and
// fips_policy.vec.
#include <cstring>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <type_traits>

#include <gtest/gtest.h>

#include <czulcryptcontext.h>
#include <vkl_testing.h>
#include <wexcrypt.h>
#include <wexcrypt_testing.h>

#include "script.h"
#include "test_support.h"

using ::testing::internal::CaptureStderr;
using ::testing::internal::CaptureStdout;
using ::testing::internal::GetCapturedStderr;
using ::testing::internal::GetCapturedStdout;

namespace {

class ContextTest : public zultest::PlatformTest {};

// The process's one VKL context.
VKL_t* Vkl() {
    VKL_t* vkl = nullptr;
    WEXTest_SetGetContextResult(-3);
    WEXCryptGetContext(&vkl);
    return vkl;
}

zultest::Outcome Result(int result) {
    zultest::Outcome outcome = zultest::Number(result);
    outcome.ok = result == 1;
    return outcome;
}

// A VKL function called with every argument null or zero, but for the VKL context when
// `vkl` is given: what its header promises for missing arguments. Pointer results read
// as 1 when not null.
template <class R, class... A>
zultest::Outcome CallWithNulls(R (*function)(A...), VKL_t* vkl) {
    auto argument = [vkl](auto* type) {
        using T = std::remove_pointer_t<decltype(type)>;
        if constexpr (std::is_same_v<T, VKL_t*>) return vkl;
        else return T{};
    };
    if constexpr (std::is_void_v<R>) {
        function(argument(static_cast<A*>(nullptr))...);
        return zultest::Number(0);
    } else {
        const R result = function(argument(static_cast<A*>(nullptr))...);
        if constexpr (std::is_pointer_v<R>) return zultest::Number(result != nullptr);
        else return zultest::Number(static_cast<long>(result));
    }
}

#define ZUL_NULLS(f) {#f, [](VKL_t* vkl) { return CallWithNulls(f, vkl); }}
const std::map<std::string, zultest::Outcome (*)(VKL_t*)> kNullCalls = {
    ZUL_NULLS(VKL_CTX_free), ZUL_NULLS(VKL_GetStatus), ZUL_NULLS(VKL_SelfTest), ZUL_NULLS(VKL_GenerateRandomSeed),
    ZUL_NULLS(VKL_RAND_seed), ZUL_NULLS(VKL_RAND_bytes), ZUL_NULLS(VKL_ERR_get_error),
    ZUL_NULLS(VKL_ERR_error_string_n), ZUL_NULLS(VKL_EVP_MD_CTX_new), ZUL_NULLS(VKL_EVP_MD_CTX_init),
    ZUL_NULLS(VKL_EVP_MD_CTX_cleanup), ZUL_NULLS(VKL_EVP_MD_CTX_free), ZUL_NULLS(VKL_EVP_get_digestbyname),
    ZUL_NULLS(VKL_EVP_DigestInit), ZUL_NULLS(VKL_EVP_DigestUpdate), ZUL_NULLS(VKL_EVP_DigestFinal),
    ZUL_NULLS(VKL_EVP_MD_type), ZUL_NULLS(VKL_OBJ_nid2sn), ZUL_NULLS(VKL_EVP_MD_size), ZUL_NULLS(VKL_EVP_MD_block_size),
    ZUL_NULLS(VKL_EVP_CIPHER_CTX_new), ZUL_NULLS(VKL_EVP_CIPHER_CTX_init), ZUL_NULLS(VKL_EVP_CIPHER_CTX_cleanup),
    ZUL_NULLS(VKL_EVP_CIPHER_CTX_free), ZUL_NULLS(VKL_EVP_CIPHER_CTX_cipher),
    ZUL_NULLS(VKL_EVP_CIPHER_CTX_set_key_length), ZUL_NULLS(VKL_EVP_CIPHER_CTX_set_padding),
    ZUL_NULLS(VKL_EVP_get_cipherbyname), ZUL_NULLS(VKL_EVP_CIPHER_block_size), ZUL_NULLS(VKL_EVP_CIPHER_key_length),
    ZUL_NULLS(VKL_EVP_CIPHER_iv_length), ZUL_NULLS(VKL_EVP_CIPHER_type), ZUL_NULLS(VKL_EVP_EncryptInit),
    ZUL_NULLS(VKL_EVP_DecryptInit), ZUL_NULLS(VKL_EVP_EncryptUpdate), ZUL_NULLS(VKL_EVP_DecryptUpdate),
    ZUL_NULLS(VKL_EVP_EncryptFinal), ZUL_NULLS(VKL_EVP_DecryptFinal), ZUL_NULLS(VKL_HMAC_CTX_new),
    ZUL_NULLS(VKL_HMAC_CTX_free), ZUL_NULLS(VKL_HMAC_Init), ZUL_NULLS(VKL_HMAC_Update), ZUL_NULLS(VKL_HMAC_Final),
    ZUL_NULLS(VKL_BN_free), ZUL_NULLS(VKL_BN_clear_free), ZUL_NULLS(VKL_BN_num_bits), ZUL_NULLS(VKL_BN_bn2bin),
    ZUL_NULLS(VKL_BN_set_negative), ZUL_NULLS(VKL_BN_is_negative), ZUL_NULLS(VKL_RSA_free),
    ZUL_NULLS(VKL_RSA_generate_key), ZUL_NULLS(VKL_RSA_check_key), ZUL_NULLS(VKL_RSA_public_encrypt),
    ZUL_NULLS(VKL_RSA_public_decrypt), ZUL_NULLS(VKL_RSA_private_encrypt), ZUL_NULLS(VKL_RSA_private_decrypt),
    ZUL_NULLS(VKL_EVP_PKEY_free), ZUL_NULLS(VKL_EVP_PKEY_set1_RSA), ZUL_NULLS(VKL_EVP_SignFinal),
    ZUL_NULLS(VKL_EVP_VerifyFinal), ZUL_NULLS(VKL_DH_free), ZUL_NULLS(VKL_DH_generate_parameters),
    ZUL_NULLS(VKL_DH_generate_key), ZUL_NULLS(VKL_DH_size), ZUL_NULLS(VKL_DH_compute_key)};
#undef ZUL_NULLS

const char* OrNull(const zultest::Arg& arg, std::string& keep) {
    keep = arg.Text();
    return arg.IsNull() ? nullptr : keep.c_str();
}

// Calls on the case's context, or on one made by "New".
zultest::Calls ContextCalls(CZulCryptContext& given) {
    auto made = std::make_shared<std::unique_ptr<CZulCryptContext>>();
    auto context = [made, &given]() -> CZulCryptContext& { return *made ? **made : given; };
    using zultest::Args;
    using zultest::Ok;
    using zultest::Text;
    auto usage = [](const zultest::Arg& arg) { return static_cast<EZulCryptAlgorithmUsage>(arg.Number()); };
    return {
        {"New", [made](const Args&) { *made = std::make_unique<CZulCryptContext>(); return Ok(true); }},
        {"Initialise", [=](const Args&) { context().Initialise(); return Ok(true); }},
        {"Status", [=](const Args&) { return Ok(context().GetStatus()); }},
        {"HasVkl",
         [=](const Args&) {
             return Ok(context().GetContext() != nullptr && context().GetContext()->m_pCtx != nullptr);
         }},
        {"SelfTest", [=](const Args&) { return Ok(context().SelfTest()); }},
        {"Seed", [=](const Args&) { return Ok(context().SetRandomSeed()); }},
        {"CheckStatus",
         [=](const Args&) {
             std::string kept = "kept";
             const bool ok = context().CheckStatus(kept);
             return Text(kept.c_str(), ok);
         }},
        // Decode major minor "description" "text before"; "Decode -" decodes a null record.
        {"Decode",
         [=](const Args& a) {
             std::string value = a.back().Text();
             C_VKL_STATUS_Wrap status;
             std::memset(&status, 0, sizeof status);
             if (!a[0].IsNull()) {
                 status.major = static_cast<int32_t>(a[0].Number());
                 status.minor = static_cast<int32_t>(a[1].Number());
                 std::strncpy(status.description, a[2].Text().c_str(), sizeof status.description - 1);
             }
             const bool ok = context().GetStatus(a[0].IsNull() ? nullptr : &status, value);
             return Text(value.c_str(), ok);
         }},
        {"GetError",
         [=](const Args&) {
             std::string value;
             context().GetError(value);
             return Text(value.c_str());
         }},
        // The call log as one line, its length, and its latest entry as Out.
        {"Log",
         [](const Args&) {
             const auto names = zultest::CallLog();
             std::string log;
             for (const std::string& name : names) log += name + " ";
             zultest::Outcome outcome = Text(log.c_str());
             outcome.number = static_cast<long>(names.size());
             if (!names.empty()) outcome.out.assign(names.back().begin(), names.back().end());
             return outcome;
         }},
        {"Length", [](const Args& a) { return zultest::Number(VKLTest_LastLength(a[0].raw.c_str())); }},
        // The stand-ins' own test control, through raw calls. RandBytes length [times]
        {"RandBytes",
         [](const Args& a) {
             unsigned char out[64];
             const long times = a.size() > 1 ? a[1].Number() : 1;
             int result = 0;
             for (long i = 0; i < times; ++i) result = VKL_RAND_bytes(Vkl(), out, static_cast<int>(a[0].Number()));
             return Result(result);
         }},
        // RandSeed length|- (a null seed of 8 bytes)
        {"RandSeed",
         [](const Args& a) {
             static const unsigned char kSeed[64] = {1};
             return Result(VKL_RAND_seed(Vkl(), a[0].IsNull() ? nullptr : kSeed,
                                         a[0].IsNull() ? 8 : static_cast<int>(a[0].Number())));
         }},
        {"BlockSize",
         [](const Args&) { return Result(VKL_EVP_MD_block_size(Vkl(), VKL_EVP_get_digestbyname(Vkl(), "SHA1"))); }},
        {"CtxNew", [](const Args&) { return Ok(VKL_CTX_new() != nullptr); }},
        // The record as "major minor description"; "untouched" when the call left it so.
        // A last word "novkl" calls without the context.
        {"RawStatus",
         [](const Args& a) {
             VKL_STATUS_t status;
             std::memset(&status, 0x5a, sizeof status);
             int result = 0;
             VKL_t* vkl = a.back().raw == "novkl" ? nullptr : Vkl();
             if (a[0].raw == "GetStatus") result = VKL_GetStatus(vkl, &status);
             if (a[0].raw == "SelfTest") result = VKL_SelfTest(vkl, &status);
             unsigned char seed[64] = {0};
             if (a[0].raw == "Seed") result = VKL_GenerateRandomSeed(Vkl(), &status, static_cast<int>(a[1].Number()), seed);
             zultest::Outcome outcome = Result(result);
             outcome.text = status.major == 0x5a5a5a5a ? "untouched"
                                                       : std::to_string(status.major) + " " + std::to_string(status.minor) +
                                                             " " + status.description;
             if (a[0].raw == "Seed" && result == 1) outcome.out.assign(seed, seed + 64);
             return outcome;
         }},
        // The oldest queue entry's text in a buffer of the given size, with an 'x' after it.
        {"ErrorText",
         [](const Args& a) {
             std::string text(static_cast<size_t>(a[0].Number()) + 1, 'x');
             VKL_ERR_error_string_n(Vkl(), VKL_ERR_get_error(Vkl()), &text[0], text.size() - 1);
             return Text(text.c_str());
         }},
        // Without sign|emptysign|verify|hmac|digest|output|padding: SHA-256 signing with no key
        // container or an empty one, verifying with a key that has no modulus; an HMAC keyed for
        // SHA-1, then started for SHA-256 with no key; a digest started with none, or finished
        // into none; raw RSA without PKCS #1 padding.
        {"Without",
         [](const Args& a) {
             if (a[0].raw == "padding") {
                 VKL_RSA_t* rsa = VKL_RSA_new(Vkl());
                 unsigned char in[1] = {0}, out[8];
                 const int result = VKL_RSA_public_encrypt(Vkl(), 1, in, out, rsa, VKL_RSA_PKCS1_PADDING + 2);
                 VKL_RSA_free(Vkl(), rsa);
                 return Result(result);
             }
             const VKL_EVP_MD_t* sha256 = a[0].raw == "digest" ? nullptr : VKL_EVP_get_digestbyname(Vkl(), "SHA256");
             if (a[0].raw == "hmac") {
                 VKL_HMAC_CTX_t* hmac = VKL_HMAC_CTX_new(Vkl());
                 VKL_HMAC_Init(Vkl(), hmac, "k", 1, VKL_EVP_get_digestbyname(Vkl(), "SHA1"));
                 zultest::Outcome outcome = Result(VKL_HMAC_Init(Vkl(), hmac, nullptr, 0, sha256));
                 VKL_HMAC_CTX_free(Vkl(), hmac);
                 return outcome;
             }
             VKL_EVP_MD_CTX_t* md = VKL_EVP_MD_CTX_new(Vkl());
             VKL_EVP_PKEY_t* pkey = a[0].raw == "sign" ? nullptr : VKL_EVP_PKEY_new(Vkl());
             if (a[0].raw == "verify") {
                 VKL_RSA_t* rsa = VKL_RSA_new(Vkl());
                 VKL_EVP_PKEY_set1_RSA(Vkl(), pkey, rsa);
                 VKL_RSA_free(Vkl(), rsa);
             }
             unsigned char signature[512] = {0};
             unsigned int length = 0;
             const int started = VKL_EVP_DigestInit(Vkl(), md, sha256);
             zultest::Outcome outcome =
                 Result(a[0].raw == "digest"   ? started
                        : a[0].raw == "output" ? VKL_EVP_DigestFinal(Vkl(), md, nullptr, &length)
                        : a[0].raw == "verify" ? VKL_EVP_VerifyFinal(Vkl(), md, signature, 64, pkey)
                                               : VKL_EVP_SignFinal(Vkl(), md, signature, &length, pkey));
             VKL_EVP_PKEY_free(Vkl(), pkey);
             VKL_EVP_MD_CTX_free(Vkl(), md);
             return outcome;
         }},
        // Nulls VKL_fn [vkl]: the function with null arguments (but the context, when asked);
        // a refused call is still one the call count and fault injection see.
        {"Nulls",
         [](const Args& a) {
             const unsigned long before = VKLTest_CallCount(a[0].raw.c_str());
             zultest::Outcome outcome = kNullCalls.at(a[0].raw)(a.size() > 1 ? Vkl() : nullptr);
             EXPECT_EQ(VKLTest_CallCount(a[0].raw.c_str()), before + 1) << a[0].raw << " is not counted";
             return outcome;
         }},
        // GetCtx [-]: - asks with nowhere to put the context.
        {"GetCtx",
         [](const Args& a) {
             VKL_t* handed = nullptr;
             zultest::Outcome outcome = zultest::Number(WEXCryptGetContext(a.empty() ? &handed : nullptr));
             outcome.text = handed == nullptr ? "null" : handed == Vkl() ? "same" : "other";
             return outcome;
         }},
        {"HostFips", [](const Args&) { return zultest::Number(WEXUTILSIsSystemFips()); }},
        {"IsFips", [=](const Args& a) { std::string k; return Ok(context().IsAlgorithmFIPS(usage(a[0]), OrNull(a[1], k))); }},
        {"Allowed",
         [=](const Args& a) { std::string k; return Ok(context().CheckAlgorithmAllowed(usage(a[0]), OrNull(a[1], k))); }},
        {"Override", [=](const Args& a) { context().SetIsNonFIPSAllowedInFIPS(a[0].Number() != 0); return Ok(true); }},
        // The default channels: no callbacks; what they write is the call's text.
        {"Streams",
         [](const Args&) {
             CZulCryptContext::SetErrorResponseFn(nullptr);
             CZulCryptContext::SetDebugResponseFn(nullptr);
             return Ok(true);
         }},
        {"LogLevel", [](const Args& a) { CZulCryptContext::SetLogLevel(static_cast<unsigned>(a[0].Number())); return Ok(true); }},
        {"Error",
         [](const Args& a) {
             std::string file, message;
             CaptureStderr();
             CZulCryptContext::HandleError(OrNull(a[0], file), static_cast<unsigned>(a[1].Number()),
                                           OrNull(a[2], message), false);
             return Text(GetCapturedStderr().c_str());
         }},
        {"Debug",
         [](const Args& a) {
             std::string message;
             CaptureStdout();
             CZulCryptContext::HandleDebug(OrNull(a[1], message), static_cast<unsigned>(a[0].Number()));
             return Text(GetCapturedStdout().c_str());
         }},
        // Print hex|-|"" [left: the application left std::left and std::uppercase set | last:
        // only the last line]
        {"Print",
         [](const Args& a) {
             const auto data = a[0].IsNull() ? std::vector<unsigned char>() : a[0].Bytes();
             if (a.size() > 1 && a[1].raw == "left") std::cout << std::left << std::uppercase;
             const std::ios_base::fmtflags before = std::cout.flags();
             CaptureStdout();
             CZulCryptContext::PrintData(a[0].IsNull() ? nullptr : data.data(), static_cast<unsigned>(data.size()));
             std::string dump = GetCapturedStdout();
             if (std::cout.flags() != before) dump += "FLAGS CHANGED";
             if (a.size() > 1 && a[1].raw == "last") dump = dump.substr(dump.rfind('\n', dump.size() - 2) + 1);
             if (a.size() > 1 && a[1].raw == "last") dump.pop_back();
             std::cout << std::right << std::nouppercase << std::dec;
             return Text(dump.c_str());
         }},
    };
}

// Only a fixed underlying type makes usages outside the enumeration (-1, 4) defined.
static_assert(std::is_same_v<std::underlying_type_t<EZulCryptAlgorithmUsage>, int>);

TEST_F(ContextTest, Scripts) {
    for (const char* file : {"context_scripts.vec", "status.vec", "fips_policy.vec"}) {
        zultest::RunScripts(file, ContextCalls);
    }
}

// In a process of its own, so that its first case arms a fault before the function's first call.
TEST_F(ContextTest, PlatformScripts) { zultest::RunScripts("platform_scripts.vec", ContextCalls); }

void ReportToStderr(const char* file, unsigned int line, const char* text, bool fatal) {
    std::fprintf(stderr, "callback %s %u %s %d\n", file, line, text, fatal ? 1 : 0);
}

TEST(ContextDeathTest, FatalErrorExitsWith255AfterReporting) {
    EXPECT_EXIT(
        {
            CZulCryptContext::SetErrorResponseFn(nullptr);
            CZulCryptContext::HandleError("f", 7, "the end", true);
        },
        ::testing::ExitedWithCode(255), "FILE:f LINE:7 DESC:the end");
    EXPECT_EXIT(
        {
            CZulCryptContext::SetErrorResponseFn(ReportToStderr);
            CZulCryptContext::HandleError("f", 8, "via callback", true);
        },
        ::testing::ExitedWithCode(255), "callback f 8 via callback 1");
}

}  // namespace
