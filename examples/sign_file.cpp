// Signs a file with a fresh 2048-bit RSA key (PKCS #1 v1.5 over SHA-256),
// writes the signature next to it, verifies it, and shows that one changed
// byte makes verification fail.
//
// usage: sign_file <file> [<signature file>]   (default: <file>.sig)
// Prints "modulus", "exponent" and "signature" as hex lines; exits 0 when the
// signature verifies and the changed copy does not, 1 otherwise, 2 on usage.
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

#include <czulcryptbignum.h>
#include <czulcryptcontext.h>
#include <czulcryptrsakey.h>
#include <czulcryptsignature.h>
#include <vkl.h>

namespace {

using Bytes = std::vector<unsigned char>;

// The library reports a rejected signature as an error; collect the texts so
// the expected rejection is shown once, not as a failure line.
std::vector<std::string> g_reports;

void CollectError(const char*, unsigned int, const char* text, bool) { g_reports.emplace_back(text); }

std::string Hex(const Bytes& bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string hex;
    for (unsigned char byte : bytes) {
        hex += digits[byte >> 4];
        hex += digits[byte & 15];
    }
    return hex;
}

Bytes Component(CZulCryptContext& context, VKL_BIGNUM_t* value) {
    C_VKL_BIGNUM_Wrap wrap(value);
    CZulCryptBigNum number(context);
    if (!number.SetNumber(&wrap)) return Bytes();
    return Bytes(number.GetBigNumPacket(), number.GetBigNumPacket() + number.GetLen());
}

struct KeyParts {
    Bytes n, e, d;
};

// The key's modulus and both exponents, read back through a VKL RSA record.
bool ReadKey(CZulCryptContext& context, const CZulCryptRSAKey& key, KeyParts& parts) {
    VKL_t* vkl = context.GetContext()->m_pCtx;
    VKL_RSA_t* record = VKL_RSA_new(vkl);
    if (record == nullptr) return false;
    C_VKL_RSA_Wrap wrap(record);
    key.BuildKeyStruct(&wrap);
    parts.n = Component(context, record->n);
    parts.e = Component(context, record->e);
    parts.d = Component(context, record->d);
    VKL_RSA_free(vkl, record);
    return !parts.n.empty() && !parts.e.empty() && !parts.d.empty();
}

bool Verify(CZulCryptContext& context, const KeyParts& key, Bytes data, Bytes signature) {
    CZulCryptSignature verifier(context);
    return verifier.SetHashAndKey("SHA256", key.n.data(), static_cast<unsigned int>(key.n.size()), key.e.data(),
                                  static_cast<unsigned int>(key.e.size())) &&
           verifier.VerifySignature(data.data(), static_cast<unsigned int>(data.size()), signature.data(),
                                    static_cast<unsigned int>(signature.size()));
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2 && argc != 3) {
        std::cerr << "usage: sign_file <file> [<signature file>]\n";
        return 2;
    }
    const std::string path = argv[1];
    const std::string signaturePath = argc == 3 ? argv[2] : path + ".sig";
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        std::cerr << "cannot read " << path << '\n';
        return 1;
    }
    Bytes data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (data.empty()) {
        std::cerr << "nothing to sign: " << path << " is empty\n";
        return 1;
    }

    CZulCryptContext::SetErrorResponseFn(CollectError);
    CZulCryptContext context;
    if (!context.GetStatus()) {
        std::cerr << "no usable crypto context\n";
        return 1;
    }

    CZulCryptRSAKey key(context);
    key.GenerateKey(2048, 65537);
    KeyParts parts;
    if (key.KeySize() != 256 || !ReadKey(context, key, parts)) {
        std::cerr << "key generation failed\n";
        return 1;
    }
    std::cout << "modulus " << Hex(parts.n) << '\n' << "exponent " << Hex(parts.e) << '\n';

    Bytes signature;
    {
        CZulCryptSignature signer(context);
        unsigned char* out = nullptr;
        unsigned int outLength = 0;
        if (!signer.SetHashAndKey("SHA256", parts.n.data(), static_cast<unsigned int>(parts.n.size()),
                                  parts.d.data(), static_cast<unsigned int>(parts.d.size())) ||
            !signer.GetSignature(data.data(), static_cast<unsigned int>(data.size()), &out, &outLength)) {
            std::cerr << "signing failed\n";
            for (const std::string& report : g_reports) std::cerr << "  " << report << '\n';
            return 1;
        }
        signature.assign(out, out + outLength);
        delete[] out;
    }
    std::cout << "signature " << Hex(signature) << '\n';

    std::ofstream sigFile(signaturePath, std::ios::binary);
    sigFile.write(reinterpret_cast<const char*>(signature.data()), static_cast<std::streamsize>(signature.size()));
    sigFile.close();
    if (!sigFile) {
        std::cerr << "cannot write " << signaturePath << '\n';
        return 1;
    }

    if (!Verify(context, parts, data, signature)) {
        std::cerr << "the signature does not verify\n";
        for (const std::string& report : g_reports) std::cerr << "  " << report << '\n';
        return 1;
    }
    std::cout << "verify: ok\n";

    Bytes changed = data;
    changed.back() ^= 0x01;
    g_reports.clear();
    if (Verify(context, parts, changed, signature)) {
        std::cerr << "a changed file still verifies\n";
        return 1;
    }
    std::cout << "changed file: rejected (" << (g_reports.empty() ? std::string("no report") : g_reports.front())
              << ")\n";
    return 0;
}
