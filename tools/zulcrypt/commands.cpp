#include "commands.h"

#include <cstring>
#include <ostream>

namespace zulcrypt {

const std::vector<Command>& Commands() {
    static const std::vector<Command> commands = {
        {"selftest", "", "check that a crypto context starts and is usable", SelfTestCommand},
        {"digest", "NAME [FILE]", "hex digest of FILE or standard input (NAME: SHA1, SHA256, SHA3-256, MD5, ...)", DigestCommand},
        {"hmac", "NAME HEXKEY [FILE]", "hex HMAC of FILE or standard input under the hex key", HmacCommand},
        {"enc", "CIPHER HEXKEY HEXIV [IN|- [OUT|-]]", "encrypt a file or standard input, padded", EncryptCommand},
        {"dec", "CIPHER HEXKEY HEXIV [IN|- [OUT|-]]", "decrypt a file or standard input", DecryptCommand},
        {"usm-keys", "(--password PW | --auth-password PW [--priv-password PW]) --engine-id HEX --auth DIGEST [--priv DES|AES-128]", "SNMPv3 user keys (Ku) and localised keys (Kul) of RFC 3414", UsmKeysCommand},
        {"keychange", "--auth DIGEST --old HEX --new HEX [--random HEX]", "the KeyChange value of RFC 3414 (random value drawn when not given)", KeyChangeCommand},
    };
    return commands;
}

void PrintHelp(std::ostream& out) {
    out << "usage: zulcrypt COMMAND [ARGS]\n\ncommands:\n";
    for (const Command& command : Commands()) {
        out << "  " << command.name;
        if (*command.synopsis != '\0') out << ' ' << command.synopsis;
        out << "\n      " << command.summary << '\n';
    }
    out << "  --help\n      this text\n";
}

int Dispatch(int argc, char** argv, Streams& io) {
    if (argc < 1 || std::strcmp(argv[0], "--help") == 0 || std::strcmp(argv[0], "-h") == 0) {
        PrintHelp(argc < 1 ? io.err : io.out);
        return argc < 1 ? 2 : 0;
    }
    for (const Command& command : Commands()) {
        if (std::strcmp(argv[0], command.name) == 0) return command.run(argc, argv, io);
    }
    io.err << "zulcrypt: unknown command '" << argv[0] << "' (see zulcrypt --help)\n";
    return 2;
}

}  // namespace zulcrypt
