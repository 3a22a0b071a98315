// Runs the two example programs and checks what they print against OpenSSL 3
// called directly: the SNMPv3 messages are taken apart, their keys, MACs and
// encrypted PDUs recomputed; the file signature is verified with an OpenSSL key
// built from the printed modulus and exponent.
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/param_build.h>

#include "hex.h"

namespace {

using Bytes = std::vector<unsigned char>;
using zulcrypt::ToHex;

// Runs a shell command, standard error merged into the output; the exit code.
int RunCommand(const std::string& command, std::string& out) {
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");  // NOLINT(cert-env33-c): as a user would
    char chunk[4096];
    for (size_t got; pipe && (got = fread(chunk, 1, sizeof chunk, pipe)) > 0;) out.append(chunk, got);
    const int status = pipe ? pclose(pipe) : -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

Bytes FromHex(const std::string& hex) {
    Bytes bytes;
    EXPECT_TRUE(zulcrypt::FromHex(hex, bytes)) << hex;
    return bytes;
}

// "<name> <hex>" lines of the output, by name.
std::map<std::string, std::string> Values(const std::string& out) {
    std::map<std::string, std::string> values;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
        const size_t space = line.find(' ');
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

// RFC 3414 A.2.2: the digest of 1 MiB of the repeated password, localised to the engine;
// draft-blumenthal-aes-usm-04 3.1.2.1: grown by the digest of all of it until long enough.
Bytes UserKey(const EVP_MD* md, const std::string& password, const Bytes& engineId, size_t length) {
    Bytes stretched(1 << 20);
    for (size_t i = 0; i < stretched.size(); ++i) stretched[i] = static_cast<unsigned char>(password[i % password.size()]);
    Bytes key = Digest(md, stretched), material = key;
    material.insert(material.end(), engineId.begin(), engineId.end());
    material.insert(material.end(), key.begin(), key.end());
    for (key = Digest(md, material); key.size() < length;) {
        const Bytes more = Digest(md, key);
        key.insert(key.end(), more.begin(), more.end());
    }
    key.resize(length);
    return key;
}

// A BER element: tag and where its content is.
struct Element {
    unsigned char tag;
    size_t start, length;
};

// Every element of data[at, end) in document order, descending into SEQUENCEs, PDUs and
// OCTET STRINGs that hold one whole element (the USM parameters); false on a malformed one.
bool Flatten(const Bytes& data, size_t at, size_t end, std::vector<Element>& out) {
    while (at < end) {
        if (at + 2 > end) return false;
        size_t length = data[at + 1], header = 2;
        if (length & 0x80) {
            const size_t count = length & 0x7f;
            if (count == 0 || count > 2 || at + 2 + count > end) return false;
            for (length = 0; header < 2 + count; ++header) length = (length << 8) | data[at + header];
        }
        if (at + header + length > end) return false;
        const Element e{data[at], at + header, length};
        out.push_back(e);
        const bool wrapped = e.tag == 0x04 && length > 2 && data[e.start] == 0x30 && data[e.start + 1] == length - 2;
        if ((e.tag == 0x30 || e.tag == 0xa0 || wrapped) && !Flatten(data, e.start, e.start + length, out)) return false;
        at = e.start + length;
    }
    return true;
}

struct Protocol {
    std::string prefix;  // of the example's value names
    const EVP_MD* md;
    size_t macLength;
    const EVP_CIPHER* cipher;
};

// One message of the example's output, taken apart and recomputed with OpenSSL.
void CheckMessage(const std::string& out, const Protocol& p) {
    SCOPED_TRACE(p.prefix);
    EXPECT_NE(out.find("\n" + p.prefix + "receiver: MAC verified, PDU decrypted\n"), std::string::npos) << out;
    auto all = Values(out);
    auto value = [&](const char* name) { return all[p.prefix + name]; };
    const Bytes engineId = FromHex("000000000000000000000002");
    const Bytes authKey = UserKey(p.md, "maplesyrup", engineId, size_t(EVP_MD_get_size(p.md)));
    const Bytes privKey = UserKey(p.md, "newsyrup", engineId, size_t(EVP_CIPHER_get_key_length(p.cipher)));
    EXPECT_EQ(value("authKey"), ToHex(authKey));
    EXPECT_EQ(value("privKey"), ToHex(privKey));

    // message, header, version, global data (id, size, flags, model), USM parameters (engine
    // ID, boots, time, user, MAC, salt), then the encrypted PDU.
    Bytes message = FromHex(value("message"));
    std::vector<Element> e;
    ASSERT_TRUE(Flatten(message, 0, message.size(), e));
    ASSERT_EQ(e.size(), 16u);
    auto content = [&](size_t i) { return Bytes(message.begin() + long(e[i].start), message.begin() + long(e[i].start + e[i].length)); };
    EXPECT_EQ(ToHex(content(1)) + ToHex(content(5)) + ToHex(content(6)), "030703");  // SNMPv3, auth+priv+reportable, USM
    EXPECT_EQ(content(9), engineId);
    EXPECT_EQ(ToHex(content(10)) + ToHex(content(11)), "0701e240");  // boots 7, time 123456
    EXPECT_EQ(content(12), Bytes({'w', 'e', 'x', 'u', 's', 'e', 'r'}));
    ASSERT_EQ(e[13].length, p.macLength);
    const Bytes mac = content(13), salt = content(14), encrypted = content(15);
    EXPECT_EQ(value("mac"), ToHex(mac));
    EXPECT_EQ(value("encryptedPDU"), ToHex(encrypted));

    // The HMAC over the message with its MAC field zeroed, cut to the MAC's length.
    std::fill(message.begin() + long(e[13].start), message.begin() + long(e[13].start + p.macLength), 0);
    Bytes full(EVP_MAX_MD_SIZE);
    ASSERT_NE(HMAC(p.md, authKey.data(), int(authKey.size()), message.data(), message.size(), full.data(), nullptr), nullptr);
    full.resize(p.macLength);
    EXPECT_EQ(full, mac);

    // RFC 3826 IV: boots and time as 32-bit big-endian, then the salt.
    Bytes iv = FromHex("000000070001e240");
    iv.insert(iv.end(), salt.begin(), salt.end());
    EXPECT_EQ(value("iv"), ToHex(iv));
    Bytes opened(encrypted.size() + 16);
    int n = 0, last = 0;
    std::unique_ptr<EVP_CIPHER_CTX, void (*)(EVP_CIPHER_CTX*)> ctx(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
    ASSERT_EQ(EVP_DecryptInit_ex2(ctx.get(), p.cipher, privKey.data(), iv.data(), nullptr), 1);
    ASSERT_EQ(EVP_DecryptUpdate(ctx.get(), opened.data(), &n, encrypted.data(), int(encrypted.size())), 1);
    ASSERT_EQ(EVP_DecryptFinal_ex(ctx.get(), opened.data() + n, &last), 1);
    opened.resize(size_t(n) + size_t(last));
    EXPECT_EQ(ToHex(opened), value("scopedPDU"));
    EXPECT_EQ(value("decryptedPDU"), value("scopedPDU"));
    // The scoped PDU names the engine and carries a GetRequest.
    e.clear();
    ASSERT_TRUE(Flatten(opened, 0, opened.size(), e));
    ASSERT_GE(e.size(), 4u);
    EXPECT_EQ(Bytes(opened.begin() + long(e[1].start), opened.begin() + long(e[1].start + e[1].length)), engineId);
    EXPECT_EQ(e[3].tag, 0xa0);
}

TEST(SnmpUsmExample, MessagesAreAuthenticatedAndEncryptedAsAnEngineExpects) {
    std::string out;
    ASSERT_EQ(RunCommand(std::string("'") + ZUL_EXAMPLE_SNMP_USM + "'", out), 0) << out;
    // RFC 3414 A.3.2: "maplesyrup" localised to engine 00..02 with SHA-1.
    EXPECT_EQ(Values(out)["authKey"], "6695febc9288e36282235fc7151f128497b38f3f");
    // AES-128 with HMAC-SHA-96 (RFC 3826, RFC 3414), then AES-256 with HMAC-SHA-256's 24 bytes (RFC 7860).
    CheckMessage(out, {"", EVP_sha1(), 12, EVP_aes_128_cfb128()});
    CheckMessage(out, {"aes256.", EVP_sha256(), 24, EVP_aes_256_cfb128()});
}

// OpenSSL's own verdict on an RSA PKCS #1 v1.5 SHA-256 signature under (n, e).
int OpenSslVerify(const Bytes& n, const Bytes& e, const Bytes& data, const Bytes& signature) {
    std::unique_ptr<OSSL_PARAM_BLD, void (*)(OSSL_PARAM_BLD*)> build(OSSL_PARAM_BLD_new(), OSSL_PARAM_BLD_free);
    std::unique_ptr<BIGNUM, void (*)(BIGNUM*)> bn(BN_bin2bn(n.data(), int(n.size()), nullptr), BN_free);
    std::unique_ptr<BIGNUM, void (*)(BIGNUM*)> be(BN_bin2bn(e.data(), int(e.size()), nullptr), BN_free);
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

Bytes ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

TEST(SignFileExample, SignsVerifiesAndRefuses) {
    const std::string file = ::testing::TempDir() + "sign_file.txt", where = file + ".signature";
    const std::string tool = std::string("'") + ZUL_EXAMPLE_SIGN_FILE + "' ";
    const Bytes data = {'T', 'h', 'e', ' ', 'f', 'i', 'l', 'e', '\n'};
    std::ofstream(file, std::ios::binary).write(reinterpret_cast<const char*>(data.data()), long(data.size()));
    (void)std::remove((file + ".sig").c_str());
    std::string out;
    ASSERT_EQ(RunCommand(tool + "'" + file + "'", out), 0) << out;
    EXPECT_NE(out.find("verify: ok\nchanged file: rejected ("), std::string::npos) << out;
    auto values = Values(out);
    const Bytes n = FromHex(values["modulus"]), signature = FromHex(values["signature"]);
    EXPECT_EQ(n.size(), 256u);
    EXPECT_EQ(values["exponent"], "010001");
    EXPECT_EQ(ReadFile(file + ".sig"), signature);
    EXPECT_EQ(OpenSslVerify(n, FromHex("010001"), data, signature), 1);
    Bytes changed = data;
    changed[0] ^= 0x20;
    EXPECT_EQ(OpenSslVerify(n, FromHex("010001"), changed, signature), 0);

    out.clear();  // the signature goes where asked
    ASSERT_EQ(RunCommand(tool + "'" + file + "' '" + where + "'", out), 0) << out;
    EXPECT_EQ(ToHex(ReadFile(where)), Values(out)["signature"]);

    const struct {
        std::string args;
        int exit;
        std::string out;
    } refused[] = {{"'" + file + ".missing'", 1, "cannot read " + file + ".missing\n"},
                   {"/dev/null", 1, "nothing to sign: /dev/null is empty\n"},
                   {"", 2, "usage: sign_file <file> [<signature file>]\n"}};
    for (const auto& r : refused) {
        out.clear();
        EXPECT_EQ(RunCommand(tool + r.args, out), r.exit) << r.args;
        EXPECT_EQ(out, r.out);
    }
}

}  // namespace
