// CZulCryptCipherContext beyond the vectors: its traces, every failure it
// reports, the states it moves through, and a round trip under every cipher
// OpenSSL offers.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <czulcryptciphercontext.h>
#include <czulcryptcontext.h>
#include <vkl_testing.h>
#include <wexcrypt_testing.h>

#include "test_support.h"

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif

namespace {

using Bytes = std::vector<unsigned char>;
using Texts = std::vector<std::string>;

// NIST SP 800-38A F.2.1 (CBC-AES128.Encrypt): key, IV, first plaintext and ciphertext block.
const Bytes kKey = zultest::FromHex("2b7e151628aed2a6abf7158809cf4f3c");
const Bytes kIv = zultest::FromHex("000102030405060708090a0b0c0d0e0f");
const char kBlock1[] = "6bc1bee22e409f96e93d7e117393172a";
const char kCipher1[] = "7649abac8119b246cee98e9b12e9197d";

class CipherContextTest : public zultest::ContextTest {
protected:
    void SetUp() override {
        ContextTest::SetUp();
        cipher = std::make_unique<CZulCryptCipherContext>(*context);
        ASSERT_TRUE(cipher->GetStatus());
        diagnostics->Clear();
        VKLTest_Reset();
    }
    void TearDown() override {
        cipher.reset();
        ContextTest::TearDown();
    }

    bool KeyAes(bool encrypt) {
        return encrypt ? cipher->SetEncryptType("AES-128-CBC", kKey.data(), 16, kIv.data(), 16)
                       : cipher->SetDecryptType("AES-128-CBC", kKey.data(), 16, kIv.data(), 16);
    }
    Texts Reports() { return diagnostics->TakeErrors("czulcryptciphercontext"); }

    std::unique_ptr<CZulCryptCipherContext> cipher;
};

TEST_F(CipherContextTest, TracesOfAWholeLife) {
    std::ostringstream address;
    address << static_cast<const void*>(context.get());
    auto traced = std::make_unique<CZulCryptCipherContext>(*context);
    EXPECT_EQ(diagnostics->TracesAt(1), Texts{"CZulCryptCipherContext::CZulCryptCipherContext(" + address.str() + ")"});
    EXPECT_EQ(address.str().substr(0, 2), "0x");
    EXPECT_TRUE(traced->GetStatus());
    EXPECT_EQ(traced->GetType(), nullptr);

    // 20 bytes with padding on: 16 now into a 35-byte buffer, 16 at the end.
    Bytes plain = zultest::FromHex(std::string(kBlock1) + "ae2d8a57");
    ASSERT_TRUE(traced->SetEncryptType("AES-128-CBC", kKey.data(), 16, kIv.data(), 16));
    unsigned char* allocated = nullptr;
    int written = -1;
    ASSERT_TRUE(traced->EncryptData(plain.data(), 20, &allocated, &written));
    EXPECT_EQ(written, 16);
    Bytes message(allocated, allocated + 35);
    EXPECT_EQ(zultest::Hex(message), std::string(kCipher1) + std::string(38, '0')) << "zero-filled beyond";
    std::free(allocated);
    message.resize(16);
    unsigned char last[16];
    ASSERT_TRUE(traced->EncryptFinal(last, &written));
    ASSERT_EQ(written, 16);
    message.insert(message.end(), last, last + 16);
    EXPECT_STREQ(traced->GetType(), "AES-128-CBC");

    // Decryption strips the padding again.
    ASSERT_TRUE(traced->SetDecryptType("AES-128-CBC", kKey.data(), 16, kIv.data(), 16));
    unsigned char out[48];
    int first = -1, second = -1;
    ASSERT_TRUE(traced->DecryptData(message.data(), 32, out, &first));
    ASSERT_TRUE(traced->DecryptFinal(out + first, &second));
    EXPECT_EQ(zultest::Hex(out, static_cast<size_t>(first + second)), zultest::Hex(plain));

    EXPECT_FALSE(traced->SetEncryptType(nullptr, kKey.data(), 16));
    EXPECT_FALSE(traced->SetDecryptType(nullptr, kKey.data(), 16));
    EXPECT_EQ(traced->GetBufferSize(0, true), 15);
    traced.reset();
    EXPECT_EQ(diagnostics->TracesAt(3), (Texts{"CZulCryptCipherContext::Initialise()",
                                               "CZulCryptCipherContext::~CZulCryptCipherContext()"}));
    EXPECT_EQ(diagnostics->TracesAt(4),
              (Texts{"CZulCryptCipherContext::GetStatus() returning TRUE\n",
                     "CZulCryptCipherContext::GetType() returning",
                     "CZulCryptCipherContext::SetEncryptType(AES-128-CBC\n",
                     "CZulCryptCipherContext::SetType(AES-128-CBC)\n",
                     "CZulCryptCipherContext::EncryptData(DATA20)\n",
                     "CZulCryptCipherContext::GetBufferSize(20) returning 35\n",
                     "CZulCryptCipherContext::EncryptData( BufferSize:35)\n",
                     "CZulCryptCipherContext::AddData(DATA,20)\n",
                     "CZulCryptCipherContext::EncryptData( BufferSize:35)\n",
                     "CZulCryptCipherContext::EncryptFinal()\n",
                     "CZulCryptCipherContext::GetFinal()\n",
                     "CZulCryptCipherContext::GetType() returningAES-128-CBC)\n",
                     "CZulCryptCipherContext::SetDecryptType(AES-128-CBC)\n",
                     "CZulCryptCipherContext::SetType(AES-128-CBC)\n",
                     "CZulCryptCipherContext::ResetCipher()\n",
                     "CZulCryptCipherContext::DecryptData(DATA32)\n",
                     "CZulCryptCipherContext::AddData(DATA,32)\n",
                     "CZulCryptCipherContext::DecryptFinal()\n",
                     "CZulCryptCipherContext::GetFinal()\n",
                     "CZulCryptCipherContext::SetEncryptType(NULL)\n",
                     "CZulCryptCipherContext::SetType(NULL)\n",
                     "CZulCryptCipherContext::SetDecryptType(NULL)\n",
                     "CZulCryptCipherContext::SetType(NULL)\n",
                     "CZulCryptCipherContext::GetBufferSize(0) returning 15\n",
                     "CZulCryptCipherContext::ResetCipher()\n"}));
    EXPECT_TRUE(diagnostics->errors.empty()) << "a null name is refused by the policy alone";
}

TEST_F(CipherContextTest, ObjectWithoutVklContext) {
    WEXTest_SetGetContextResult(0);
    CZulCryptContext none;
    diagnostics->Clear();
    CZulCryptCipherContext unusable(none);
    EXPECT_TRUE(diagnostics->errors.empty());
    EXPECT_FALSE(unusable.GetStatus());
    EXPECT_EQ(diagnostics->TracesAt(4).back(), "CZulCryptCipherContext::GetStatus() returning FALSE\n");
    EXPECT_EQ(unusable.GetKeySize(), -1);
    EXPECT_EQ(unusable.GetBlockSize(), -1);
    EXPECT_FALSE(unusable.SetPadding(false));
    EXPECT_FALSE(unusable.SetKeyLength(16));
    EXPECT_EQ(unusable.GetDefaultKeyLengthForType("AES-128-CBC"), -1);
    EXPECT_EQ(unusable.GetType(), nullptr);
    unsigned char data[16] = {}, out[32];
    unsigned char* allocated = nullptr;
    int written = 0;
    EXPECT_FALSE(unusable.EncryptData(data, 16, &allocated, &written));
    EXPECT_FALSE(unusable.DecryptData(data, 16, &allocated, &written));
    EXPECT_EQ(allocated, nullptr);
    EXPECT_TRUE(Reports().empty());

    EXPECT_FALSE(unusable.SetEncryptType("AES-128-CBC", kKey.data(), 16));
    EXPECT_FALSE(unusable.EncryptData(data, 0, out, &written));
    EXPECT_FALSE(unusable.EncryptFinal(nullptr, &written));
    EXPECT_FALSE(unusable.DecryptFinal(out, nullptr));
    EXPECT_EQ(Reports(), Texts(4, "VKL Context in an invalid state"));
    EXPECT_EQ(VKLTest_CallCount("VKL_EVP_EncryptUpdate"), 0u);
}

TEST_F(CipherContextTest, SetTypeRefusals) {
    EXPECT_FALSE(cipher->SetEncryptType("NO-SUCH-CIPHER", kKey.data(), 16));
    EXPECT_EQ(Reports(), Texts{"VKL_EVP_get_cipherbyname: unknown cipher NO-SUCH-CIPHER"});
    EXPECT_EQ(cipher->GetType(), nullptr);
    unsigned char* allocated = nullptr;
    int written = 0;
    Bytes data(16, 0);
    EXPECT_FALSE(cipher->DecryptData(data.data(), 16, &allocated, &written));
    EXPECT_TRUE(Reports().empty());
    EXPECT_FALSE(cipher->EncryptData(data.data(), 16, &allocated, &written));
    EXPECT_EQ(diagnostics->TracesAt(4).back(), "CZulCryptCipherContext::GetBufferSize(16) returning -1\n");
    EXPECT_EQ(Reports(), Texts{"Buffer size is invalid"});
    EXPECT_EQ(allocated, nullptr);

    // A wrong IV length is refused without a word; the cipher stays recorded.
    EXPECT_FALSE(cipher->SetEncryptType("AES-128-CBC", kKey.data(), 16, kIv.data(), 8));
    EXPECT_TRUE(Reports().empty());
    EXPECT_STREQ(cipher->GetType(), "AES-128-CBC");
    EXPECT_EQ(cipher->GetKeySize(), -1);
    EXPECT_EQ(cipher->GetBlockSize(), -1);

    EXPECT_FALSE(cipher->SetEncryptType("AES-128-CBC", kKey.data(), 20)) << "AES-128 takes 16 bytes only";
    EXPECT_EQ(Reports().size(), 1u);
    Bytes longKey(16, 7);

    // Policy: a refused name gets the context's report only, and changes nothing.
    ASSERT_TRUE(KeyAes(true));
    WEXTest_SetSystemFips(1);
    context->SetIsNonFIPSAllowedInFIPS(false);
    diagnostics->Clear();
    EXPECT_FALSE(cipher->SetEncryptType("RC4", longKey.data(), 16));
    ASSERT_EQ(diagnostics->errors.size(), 1u);
    EXPECT_EQ(diagnostics->errors[0].file, "czulcryptcontext");
    EXPECT_STREQ(cipher->GetType(), "AES-128-CBC");
    EXPECT_EQ(cipher->GetDefaultKeyLengthForType("RC4"), 16) << "the size queries skip the policy";
    diagnostics->Clear();
    EXPECT_EQ(cipher->GetDefaultBlockSizeForType("NO-SUCH-CIPHER"), -1);
    EXPECT_EQ(Reports(), Texts{"VKL_EVP_get_cipherbyname: unknown cipher NO-SUCH-CIPHER"});
}

TEST_F(CipherContextTest, KeyLengthIsChangedOnlyWhenNotTheDefault) {
    Bytes key(32, 1);
    for (int length : {0, 16}) {
        ASSERT_TRUE(cipher->SetEncryptType("RC4", key.data(), length));
        EXPECT_EQ(VKLTest_CallCount("VKL_EVP_CIPHER_CTX_set_key_length"), 0u);
    }
    VKLTest_Reset();
    ASSERT_TRUE(cipher->SetEncryptType("RC4", key.data(), 8));
    // Once, after the cipher's init (whether or not that init brought the key: VKL takes a
    // shorter length from its copy of the key, and a longer one only before the key).
    Texts log = zultest::CallLog();
    const auto set = std::find(log.begin(), log.end(), "VKL_EVP_CIPHER_CTX_set_key_length");
    ASSERT_NE(set, log.end());
    EXPECT_NE(std::find(log.begin(), set, "VKL_EVP_EncryptInit"), set);
    EXPECT_EQ(VKLTest_CallCount("VKL_EVP_CIPHER_CTX_set_key_length"), 1u);
    EXPECT_EQ(VKLTest_LastLength("VKL_EVP_CIPHER_CTX_set_key_length"), 8);
    EXPECT_EQ(cipher->GetKeySize(), 16) << "the cipher's default, whatever was set";
}

// VKL keeps its own copy of the key bytes an init read: a key length changed later never
// reads the caller's key buffer, which may be gone by then. A shorter length is keyed from
// the copy; a longer one than the copy is refused and the key stays as it was.
struct KeyLengthRow {
    const char* what;
    const char* cipher;
    const char* key;  // the default 16 bytes, given to SetType in a buffer freed right after
    std::vector<int> lengths;
    std::vector<bool> accepted;
    const char* refusal;  // VKL's text for a refused length
    const char* in;
    const char* out;  // from OpenSSL with the key cut to the length in force (RFC 6229, Schneier)
};

TEST_F(CipherContextTest, KeyLengthChangesNeverReadTheFreedKey) {
    const char* rc4Key = "0102030405060708090a0b0c0d0e0f10";
    const char* bfKey = "f0e1d2c3b4a5968778695a4b3c2d1e0f";
    const char* zeros = "00000000000000000000000000000000";
    const char* rc4Longer =
        "VKL_EVP_CIPHER_CTX_set_key_length: 32 bytes asked, but the init read 16 of the key; "
        "set the length before the init that brings the key";
    const char* bfLonger =
        "VKL_EVP_CIPHER_CTX_set_key_length: 24 bytes asked, but the init read 16 of the key; "
        "set the length before the init that brings the key";
    const std::vector<KeyLengthRow> rows = {
        {"RC4 cut to 5 bytes", "RC4", rc4Key, {5}, {true}, "", zeros, "b2396305f03dc027ccc3524a0a1118a8"},
        {"RC4 cut to 5, then back to 16", "RC4", rc4Key, {5, 16}, {true, true}, "", zeros,
         "9ac7cc9a609d1ef7b2932899cde41b97"},
        {"RC4 lengthened to 32", "RC4", rc4Key, {32}, {false}, rc4Longer, zeros, "9ac7cc9a609d1ef7b2932899cde41b97"},
        {"RC4 cut to 5, then lengthened to 32", "RC4", rc4Key, {5, 32}, {true, false}, rc4Longer, zeros,
         "b2396305f03dc027ccc3524a0a1118a8"},
        {"Blowfish cut to 8 bytes", "BF-ECB", bfKey, {8}, {true}, "", "fedcba9876543210", "e87a244e2cc85e82"},
        {"Blowfish cut to 5, then lengthened to 24", "BF-ECB", bfKey, {5, 24}, {true, false}, bfLonger,
         "fedcba9876543210", "b39e44481bdb1e6e"},
        {"Blowfish lengthened to 24", "BF-ECB", bfKey, {24}, {false}, bfLonger, "fedcba9876543210",
         "93142887ee3be15c"},
    };
    for (const KeyLengthRow& row : rows) {
        SCOPED_TRACE(row.what);
        diagnostics->Clear();
        const Bytes bytes = zultest::FromHex(row.key);
        auto* key = new unsigned char[bytes.size()];
        std::copy(bytes.begin(), bytes.end(), key);
        ASSERT_TRUE(cipher->SetEncryptType(row.cipher, key, 0));
        delete[] key;
        for (size_t i = 0; i < row.lengths.size(); ++i) {
            EXPECT_EQ(cipher->SetKeyLength(row.lengths[i]), row.accepted[i]) << row.lengths[i];
            if (!row.accepted[i]) {
                EXPECT_EQ(Reports(), Texts{row.refusal});
            }
        }
        EXPECT_TRUE(Reports().empty());
        ASSERT_TRUE(cipher->SetPadding(false));
        Bytes in = zultest::FromHex(row.in);
        Bytes out(static_cast<size_t>(cipher->GetBufferSize(static_cast<int>(in.size()), true)));
        int written = -1;
        ASSERT_TRUE(cipher->EncryptData(in.data(), static_cast<int>(in.size()), out.data(), &written));
        EXPECT_EQ(zultest::Hex(out.data(), static_cast<size_t>(written)), row.out);
    }
}

TEST_F(CipherContextTest, IvDefaultsAndCopies) {
    Bytes block = zultest::FromHex(kBlock1);
    unsigned char out[32];
    int written = -1;
    // No IV means sixteen zero bytes.
    ASSERT_TRUE(cipher->SetEncryptType("AES-128-CBC", kKey.data(), 16));
    ASSERT_TRUE(cipher->EncryptData(block.data(), 16, out, &written));
    Bytes viaNull(out, out + written);
    Bytes zeros(16, 0);
    ASSERT_TRUE(cipher->SetEncryptType("AES-128-CBC", kKey.data(), 16, zeros.data(), 16));
    ASSERT_TRUE(cipher->EncryptData(block.data(), 16, out, &written));
    EXPECT_EQ(zultest::Hex(viaNull), zultest::Hex(out, 16));
    // ivLength 0 with an IV takes the cipher's full IV length from it.
    Bytes cipherText = zultest::FromHex(std::string(kCipher1) + kCipher1);
    ASSERT_TRUE(cipher->SetDecryptType("AES-128-CBC", kKey.data(), 16, kIv.data(), 0));
    ASSERT_TRUE(cipher->DecryptData(cipherText.data(), 32, out, &written));
    EXPECT_EQ(zultest::Hex(out, 16), kBlock1);
}

TEST_F(CipherContextTest, ProcessingRefusals) {
    unsigned char data[32] = {}, out[64];
    int written = -1;
    ASSERT_TRUE(KeyAes(true));
    EXPECT_FALSE(cipher->EncryptData(data, 0, out, &written));
    EXPECT_EQ(VKLTest_CallCount("VKL_EVP_EncryptUpdate"), 0u);
    EXPECT_FALSE(cipher->EncryptFinal(nullptr, &written));
    EXPECT_EQ(Reports(), (Texts{"Attempt to process zero length data", "Provided message cipher buffer is invalid"}));
    ASSERT_TRUE(KeyAes(false));
    diagnostics->Clear();
    EXPECT_FALSE(cipher->DecryptData(nullptr, 16, out, &written)) << "VKL refuses the null input";
    EXPECT_EQ(diagnostics->TracesAt(4)[0], "CZulCryptCipherContext::DecryptData(NULL16)\n");
    EXPECT_EQ(Reports(), Texts{"VKL_EVP_DecryptUpdate: no input, no output or a negative length"});
}

TEST_F(CipherContextTest, BufferSizesAndAllocations) {
    EXPECT_EQ(cipher->GetBufferSize(10, true), -1);
    EXPECT_EQ(diagnostics->TracesAt(4).back(), "CZulCryptCipherContext::GetBufferSize(10) returning -1\n");
    unsigned char data[16] = {};
    unsigned char* allocated = nullptr;
    int written = -1;
    EXPECT_FALSE(cipher->EncryptData(data, 16, &allocated, &written));
    EXPECT_FALSE(cipher->DecryptData(data, 16, &allocated, &written));
    EXPECT_EQ(allocated, nullptr);
    EXPECT_TRUE(Reports().empty());

    ASSERT_TRUE(KeyAes(true));
    EXPECT_EQ(cipher->GetBufferSize(0, true), 15);
    EXPECT_EQ(cipher->GetBufferSize(0, false), 16);
    EXPECT_EQ(cipher->GetBufferSize(10, false), 26);
    EXPECT_EQ(cipher->GetBufferSize(32, true), 47);
    EXPECT_FALSE(cipher->EncryptData(data, 0, &allocated, &written));
    ASSERT_NE(allocated, nullptr) << "15 bytes, the caller's to free";
    std::free(allocated);
    allocated = nullptr;
    EXPECT_EQ(Reports(), Texts{"Attempt to process zero length data"});

    Bytes key(16, 3);
    ASSERT_TRUE(cipher->SetEncryptType("RC4", key.data(), 16));
    EXPECT_EQ(cipher->GetBufferSize(10, true), 10);
    EXPECT_FALSE(cipher->EncryptData(data, 0, &allocated, &written));
    EXPECT_EQ(allocated, nullptr);
    EXPECT_FALSE(cipher->DecryptData(data, 0, &allocated, &written));
    ASSERT_NE(allocated, nullptr);
    std::free(allocated);
    EXPECT_EQ(Reports(), (Texts{"Buffer size is invalid", "Attempt to process zero length data"}));
}

TEST_F(CipherContextTest, FailedReleaseIsReported) {
    // An injected free does none of its work, so this object's VKL context is
    // lost on purpose: the leak checker is told not to count it.
#ifdef __SANITIZE_ADDRESS__
    __lsan_disable();
#endif
    auto leaking = std::make_unique<CZulCryptCipherContext>(*context);
#ifdef __SANITIZE_ADDRESS__
    __lsan_enable();
#endif
    VKLTest_FailCall("VKL_EVP_CIPHER_CTX_free", 0, 1, 0);
    leaking.reset();
    EXPECT_EQ(Reports(), Texts{"VKL_EVP_CIPHER_CTX_free: injected failure"});
}

// A second Initialise on a keyed object releases the first VKL context (the
// leak checker sees one that is lost) and leaves a fresh, working object.
TEST_F(CipherContextTest, SecondInitialiseReleasesTheKeyedContext) {
    ASSERT_TRUE(KeyAes(true));
    cipher->Initialise();
    EXPECT_EQ(VKLTest_CallCount("VKL_EVP_CIPHER_CTX_free"), 1u);
    EXPECT_EQ(cipher->GetType(), nullptr);
    ASSERT_TRUE(KeyAes(true));
    Bytes block = zultest::FromHex(kBlock1);
    unsigned char out[32];
    int written = 0;
    ASSERT_TRUE(cipher->EncryptData(block.data(), 16, out, &written));
    EXPECT_EQ(zultest::Hex(out, static_cast<size_t>(written)), kCipher1);
    EXPECT_TRUE(Reports().empty());
}

// Every cipher OpenSSL 3 lists that streams without a tag or a whole-message
// rule, under a random key and IV, fed in random pieces.
TEST_F(CipherContextTest, RoundTripUnderEveryListedCipher) {
    FILE* list = popen("openssl list -cipher-algorithms -provider default -provider legacy 2>/dev/null", "r");
    if (list == nullptr) GTEST_SKIP() << "no openssl command";
    Texts names;
    bool provided = false;
    for (char line[512]; std::fgets(line, sizeof line, list) != nullptr;) {
        std::string text(line);
        if (text.rfind("Provided", 0) == 0) provided = true;
        size_t at = text.find(" @ ");
        if (!provided || at == std::string::npos) continue;
        // "{ oid, NAME, alias } @ provider" or "NAME @ provider": the first name that is not an OID.
        std::string inner = text.substr(0, at);
        for (char& c : inner) c = (c == '{' || c == '}' || c == ',') ? ' ' : c;
        std::istringstream words(inner);
        for (std::string word; words >> word;) {
            if (!std::isdigit(static_cast<unsigned char>(word[0]))) {
                names.push_back(word);
                break;
            }
        }
    }
    pclose(list);
    if (names.empty()) GTEST_SKIP() << "openssl lists no ciphers";
    std::mt19937 random(20240601);
    auto bytes = [&](size_t n) {
        Bytes b(n);
        for (auto& byte : b) byte = static_cast<unsigned char>(random());
        return b;
    };
    int checked = 0;
    for (const std::string& name : names) {
        static const char* const kSkipped[] = {"GCM", "CCM", "OCB", "SIV", "WRAP", "XTS", "HMAC", "POLY1305", "CTS"};
        std::string upper = name;
        for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        bool skip = false;
        for (const char* part : kSkipped) skip = skip || upper.find(part) != std::string::npos;
        if (skip) continue;
        SCOPED_TRACE(name);
        int keyLength = cipher->GetDefaultKeyLengthForType(name.c_str());
        int ivLength = cipher->GetDefaultIvLengthForType(name.c_str());
        if (keyLength <= 0) continue;  // the NULL cipher
        Bytes key = bytes(static_cast<size_t>(keyLength)), iv = bytes(static_cast<size_t>(ivLength));
        Bytes plain = bytes(1 + random() % 3000), sealed, opened;
        for (bool encrypt : {true, false}) {
            const Bytes& in = encrypt ? plain : sealed;
            Bytes& result = encrypt ? sealed : opened;
            ASSERT_TRUE(encrypt ? cipher->SetEncryptType(name.c_str(), key.data(), 0, iv.data(), ivLength)
                                : cipher->SetDecryptType(name.c_str(), key.data(), 0, iv.data(), ivLength));
            Bytes piece, out;
            for (size_t at = 0; at < in.size();) {
                size_t length = std::min<size_t>(1 + random() % 100, in.size() - at);
                piece.assign(in.begin() + static_cast<long>(at), in.begin() + static_cast<long>(at + length));
                out.resize(static_cast<size_t>(cipher->GetBufferSize(static_cast<int>(length), encrypt)));
                int written = -1;
                ASSERT_TRUE(encrypt ? cipher->EncryptData(piece.data(), static_cast<int>(length), out.data(), &written)
                                    : cipher->DecryptData(piece.data(), static_cast<int>(length), out.data(), &written));
                result.insert(result.end(), out.begin(), out.begin() + written);
                at += length;
            }
            out.resize(static_cast<size_t>(cipher->GetBlockSize()));
            int written = -1;
            ASSERT_TRUE(encrypt ? cipher->EncryptFinal(out.data(), &written) : cipher->DecryptFinal(out.data(), &written));
            result.insert(result.end(), out.begin(), out.begin() + written);
        }
        EXPECT_NE(sealed, plain);
        EXPECT_EQ(opened, plain);
        ++checked;
    }
    EXPECT_GT(checked, 50);
    EXPECT_TRUE(diagnostics->errors.empty());
}

}  // namespace
