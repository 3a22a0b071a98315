// Two parties agree on a secret by Diffie-Hellman over the 2048-bit MODP group
// 14 (RFC 3526): each makes a key pair, they swap public values, and each
// computes the shared secret from the other's. The secret itself is never
// shown or compared: each side proves it holds the same one by a key
// confirmation value, HMAC-SHA-256 of a fixed label under the secret, which
// is safe to send and to compare.
//
// usage: dh_agree
// Prints the public values' sizes and the secret's; exits 0 when the two
// parties agree, 1 otherwise.
#include <iostream>
#include <memory>
#include <vector>

#include <czulcryptbignum.h>
#include <czulcryptcontext.h>
#include <czulcryptdh.h>
#include <czulcrypthmac.h>

namespace {

using Bytes = std::vector<unsigned char>;

// The party's secret with the peer's public value, reduced to its confirmation value; empty on failure.
Bytes Confirm(CZulCryptContext& context, CZulCryptDH& self, CZulCryptBigNum& peerPublic) {
    self.ComputeSharedSecret(&peerPublic);
    int length = 0;
    unsigned char* secret = self.GetSharedSecret(length);
    if (!self.GetStatus() || secret == nullptr) return Bytes();
    CZulCryptHMAC hmac(context, "SHA256", secret, static_cast<unsigned int>(length));
    unsigned char label[] = "dh_agree key confirmation";
    Bytes value(32);
    unsigned int valueLength = 0;
    if (!hmac.GetHMAC(label, sizeof label - 1, value.data(), &valueLength)) return Bytes();
    value.resize(valueLength);
    return value;
}

}  // namespace

int main() {
    CZulCryptContext context;
    CZulCryptDH alice(context);
    CZulCryptDH bob(context);
    if (!context.GetStatus() || !alice.SetOakleyGroup14() || !bob.SetOakleyGroup14()) {
        std::cerr << "no usable Diffie-Hellman group\n";
        return 1;
    }
    // What each party sends the other.
    std::unique_ptr<CZulCryptBigNum> alicePublic(alice.GetPublicKey());
    std::unique_ptr<CZulCryptBigNum> bobPublic(bob.GetPublicKey());
    if (!alicePublic || !bobPublic) {
        std::cerr << "no key pair\n";
        return 1;
    }
    std::cout << "public values: " << alicePublic->GetLen() << " and " << bobPublic->GetLen() << " bytes\n";

    const Bytes aliceConfirms = Confirm(context, alice, *bobPublic);
    const Bytes bobConfirms = Confirm(context, bob, *alicePublic);
    if (aliceConfirms.empty() || aliceConfirms != bobConfirms) {
        std::cerr << "the parties do not agree\n";
        return 1;
    }
    std::cout << "confirmation values equal (" << aliceConfirms.size() << " bytes each)\n"
              << "agreed on a " << alice.GetSize() << "-byte secret\n";
    return 0;
}
