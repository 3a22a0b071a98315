// zulcrypt usm-keys and keychange: the SNMPv3 user keys of RFC 3414 (and the
// SHA-2 digests of RFC 7860), computed through the C-callable interface only.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ostream>
#include <string>
#include <vector>

#include <sys/random.h>

#include <zulcryptimpl.h>

#include "commands.h"
#include "hex.h"

namespace zulcrypt {
namespace {

using Bytes = std::vector<unsigned char>;

// Authentication digests by the names operators use, with the VKL name of each.
struct AuthDigest {
    const char* name;
    const char* vkl;
};
const AuthDigest kAuthDigests[] = {
    {"MD5", "MD5"},       {"SHA1", "SHA1"},     {"SHA", "SHA1"},      {"SHA-1", "SHA1"},
    {"SHA224", "SHA224"}, {"SHA-224", "SHA224"}, {"SHA256", "SHA256"}, {"SHA-256", "SHA256"},
    {"SHA384", "SHA384"}, {"SHA-384", "SHA384"}, {"SHA512", "SHA512"}, {"SHA-512", "SHA512"},
};

const char* VklDigest(const std::string& name) {
    for (const AuthDigest& digest : kAuthDigests) {
        if (name == digest.name) return digest.vkl;
    }
    return nullptr;
}

ZulVklConstBuffer In(const Bytes& bytes) {
    return ZulVklConstBuffer{bytes.data(), static_cast<uint32_t>(bytes.size())};
}

// The handles a command needs, released in the right order whatever happens.
class Session {
public:
    Session() : m_ctx(ZulVklCtxCreate()), m_status(ZulVklStatusCreate()) {
        if (m_ctx != nullptr) m_md = ZulVklMdCtxCreate(m_ctx);
    }
    ~Session() {
        ZulVklMdCtxDestroy(m_ctx, m_md);
        ZulVklStatusDestroy(m_status);
        ZulVklCtxDestroy(m_ctx);
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    bool Usable() const { return m_ctx != nullptr && m_status != nullptr && m_md != nullptr; }

    int DigestLength(const char* digest) { return ZulVklMdDigestLength(m_ctx, digest); }

    bool PasswordToKey(const char* digest, const std::string& password, Bytes& key) {
        key.assign(static_cast<size_t>(DigestLength(digest)), 0);
        ZulVklConstBuffer in{reinterpret_cast<const unsigned char*>(password.data()),
                             static_cast<uint32_t>(password.size())};
        ZulVklBuffer out{key.data(), static_cast<uint32_t>(key.size())};
        return ZulVklMdGenerateKey(m_ctx, m_md, digest, &in, &out, m_status) == 1;
    }

    bool Localise(const char* digest, const Bytes& key, const Bytes& engineId, Bytes& localised) {
        localised.assign(static_cast<size_t>(DigestLength(digest)), 0);
        ZulVklConstBuffer k = In(key), e = In(engineId);
        ZulVklBuffer out{localised.data(), static_cast<uint32_t>(localised.size())};
        return ZulVklMdLocaliseKey(m_ctx, m_md, digest, &e, &k, &out, m_status) == 1;
    }

    bool Digest(const char* digest, const Bytes& first, const Bytes& second, Bytes& result) {
        ZulVklConstBuffer a = In(first), b = In(second);
        ZulVklBuffer out{nullptr, 0};
        if (ZulVklMdKeyChangeDigest(m_ctx, m_md, digest, &a, &b, &out, m_status) != 1) return false;
        result.assign(out.data, out.data + out.length);
        std::free(out.data);
        return true;
    }

    const char* Error() const { return m_status != nullptr ? m_status->errorMsg : "no status record"; }

private:
    ZulVklCtxWrap* m_ctx;
    ZulVklStatusWrap* m_status;
    ZulVklMdCtxWrap* m_md = nullptr;
};

// "--name value" options; false (with the reason) for anything else.
bool ParseOptions(int argc, char** argv, const std::vector<std::string>& known,
                  std::vector<std::pair<std::string, std::string>>& options, std::string& error) {
    for (int i = 1; i < argc; i += 2) {
        const std::string name = argv[i];
        bool isKnown = false;
        for (const std::string& option : known) isKnown = isKnown || name == option;
        if (!isKnown) {
            error = "unknown option '" + name + "'";
            return false;
        }
        if (i + 1 >= argc) {
            error = "option " + name + " needs a value";
            return false;
        }
        options.emplace_back(name, argv[i + 1]);
    }
    return true;
}

const std::string* Option(const std::vector<std::pair<std::string, std::string>>& options, const char* name) {
    const std::string* found = nullptr;
    for (const auto& option : options) {
        if (option.first == name) found = &option.second;
    }
    return found;
}

int Usage(Streams& io, const char* command, const std::string& error) {
    io.err << "zulcrypt " << command << ": " << error << " (see zulcrypt --help)\n";
    return 2;
}

int Failed(Streams& io, const char* command, const std::string& what, const char* text) {
    io.err << "zulcrypt " << command << ": " << what << " failed: " << text << '\n';
    return 1;
}

}  // namespace

int UsmKeysCommand(int argc, char** argv, Streams& io) {
    static const char kName[] = "usm-keys";
    std::vector<std::pair<std::string, std::string>> options;
    std::string error;
    if (!ParseOptions(argc, argv, {"--password", "--auth-password", "--priv-password", "--engine-id", "--auth", "--priv"},
                      options, error)) {
        return Usage(io, kName, error);
    }
    const std::string* password = Option(options, "--password");
    const std::string* authPassword = Option(options, "--auth-password");
    const std::string* privPassword = Option(options, "--priv-password");
    const std::string* engineHex = Option(options, "--engine-id");
    const std::string* auth = Option(options, "--auth");
    const std::string* priv = Option(options, "--priv");
    if (engineHex == nullptr || auth == nullptr) return Usage(io, kName, "--engine-id and --auth are required");
    if (authPassword == nullptr) authPassword = password;
    if (privPassword == nullptr) privPassword = password;
    if (authPassword == nullptr) return Usage(io, kName, "a password is required (--password or --auth-password)");
    if (priv != nullptr && privPassword == nullptr) return Usage(io, kName, "--priv needs --password or --priv-password");
    if (authPassword->empty() || (priv != nullptr && privPassword->empty())) {
        return Usage(io, kName, "empty password");
    }
    Bytes engineId;
    if (!FromLooseHex(*engineHex, engineId)) return Usage(io, kName, "bad hex in --engine-id: '" + *engineHex + "'");
    if (engineId.empty()) return Usage(io, kName, "empty engine ID");
    const char* digest = VklDigest(*auth);
    if (digest == nullptr) {
        return Usage(io, kName, "unknown digest '" + *auth + "' (MD5, SHA1, SHA224, SHA256, SHA384 or SHA512)");
    }
    // RFC 3414 DES: key and pre-IV from the first 16 bytes; RFC 3826 AES-128: key from the first 16.
    const bool des = priv != nullptr && (*priv == "DES" || *priv == "DES-CBC");
    const bool aes = priv != nullptr && (*priv == "AES" || *priv == "AES-128" || *priv == "AES-128-CFB");
    if (priv != nullptr && !des && !aes) return Usage(io, kName, "unknown privacy protocol '" + *priv + "' (DES or AES-128)");

    Session session;
    if (!session.Usable()) return Failed(io, kName, "crypto context", "not usable");
    Bytes ku, kul;
    if (!session.PasswordToKey(digest, *authPassword, ku)) return Failed(io, kName, "password to key", session.Error());
    if (!session.Localise(digest, ku, engineId, kul)) return Failed(io, kName, "key localisation", session.Error());
    io.out << "auth protocol: " << digest << '\n'
           << "auth Ku: " << ToHex(ku) << '\n'
           << "auth Kul: " << ToHex(kul) << '\n';
    if (priv == nullptr) return 0;

    Bytes privKu, privKul;
    if (!session.PasswordToKey(digest, *privPassword, privKu)) {
        return Failed(io, kName, "password to key", session.Error());
    }
    if (!session.Localise(digest, privKu, engineId, privKul)) {
        return Failed(io, kName, "key localisation", session.Error());
    }
    // Privacy keys are cut from the localised key: RFC 7860 digests give at least 16 bytes.
    io.out << "priv protocol: " << (des ? "DES" : "AES-128") << '\n'
           << "priv Ku: " << ToHex(privKu) << '\n'
           << "priv Kul: " << ToHex(privKul) << '\n';
    if (des) {
        io.out << "DES key: " << ToHex(privKul.data(), 8) << '\n' << "DES pre-IV: " << ToHex(privKul.data() + 8, 8) << '\n';
    } else {
        io.out << "AES-128 key: " << ToHex(privKul.data(), 16) << '\n';
    }
    return 0;
}

int KeyChangeCommand(int argc, char** argv, Streams& io) {
    static const char kName[] = "keychange";
    std::vector<std::pair<std::string, std::string>> options;
    std::string error;
    if (!ParseOptions(argc, argv, {"--auth", "--old", "--new", "--random"}, options, error)) {
        return Usage(io, kName, error);
    }
    const std::string* auth = Option(options, "--auth");
    const std::string* oldHex = Option(options, "--old");
    const std::string* newHex = Option(options, "--new");
    const std::string* randomHex = Option(options, "--random");
    if (auth == nullptr || oldHex == nullptr || newHex == nullptr) {
        return Usage(io, kName, "--auth, --old and --new are required");
    }
    const char* digest = VklDigest(*auth);
    if (digest == nullptr) {
        return Usage(io, kName, "unknown digest '" + *auth + "' (MD5, SHA1, SHA224, SHA256, SHA384 or SHA512)");
    }
    Bytes oldKey, newKey, random;
    if (!FromLooseHex(*oldHex, oldKey)) return Usage(io, kName, "bad hex in --old: '" + *oldHex + "'");
    if (!FromLooseHex(*newHex, newKey)) return Usage(io, kName, "bad hex in --new: '" + *newHex + "'");
    if (newKey.empty()) return Usage(io, kName, "empty key");
    if (oldKey.size() != newKey.size()) return Usage(io, kName, "old and new keys differ in length");
    if (randomHex != nullptr) {
        if (!FromLooseHex(*randomHex, random)) return Usage(io, kName, "bad hex in --random: '" + *randomHex + "'");
        if (random.size() != newKey.size()) return Usage(io, kName, "the random value must be as long as the keys");
    } else {
        random.assign(newKey.size(), 0);
        if (getrandom(random.data(), random.size(), 0) != static_cast<ssize_t>(random.size())) {
            return Failed(io, kName, "drawing the random value", std::strerror(errno));
        }
    }

    Session session;
    if (!session.Usable()) return Failed(io, kName, "crypto context", "not usable");
    // RFC 3414 section 5, KeyChange: each digest-sized stretch of the new key is
    // XORed with digest(previous digest | random), the first one seeded with the old key.
    Bytes delta(newKey.size()), temp = oldKey;
    for (size_t at = 0; at < newKey.size();) {
        Bytes next;
        if (!session.Digest(digest, temp, random, next)) return Failed(io, kName, "key change digest", session.Error());
        temp = next;
        for (size_t i = 0; i < temp.size() && at < newKey.size(); ++i, ++at) delta[at] = temp[i] ^ newKey[at];
    }
    io.out << "random: " << ToHex(random) << '\n'
           << "delta: " << ToHex(delta) << '\n'
           << "KeyChange: " << ToHex(random) << ToHex(delta) << '\n';
    return 0;
}

}  // namespace zulcrypt
