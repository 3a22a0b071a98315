// zulcrypt usm-keys and keychange: the SNMPv3 user keys of RFC 3414 (and the
// SHA-2 digests of RFC 7860), computed through the C-callable interface only.
#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <system_error>

#include <sys/random.h>

#include <CLI/CLI.hpp>
#include <zulcryptimpl.h>

#include "commands.h"
#include "hex.h"
#include "password.h"
#include "secret.h"

namespace zulcrypt {
namespace {

// How a privacy key longer than the localised key is grown from it. The two
// published methods give different keys from one password, so each protocol
// name is bound to the one its agents use.
enum class KeyExtension {
    None = 0,
    Blumenthal = ZULVKL_KEY_EXTENSION_BLUMENTHAL,
    Reeder = ZULVKL_KEY_EXTENSION_REEDER,
};

// The SNMP privacy protocols: the key (and the pre-IV of the CBC ones) are the
// first bytes of the localised key, RFC 3414 8.1.1.1 and RFC 3826 3.1.2.1, or of
// that key extended when it is too short.
struct PrivProtocol {
    const char* name;
    const char* cipher;  // the VKL cipher the protocol encrypts with
    size_t keyLength;
    size_t preIvLength;
    KeyExtension extension;
};
const PrivProtocol kPrivProtocols[] = {
    {"DES", "DES-CBC", 8, 8, KeyExtension::None},
    {"AES-128", "AES-128-CFB", 16, 0, KeyExtension::None},
    {"AES-192", "AES-192-CFB", 24, 0, KeyExtension::Blumenthal},
    {"AES-256", "AES-256-CFB", 32, 0, KeyExtension::Blumenthal},
    {"AES-192-C", "AES-192-CFB", 24, 0, KeyExtension::Reeder},
    {"AES-256-C", "AES-256-CFB", 32, 0, KeyExtension::Reeder},
    {"3DES", "DES-EDE3-CBC", 24, 8, KeyExtension::Reeder},
};

const PrivProtocol* FindPriv(const std::string& name) {
    for (const PrivProtocol& protocol : kPrivProtocols) {
        if (name == protocol.name) return &protocol;
    }
    return nullptr;
}

std::map<std::string, std::string> PrivNames() {
    // Other names operators use for the protocols.
    std::map<std::string, std::string> names = {{"DES-CBC", "DES"}, {"AES", "AES-128"}, {"AES-128-CFB", "AES-128"}};
    for (const PrivProtocol& protocol : kPrivProtocols) names[protocol.name] = protocol.name;
    return names;
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

    bool PasswordToKey(const char* digest, const Bytes& password, Bytes& key) {
        key.assign(static_cast<size_t>(DigestLength(digest)), 0);
        ZulVklConstBuffer in = In(password);
        ZulVklBuffer out{key.data(), static_cast<uint32_t>(key.size())};
        return ZulVklMdGenerateKey(m_ctx, m_md, digest, &in, &out, m_status) == 1;
    }

    bool Localise(const char* digest, const Bytes& key, const Bytes& engineId, Bytes& localised) {
        localised.assign(static_cast<size_t>(DigestLength(digest)), 0);
        ZulVklConstBuffer k = In(key), e = In(engineId);
        ZulVklBuffer out{localised.data(), static_cast<uint32_t>(localised.size())};
        return ZulVklMdLocaliseKey(m_ctx, m_md, digest, &e, &k, &out, m_status) == 1;
    }

    bool Extend(const char* digest, KeyExtension method, const Bytes& engineId, const Bytes& localised, size_t length,
                Bytes& extended) {
        extended.assign(length, 0);
        ZulVklConstBuffer e = In(engineId), k = In(localised);
        ZulVklBuffer out{extended.data(), static_cast<uint32_t>(extended.size())};
        return ZulVklMdExtendKey(m_ctx, m_md, digest, static_cast<int>(method), &e, &k, &out, m_status) == 1;
    }

    bool Digest(const char* digest, const Bytes& first, const Bytes& second, Bytes& result) {
        ZulVklConstBuffer a = In(first), b = In(second);
        ZulVklBuffer out{nullptr, 0};
        if (ZulVklMdKeyChangeDigest(m_ctx, m_md, digest, &a, &b, &out, m_status) != 1) return false;
        result.assign(out.data, out.data + out.length);
        zul::Cleanse(out.data, out.length);
        std::free(out.data);
        return true;
    }

    const char* Error() const { return m_status != nullptr ? m_status->errorMsg : "no status record"; }

private:
    ZulVklCtxWrap* m_ctx;
    ZulVklStatusWrap* m_status;
    ZulVklMdCtxWrap* m_md = nullptr;
};

int Failed(Streams& io, const char* command, const std::string& what, const char* text) {
    io.err << "zulcrypt " << command << ": " << what << " failed: " << text << '\n';
    return 1;
}

// RFC 3411's SnmpEngineID is 5 to 32 octets; RFC 3414 11.2 asks for passwords
// of at least 8 characters.
constexpr size_t kMinEngineId = 5;
constexpr size_t kMaxEngineId = 32;
constexpr size_t kMinPassword = 8;

// A password given as text or as a file to read it from.
struct PasswordOption {
    std::string text;
    std::string file;
    CLI::Option* textOption = nullptr;
    CLI::Option* fileOption = nullptr;

    // 1 read into password, 0 not given, -1 unreadable (why set).
    int Take(Streams& io, Bytes& password, bool& onCommandLine, std::string& why) {
        if (textOption->count() > 0) {
            password.assign(text.begin(), text.end());
            Wipe(text);
            onCommandLine = true;
            return 1;
        }
        if (fileOption->count() == 0) return 0;
        return ReadPasswordFile(file, io, password, why) ? 1 : -1;
    }
};

struct UsmOptions {
    PasswordOption password, auth, priv;
    std::string engineId;
    std::string digest;
    std::string privacy;
};

void AddPasswordOption(CLI::App* sub, PasswordOption& option, const std::string& name, const std::string& what) {
    option.textOption =
        sub->add_option("--" + name, option.text, what + " on the command line (seen by ps; prefer the file)");
    option.fileOption =
        sub->add_option("--" + name + "-file", option.file, what + ": the first line of FILE (- standard input)")
            ->type_name("FILE");
    option.textOption->excludes(option.fileOption);
}

int UsmKeys(UsmOptions& o, Streams& io) {
    static const char kName[] = "usm-keys";
    const PrivProtocol* priv = o.privacy.empty() ? nullptr : FindPriv(o.privacy);
    Bytes shared, authPassword, privPassword;
    bool onCommandLine = false;
    std::string why;
    const int haveShared = o.password.Take(io, shared, onCommandLine, why);
    const int haveAuth = haveShared < 0 ? -1 : o.auth.Take(io, authPassword, onCommandLine, why);
    const int havePriv = haveAuth < 0 ? -1 : o.priv.Take(io, privPassword, onCommandLine, why);
    if (havePriv < 0) return Refused(io, kName, why);
    bool authGiven = haveAuth == 1, privGiven = havePriv == 1 || priv == nullptr;
    // One password for both unless each has its own; warned about once then.
    const bool same = haveAuth != 1 && havePriv != 1;
    if (haveShared == 1) {
        if (!authGiven) authPassword = shared;
        if (!privGiven) privPassword = shared;
        authGiven = privGiven = true;
    }
    // A prompt that could not be read says why; with no terminal to prompt on, an option is missing.
    const auto promptFailed = [&io, &why](const char* needed) {
        return !why.empty() ? Refused(io, kName, why) : Usage(io, kName, needed);
    };
    if (!authGiven) {
        const char* prompt = privGiven ? "authentication password: " : "password (authentication and privacy): ";
        if (!PromptPassword(prompt, io, authPassword, why)) {
            return promptFailed(
                "a password is required: --password-file FILE, --auth-password-file FILE or a terminal");
        }
        if (!privGiven) privPassword = authPassword;
        privGiven = true;
    }
    if (!privGiven && !PromptPassword("privacy password: ", io, privPassword, why)) {
        return promptFailed(
            "--priv needs a privacy password: --priv-password-file FILE, --password-file FILE or a terminal");
    }
    if (authPassword.empty() || (priv != nullptr && privPassword.empty())) return Usage(io, kName, "empty password");
    if (onCommandLine) {
        io.err << "zulcrypt usm-keys: warning: a password on the command line is seen by ps and kept in shell history;"
                  " use --password-file or the prompt\n";
    }
    const bool shortAuth = authPassword.size() < kMinPassword;
    const bool shortPriv = priv != nullptr && privPassword.size() < kMinPassword;
    if (same && shortAuth) {
        io.err << "zulcrypt usm-keys: warning: the password is shorter than 8 characters (RFC 3414 section 11.2)\n";
    } else {
        if (shortAuth) {
            io.err << "zulcrypt usm-keys: warning: the authentication password is shorter than 8 characters"
                      " (RFC 3414 section 11.2)\n";
        }
        if (shortPriv) {
            io.err << "zulcrypt usm-keys: warning: the privacy password is shorter than 8 characters"
                      " (RFC 3414 section 11.2)\n";
        }
    }
    Bytes engineId;
    if (!ReadHex(o.engineId, "--engine-id", engineId, why)) return Usage(io, kName, why);
    if (engineId.size() < kMinEngineId || engineId.size() > kMaxEngineId) {
        return Usage(io, kName,
                     "an engine ID is 5 to 32 octets long (RFC 3411), not " + std::to_string(engineId.size()));
    }
    const char* digest = o.digest.c_str();

    Session session;
    if (!session.Usable()) return Failed(io, kName, "crypto context", "not usable");
    Bytes ku, kul;
    if (!session.PasswordToKey(digest, authPassword, ku)) return Failed(io, kName, "password to key", session.Error());
    if (!session.Localise(digest, ku, engineId, kul)) return Failed(io, kName, "key localisation", session.Error());
    io.out << "auth protocol: " << digest << '\n'
           << "auth Ku: " << ToHex(ku) << '\n'
           << "auth Kul: " << ToHex(kul) << '\n';
    if (priv == nullptr) return 0;

    Bytes privKu, privKul;
    if (!session.PasswordToKey(digest, privPassword, privKu)) {
        return Failed(io, kName, "password to key", session.Error());
    }
    if (!session.Localise(digest, privKu, engineId, privKul)) {
        return Failed(io, kName, "key localisation", session.Error());
    }
    const size_t privLength = priv->keyLength + priv->preIvLength;
    Bytes privKey;
    if (priv->extension == KeyExtension::None) {
        if (privKul.size() < privLength) {
            return Failed(io, kName, "privacy key", "the localised key is too short for the protocol");
        }
        privKey.assign(privKul.begin(), privKul.begin() + static_cast<std::ptrdiff_t>(privLength));
    } else if (!session.Extend(digest, priv->extension, engineId, privKul, privLength, privKey)) {
        return Failed(io, kName, "key extension", session.Error());
    }
    io.out << "priv protocol: " << priv->name << '\n'
           << "priv Ku: " << ToHex(privKu) << '\n'
           << "priv Kul: " << ToHex(privKul) << '\n'
           << priv->name << " key: " << ToHex<SecretText>(privKey.data(), priv->keyLength) << '\n';
    if (priv->preIvLength > 0) {
        io.out << priv->name << " pre-IV: " << ToHex<SecretText>(privKey.data() + priv->keyLength, priv->preIvLength)
               << '\n';
    }
    return 0;
}

struct KeyChangeOptions {
    std::string digest;
    std::string oldKey;
    std::string newKey;
    std::string random;
};

int KeyChange(KeyChangeOptions& o, Streams& io) {
    static const char kName[] = "keychange";
    Bytes oldKey, newKey, random;
    std::string why;
    const bool hex = ReadHex(o.oldKey, "--old", oldKey, why) && ReadHex(o.newKey, "--new", newKey, why);
    Wipe(o.oldKey);
    Wipe(o.newKey);
    if (!hex) return Usage(io, kName, why);
    if (newKey.empty()) return Usage(io, kName, "empty key");
    if (oldKey.size() != newKey.size()) {
        return Usage(io, kName, "the old key is " + std::to_string(oldKey.size()) + " bytes, the new one " +
                                    std::to_string(newKey.size()) + "; a key keeps its length");
    }
    if (!o.random.empty()) {
        if (!ReadHex(o.random, "--random", random, why)) return Usage(io, kName, why);
        if (random.size() != newKey.size()) return Usage(io, kName, "the random value must be as long as the keys");
    } else {
        random.assign(newKey.size(), 0);
        // Up to 256 bytes come whole once the pool is ready; a short count leaves errno unset.
        const ssize_t got = getrandom(random.data(), random.size(), 0);
        if (got != static_cast<ssize_t>(random.size())) {
            const std::string why = got < 0 ? std::generic_category().message(errno) : "short read";
            return Failed(io, kName, "drawing the random value", why.c_str());
        }
    }
    const char* digest = o.digest.c_str();

    Session session;
    if (!session.Usable()) return Failed(io, kName, "crypto context", "not usable");
    // A wrong KeyChange value for an authentication key locks the user out; a
    // privacy key (16 bytes for DES and AES-128) may rightly differ.
    const int digestLength = session.DigestLength(digest);
    if (digestLength > 0 && newKey.size() != static_cast<size_t>(digestLength)) {
        io.err << "zulcrypt keychange: warning: the keys are " << newKey.size() << " bytes; an authentication key for "
               << digest << " is " << digestLength << "\n";
    }
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

CLI::Option* AddDigestOption(CLI::App* sub, std::string& digest) {
    return sub->add_option("--auth", digest, std::string("the authentication digest: ") + DigestList(true))
        ->required()
        ->type_name("DIGEST")
        ->transform(DigestChoice(true));
}

// The privacy protocols as the help lists them, one line each from the table.
std::string PrivFooter() {
    const auto column = [](std::string text, size_t width) {
        text.resize(std::max(text.size() + 1, width), ' ');
        return text;
    };
    std::string text = "Privacy protocols (--priv):\n";
    for (const PrivProtocol& protocol : kPrivProtocols) {
        const char* how = protocol.extension == KeyExtension::None         ? "cut from priv Kul"
                          : protocol.extension == KeyExtension::Blumenthal ? "priv Kul extended by Blumenthal's method"
                                                                           : "priv Kul extended by Reeder's method";
        text += "  " + column(protocol.name, 11) + column(protocol.cipher, 14) +
                (protocol.preIvLength > 0 ? "key and pre-IV: " : "key: ") + how + "\n";
    }
    return text + R"(  Blumenthal's method (draft-blumenthal-aes-usm-04) is the AES-192/256 of most agents;
  Reeder's (draft-reeder-snmpv3-usm-3desede-00) is that of 3DES and of the -C variants some
  vendors offer. The two give different keys from one password and are not interchangeable:
  pick the name that matches the agent. A localised key already long enough (SHA-256 and up
  for AES-256) is only cut.
)";
}

}  // namespace

void AddUsmCommands(CLI::App& app, Actions& actions) {
    auto usm = std::make_shared<UsmOptions>();
    CLI::App* sub = app.add_subcommand(
        "usm-keys", "Derive SNMPv3 user keys (Ku) and localised keys (Kul) from passwords (RFC 3414, RFC 7860).");
    AddPasswordOption(sub, usm->password, "password", "one password for authentication and privacy");
    AddPasswordOption(sub, usm->auth, "auth-password", "the authentication password");
    AddPasswordOption(sub, usm->priv, "priv-password", "the privacy password");
    sub->add_option("--engine-id", usm->engineId,
                    "the authoritative engine's ID in hex (0x and ':' allowed, as for every hex value), 5 to 32 octets")
        ->required()
        ->type_name("HEX");
    AddDigestOption(sub, usm->digest);
    std::string privChoices;
    for (const PrivProtocol& protocol : kPrivProtocols) privChoices += std::string(protocol.name) + ", ";
    privChoices += "in any case";
    sub->add_option("--priv", usm->privacy, "also derive the privacy key: " + privChoices)
        ->type_name("PROTOCOL")
        ->transform(Choice(PrivNames(), privChoices));
    sub->footer(R"(Passwords:
  Without a password option and with a terminal on standard input, the password is asked for
  without echo. A file gives its first line, line ending removed; with - for more than one
  option, standard input gives one line each, in the order password, auth, priv, read without
  echo from a terminal. A line is at most 1024 bytes before its LF or CRLF: a longer one
  (/dev/zero) is refused. A password given on the command line works, with a warning: ps and
  the shell history see it.

Checks:
  An engine ID outside 5 to 32 octets is refused (RFC 3411). A password shorter than 8
  characters draws a warning (RFC 3414 section 11.2) and is still used.

)" + PrivFooter() + R"(
Output:
  auth protocol, auth Ku, auth Kul, and with --priv: priv protocol, priv Ku, priv Kul and the
  privacy key made from priv Kul (DES and 3DES: key and pre-IV), all in lower-case hex.

Example (RFC 3414 A.3.2):
  echo maplesyrup | zulcrypt usm-keys --password-file - --engine-id 000000000000000000000002 --auth SHA1 --priv DES)");
    actions.emplace_back(sub, [usm](Streams& io) { return UsmKeys(*usm, io); });

    auto change = std::make_shared<KeyChangeOptions>();
    sub = app.add_subcommand("keychange", "Compute the KeyChange value of RFC 3414 section 5 for a new key.");
    AddDigestOption(sub, change->digest);
    sub->add_option("--old", change->oldKey, "the current key in hex")->required()->type_name("HEX");
    sub->add_option("--new", change->newKey, "the new key in hex, as long as the old")->required()->type_name("HEX");
    sub->add_option("--random", change->random, "the random value in hex, as long as the keys; drawn when not given")
        ->type_name("HEX");
    sub->footer("Prints random, delta and KeyChange (random followed by delta) in lower-case hex. Keys of\n"
                "different lengths are refused; keys not of the digest's size draw a warning, since an\n"
                "authentication key is that long and a wrong KeyChange value locks the user out.\n\n"
                "Example (RFC 3414 A.5.2):\n"
                "  zulcrypt keychange --auth SHA1 --old 6695febc9288e36282235fc7151f128497b38f3f \\\n"
                "    --new 78e2dcce79d59403b58c1bbaa5bff46391f1cd25 --random 0000000000000000000000000000000000000000");
    actions.emplace_back(sub, [change](Streams& io) { return KeyChange(*change, io); });
}

}  // namespace zulcrypt
