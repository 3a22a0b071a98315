// Runs the two example programs and checks what they print against OpenSSL 3
// called directly: the SNMPv3 messages are parsed, their keys, MACs and
// encrypted PDUs recomputed; the file signature is verified with an OpenSSL key built
// from the printed modulus and exponent.
#include <cstdio>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "hex.h"

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/param_build.h>

namespace {

using Bytes = std::vector<unsigned char>;

struct Outcome {
    int exitCode = -1;
    std::string out;
};

// Runs a shell command, standard error merged into the output.
Outcome RunCommand(const std::string& command) {
    Outcome run;
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) return run;
    char chunk[4096];
    size_t got;
    while ((got = fread(chunk, 1, sizeof chunk, pipe)) > 0) run.out.append(chunk, got);
    int status = pclose(pipe);
    run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return run;
}

Bytes FromHex(const std::string& hex) {
    Bytes bytes;
    EXPECT_TRUE(zulcrypt::FromHex(hex, bytes)) << "bad hex in the output: " << hex;
    return bytes;
}

std::string Hex(const Bytes& bytes) { return zulcrypt::ToHex(bytes); }

// "<name> <hex>" lines of the output, by name.
std::map<std::string, std::string> Values(const std::string& out) {
    std::map<std::string, std::string> values;
    std::istringstream lines(out);
    std::string line;
    while (std::getline(lines, line)) {
        size_t space = line.find(' ');
        if (space != std::string::npos) values[line.substr(0, space)] = line.substr(space + 1);
    }
    return values;
}

Bytes Digest(const EVP_MD* md, const Bytes& data) {
    Bytes digest(EVP_MAX_MD_SIZE);
    unsigned int length = 0;
    EXPECT_EQ(EVP_Digest(data.data(), data.size(), digest.data(), &length, md, nullptr), 1);
    digest.resize(length);
    return digest;
}

// RFC 3414 A.2.2: the digest of 1 MiB of the repeated password, then localised to the engine.
Bytes LocalisedKey(const EVP_MD* md, const std::string& password, const Bytes& engineId) {
    Bytes stretched(1 << 20);
    for (size_t i = 0; i < stretched.size(); ++i) stretched[i] = static_cast<unsigned char>(password[i % password.size()]);
    Bytes ku = Digest(md, stretched);
    Bytes material = ku;
    material.insert(material.end(), engineId.begin(), engineId.end());
    material.insert(material.end(), ku.begin(), ku.end());
    return Digest(md, material);
}

// draft-blumenthal-aes-usm-04 3.1.2.1: the key grows by the digest of all of it until long enough.
Bytes Extended(const EVP_MD* md, Bytes key, size_t length) {
    while (key.size() < length) {
        const Bytes more = Digest(md, key);
        key.insert(key.end(), more.begin(), more.end());
    }
    key.resize(length);
    return key;
}

// A BER element: tag, where its content starts and how long it is.
struct Element {
    unsigned char tag = 0;
    size_t start = 0;
    size_t length = 0;
};

// Reads the element at *at and moves *at past it; false when it does not fit in end.
bool ReadElement(const Bytes& data, size_t* at, size_t end, Element* element) {
    if (*at + 2 > end) return false;
    element->tag = data[*at];
    size_t length = data[*at + 1];
    size_t header = 2;
    if (length & 0x80) {
        size_t count = length & 0x7f;
        if (count == 0 || count > 2 || *at + 2 + count > end) return false;
        length = 0;
        for (size_t i = 0; i < count; ++i) length = (length << 8) | data[*at + 2 + i];
        header += count;
    }
    if (*at + header + length > end) return false;
    element->start = *at + header;
    element->length = length;
    *at = element->start + length;
    return true;
}

// The elements inside a constructed element, in order.
std::vector<Element> Children(const Bytes& data, const Element& parent) {
    std::vector<Element> children;
    size_t at = parent.start;
    const size_t end = parent.start + parent.length;
    Element child;
    while (at < end && ReadElement(data, &at, end, &child)) children.push_back(child);
    EXPECT_EQ(at, end) << "trailing bytes in an element at " << parent.start;
    return children;
}

Bytes Content(const Bytes& data, const Element& element) {
    return Bytes(data.begin() + static_cast<long>(element.start),
                 data.begin() + static_cast<long>(element.start + element.length));
}

unsigned long Integer(const Bytes& data, const Element& element) {
    unsigned long value = 0;
    for (unsigned char byte : Content(data, element)) value = (value << 8) | byte;
    return value;
}

// A user's protocols: what the example prints for them starts with prefix.
struct Protocol {
    std::string prefix;
    const EVP_MD* md;
    size_t macLength;
    const EVP_CIPHER* cipher;
};

// One message of the example's output, taken apart and recomputed with OpenSSL.
void CheckMessage(const std::string& out, const Protocol& p) {
    EXPECT_NE(out.find("\n" + p.prefix + "receiver: MAC verified, PDU decrypted\n"), std::string::npos) << out;
    auto all = Values(out);
    auto value = [&](const char* name) { return all[p.prefix + name]; };

    const Bytes engineId = FromHex("000000000000000000000002");
    const Bytes authKey = LocalisedKey(p.md, "maplesyrup", engineId);
    EXPECT_EQ(value("authKey"), Hex(authKey));
    const auto privLength = static_cast<size_t>(EVP_CIPHER_get_key_length(p.cipher));
    const Bytes privKey = Extended(p.md, LocalisedKey(p.md, "newsyrup", engineId), privLength);
    EXPECT_EQ(value("privKey"), Hex(privKey));

    // The message, field by field.
    Bytes message = FromHex(value("message"));
    ASSERT_FALSE(message.empty());
    size_t at = 0;
    Element whole;
    ASSERT_TRUE(ReadElement(message, &at, message.size(), &whole));
    ASSERT_EQ(at, message.size());
    ASSERT_EQ(whole.tag, 0x30);
    auto top = Children(message, whole);
    ASSERT_EQ(top.size(), 4u);
    EXPECT_EQ(Integer(message, top[0]), 3u);  // SNMPv3
    auto global = Children(message, top[1]);
    ASSERT_EQ(global.size(), 4u);
    EXPECT_EQ(Hex(Content(message, global[2])), "07");  // auth, priv, reportable
    EXPECT_EQ(Integer(message, global[3]), 3u);         // USM
    ASSERT_EQ(top[2].tag, 0x04);
    size_t inner = top[2].start;
    Element usmSequence;
    ASSERT_TRUE(ReadElement(message, &inner, top[2].start + top[2].length, &usmSequence));
    auto usm = Children(message, usmSequence);
    ASSERT_EQ(usm.size(), 6u);
    EXPECT_EQ(Content(message, usm[0]), engineId);
    const unsigned long boots = Integer(message, usm[1]);
    const unsigned long time = Integer(message, usm[2]);
    EXPECT_EQ(Content(message, usm[3]), Bytes({'w', 'e', 'x', 'u', 's', 'e', 'r'}));
    ASSERT_EQ(usm[4].length, p.macLength);
    ASSERT_EQ(usm[5].length, 8u);
    const Bytes mac = Content(message, usm[4]);
    const Bytes salt = Content(message, usm[5]);
    EXPECT_EQ(value("mac"), Hex(mac));

    // The HMAC over the message with its MAC field zeroed, cut to the MAC's length.
    Bytes zeroed = message;
    std::fill(zeroed.begin() + static_cast<long>(usm[4].start),
              zeroed.begin() + static_cast<long>(usm[4].start + p.macLength), 0);
    Bytes full(EVP_MAX_MD_SIZE);
    unsigned int fullLength = 0;
    ASSERT_NE(HMAC(p.md, authKey.data(), static_cast<int>(authKey.size()), zeroed.data(), zeroed.size(),
                   full.data(), &fullLength),
              nullptr);
    full.resize(p.macLength);
    EXPECT_EQ(Hex(full), Hex(mac));

    // RFC 3826 IV: boots and time as 32-bit big-endian, then the salt from the privacy parameters.
    Bytes iv = {static_cast<unsigned char>(boots >> 24), static_cast<unsigned char>(boots >> 16),
                static_cast<unsigned char>(boots >> 8),  static_cast<unsigned char>(boots),
                static_cast<unsigned char>(time >> 24),  static_cast<unsigned char>(time >> 16),
                static_cast<unsigned char>(time >> 8),   static_cast<unsigned char>(time)};
    iv.insert(iv.end(), salt.begin(), salt.end());
    EXPECT_EQ(value("iv"), Hex(iv));

    ASSERT_EQ(top[3].tag, 0x04);
    const Bytes encrypted = Content(message, top[3]);
    EXPECT_EQ(value("encryptedPDU"), Hex(encrypted));
    Bytes opened(encrypted.size() + 16);
    int outLength = 0, finalLength = 0;
    std::unique_ptr<EVP_CIPHER_CTX, void (*)(EVP_CIPHER_CTX*)> ctx(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
    ASSERT_EQ(EVP_DecryptInit_ex2(ctx.get(), p.cipher, privKey.data(), iv.data(), nullptr), 1);
    ASSERT_EQ(EVP_DecryptUpdate(ctx.get(), opened.data(), &outLength, encrypted.data(), static_cast<int>(encrypted.size())), 1);
    ASSERT_EQ(EVP_DecryptFinal_ex(ctx.get(), opened.data() + outLength, &finalLength), 1);
    opened.resize(static_cast<size_t>(outLength + finalLength));
    EXPECT_EQ(Hex(opened), value("scopedPDU"));
    EXPECT_EQ(value("decryptedPDU"), value("scopedPDU"));

    // The decrypted scoped PDU names the engine and carries a GetRequest.
    size_t pduAt = 0;
    Element scoped;
    ASSERT_TRUE(ReadElement(opened, &pduAt, opened.size(), &scoped));
    auto parts = Children(opened, scoped);
    ASSERT_EQ(parts.size(), 3u);
    EXPECT_EQ(Content(opened, parts[0]), engineId);
    EXPECT_EQ(parts[2].tag, 0xa0);
}

TEST(SnmpUsmExample, MessagesAreAuthenticatedAndEncryptedAsAnEngineExpects) {
    Outcome run = RunCommand(std::string("'") + ZUL_EXAMPLE_SNMP_USM + "'");
    ASSERT_EQ(run.exitCode, 0) << run.out;
    // RFC 3414 A.3.2: "maplesyrup" localised to engine 00..02 with SHA-1.
    EXPECT_EQ(Values(run.out)["authKey"], "6695febc9288e36282235fc7151f128497b38f3f");
    // AES-128 with HMAC-SHA-96 (RFC 3826, RFC 3414), then AES-256 with HMAC-SHA-256's 24 bytes (RFC 7860).
    CheckMessage(run.out, {"", EVP_sha1(), 12, EVP_aes_128_cfb128()});
    CheckMessage(run.out, {"aes256.", EVP_sha256(), 24, EVP_aes_256_cfb128()});
}

class SignFileExample : public ::testing::Test {
protected:
    void SetUp() override {
        const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
        dir_ = ::testing::TempDir() + "sign_file_" + info->name();
        std::remove((dir_ + ".txt.sig").c_str());
    }

    std::string Path(const char* suffix) const { return dir_ + suffix; }

    std::string dir_;
};

Bytes ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

// OpenSSL's own verdict on an RSA PKCS #1 v1.5 SHA-256 signature under (n, e).
int OpenSslVerify(const Bytes& n, const Bytes& e, const Bytes& data, const Bytes& signature) {
    std::unique_ptr<OSSL_PARAM_BLD, void (*)(OSSL_PARAM_BLD*)> build(OSSL_PARAM_BLD_new(), OSSL_PARAM_BLD_free);
    std::unique_ptr<BIGNUM, void (*)(BIGNUM*)> bn(BN_bin2bn(n.data(), static_cast<int>(n.size()), nullptr), BN_free);
    std::unique_ptr<BIGNUM, void (*)(BIGNUM*)> be(BN_bin2bn(e.data(), static_cast<int>(e.size()), nullptr), BN_free);
    if (!build || !bn || !be || OSSL_PARAM_BLD_push_BN(build.get(), OSSL_PKEY_PARAM_RSA_N, bn.get()) != 1 ||
        OSSL_PARAM_BLD_push_BN(build.get(), OSSL_PKEY_PARAM_RSA_E, be.get()) != 1) {
        return -1;
    }
    std::unique_ptr<OSSL_PARAM, void (*)(OSSL_PARAM*)> params(OSSL_PARAM_BLD_to_param(build.get()), OSSL_PARAM_free);
    std::unique_ptr<EVP_PKEY_CTX, void (*)(EVP_PKEY_CTX*)> from(EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr),
                                                                 EVP_PKEY_CTX_free);
    EVP_PKEY* raw = nullptr;
    if (!params || !from || EVP_PKEY_fromdata_init(from.get()) != 1 ||
        EVP_PKEY_fromdata(from.get(), &raw, EVP_PKEY_PUBLIC_KEY, params.get()) != 1) {
        return -1;
    }
    std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)> key(raw, EVP_PKEY_free);
    std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> md(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    if (!md || EVP_DigestVerifyInit_ex(md.get(), nullptr, "SHA256", nullptr, nullptr, key.get(), nullptr) != 1) return -1;
    return EVP_DigestVerify(md.get(), signature.data(), signature.size(), data.data(), data.size());
}

TEST_F(SignFileExample, SignatureVerifiesWithOpenSslAndAChangedFileIsRejected) {
    const std::string file = Path(".txt");
    const Bytes data = {'T', 'h', 'e', ' ', 'f', 'i', 'l', 'e', ' ', 't', 'o', ' ', 's', 'i', 'g', 'n', '\n'};
    std::ofstream(file, std::ios::binary).write(reinterpret_cast<const char*>(data.data()), static_cast<long>(data.size()));

    Outcome run = RunCommand(std::string("'") + ZUL_EXAMPLE_SIGN_FILE + "' '" + file + "'");
    ASSERT_EQ(run.exitCode, 0) << run.out;
    EXPECT_NE(run.out.find("verify: ok\n"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("changed file: rejected ("), std::string::npos) << run.out;
    auto values = Values(run.out);
    const Bytes n = FromHex(values["modulus"]);
    const Bytes e = FromHex(values["exponent"]);
    const Bytes signature = FromHex(values["signature"]);
    EXPECT_EQ(n.size(), 256u);
    EXPECT_EQ(values["exponent"], "010001");
    EXPECT_EQ(signature.size(), 256u);
    EXPECT_EQ(ReadFile(file + ".sig"), signature);

    EXPECT_EQ(OpenSslVerify(n, e, data, signature), 1);
    Bytes changed = data;
    changed[0] ^= 0x20;
    EXPECT_EQ(OpenSslVerify(n, e, changed, signature), 0);
}

TEST_F(SignFileExample, SignatureGoesWhereAsked) {
    const std::string file = Path(".txt");
    const std::string where = Path(".signature");
    std::ofstream(file, std::ios::binary) << "x";
    Outcome run = RunCommand(std::string("'") + ZUL_EXAMPLE_SIGN_FILE + "' '" + file + "' '" + where + "'");
    ASSERT_EQ(run.exitCode, 0) << run.out;
    EXPECT_EQ(Hex(ReadFile(where)), Values(run.out)["signature"]);
    EXPECT_TRUE(ReadFile(file + ".sig").empty());
}

TEST_F(SignFileExample, RefusesAMissingOrEmptyFileAndBadUsage) {
    const std::string missing = Path(".missing");
    Outcome run = RunCommand(std::string("'") + ZUL_EXAMPLE_SIGN_FILE + "' '" + missing + "'");
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(run.out, "cannot read " + missing + "\n");

    const std::string empty = Path(".empty");
    std::ofstream(empty, std::ios::binary).close();
    run = RunCommand(std::string("'") + ZUL_EXAMPLE_SIGN_FILE + "' '" + empty + "'");
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(run.out, "nothing to sign: " + empty + " is empty\n");

    run = RunCommand(std::string("'") + ZUL_EXAMPLE_SIGN_FILE + "'");
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_EQ(run.out, "usage: sign_file <file> [<signature file>]\n");
}

}  // namespace
