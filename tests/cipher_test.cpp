// CZulCryptCipherContext: the outside vectors of tests/vectors/cipher.vec in both
// directions, whole and in pieces, on one object reused from case to case; what a
// caller sees besides (refusals, reports, traces, injected VKL faults) is the
// scripts of tests/data/cipher_scripts.vec.
#include <climits>
#include <cstdlib>

#include <sys/resource.h>

#include <gtest/gtest.h>

#include <czulcryptciphercontext.h>
#include <vkl_testing.h>

#include "script.h"
#include "test_support.h"
#include "vector_file.h"

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif

namespace {

using namespace zultest;
using B = std::vector<unsigned char>;
using C = CZulCryptCipherContext;

// Keys c through the three-argument form when there is no IV, else the five-argument one.
bool Key(C& c, bool enc, const char* name, const B& key, int k, const B& iv, int n) {
    if (iv.empty()) return enc ? c.SetEncryptType(name, key.data(), k) : c.SetDecryptType(name, key.data(), k);
    return enc ? c.SetEncryptType(name, key.data(), k, iv.data(), n) : c.SetDecryptType(name, key.data(), k, iv.data(), n);
}

// A piece into a buffer of ours (out) or into one the object allocates (*mine).
bool Piece(C& c, bool enc, B in, int length, unsigned char* out, unsigned char** mine, int* n) {
    if (mine) return enc ? c.EncryptData(in.data(), length, mine, n) : c.DecryptData(in.data(), length, mine, n);
    return enc ? c.EncryptData(in.data(), length, out, n) : c.DecryptData(in.data(), length, out, n);
}

// One direction of a vector on a reused object: whole into buffers of GetBufferSize's
// size after a reset, or in pieces into buffers the object allocates, leaving the
// reset to SetType and giving the IV's length as 0 (the cipher's own).
B Through(C& c, const VectorCase& v, bool enc, bool alloc) {
    const B key = v.Bytes("Key"), iv = v.Has("IV") ? v.Bytes("IV") : B();
    const std::string name = v.Text("Cipher");
    const int k = v.Has("KeyLength") ? int(v.Number("KeyLength")) : 0, n = alloc ? 0 : int(iv.size());
    if (!alloc) c.ResetCipher();
    if (!alloc) { EXPECT_EQ(c.GetKeySize(), -1); }  // the reset dropped the cipher
    EXPECT_TRUE(Key(c, enc, name.c_str(), key, k, iv, n));
    EXPECT_TRUE(c.SetPadding(v.Has("Padding")));
    B out, last(size_t(c.GetBlockSize()));
    InPieces(v.Bytes(enc ? "In" : "Out"), {alloc ? 1 : size_t(-1) /* all */, 15, 17}, [&](const unsigned char* p, size_t size) {
        B buffer(size_t(c.GetBufferSize(int(size), enc)));
        unsigned char* mine = nullptr;
        int got = 0;
        EXPECT_TRUE(Piece(c, enc, B(p, p + size), int(size), buffer.data(), alloc ? &mine : nullptr, &got));
        out.insert(out.end(), alloc ? mine : buffer.data(), (alloc ? mine : buffer.data()) + got);
        std::free(mine);
    });
    int got = 0;
    EXPECT_TRUE(enc ? c.EncryptFinal(last.data(), &got) : c.DecryptFinal(last.data(), &got));
    out.insert(out.end(), last.begin(), last.begin() + got);
    // The defaults by name are the vector's key (unless KeyLength says otherwise) and IV
    // lengths; the keyed context reports the same, its default key size whatever was set.
    if (!v.Has("KeyLength")) { EXPECT_EQ(c.GetDefaultKeyLengthForType(name.c_str()), int(key.size())); }
    if (n != 0) { EXPECT_EQ(c.GetDefaultIvLengthForType(name.c_str()), n); }
    EXPECT_EQ(c.GetKeySize(), c.GetDefaultKeyLengthForType(name.c_str()));
    EXPECT_EQ(c.GetBlockSize(), c.GetDefaultBlockSizeForType(name.c_str()));
    return out;
}

class CipherTest : public ContextTest {};

TEST_F(CipherTest, Vectors) {
    C cipher(*context);
    for (const VectorCase& v : ReadVectors("cipher.vec")) {
        for (bool alloc : {false, true}) {
            SCOPED_TRACE(v.Where() + (alloc ? " in pieces" : ""));
            EXPECT_EQ(Hex(Through(cipher, v, true, alloc)), Hex(v.Bytes("Out")));
            EXPECT_EQ(Hex(Through(cipher, v, false, alloc)), Hex(v.Bytes("In")));
        }
    }
}

// The script calls on one object. "Encrypt name|- key keyLength [iv]" uses the
// five-argument form when an IV is given; "EncryptData in [length]" writes into a
// buffer of ours, EncryptAlloc into the object's (freed as the caller would, whatever
// the outcome: a buffer the object freed itself fails there); "EncryptFinal -" passes
// a null output. Decrypt* the same.
Calls CipherCalls(CZulCryptContext& context) {
    auto c = std::make_shared<C>(context);
    Calls calls = {
        {"Padding", [=](auto& a) { return Ok(c->SetPadding(a[0].Number() != 0)); }},
        {"KeyLength", [=](auto& a) { return Ok(c->SetKeyLength(int(a[0].Number()))); }},
        {"KeySize", [=](auto&) { return Number(c->GetKeySize()); }},
        {"BlockSize", [=](auto&) { return Number(c->GetBlockSize()); }},
        {"BufferSize", [=](auto& a) { return Number(c->GetBufferSize(int(a[0].Number()), a[1].raw == "1")); }},
        {"DefaultBlock", [=](auto& a) { return Number(c->GetDefaultBlockSizeForType(a[0].Text().c_str())); }},
        {"Type", [=](auto&) { return Text(c->GetType()); }},
        {"Reset", [=](auto&) { c->ResetCipher(); return Ok(true); }},
        {"Initialise", [=](auto&) { c->Initialise(); return Ok(true); }},
    };
    for (const bool enc : {true, false}) {
        const std::string way = enc ? "Encrypt" : "Decrypt";
        calls[way] = [=](auto& a) {
            const B iv = a.size() > 3 ? a[3].Bytes() : B();
            return Ok(Key(*c, enc, a[0].IsNull() ? nullptr : a[0].Text().c_str(), a[1].Bytes(), int(a[2].Number()), iv, int(iv.size())));
        };
        for (const bool alloc : {false, true}) {
            calls[way + (alloc ? "Alloc" : "Data")] = [=](auto& a) {
                unsigned char out[64], *mine = nullptr;
                const B in = a[0].Bytes();
                int n = 0;
                const bool ok = Piece(*c, enc, in, a.size() > 1 ? int(a[1].Number()) : int(in.size()), out, alloc ? &mine : nullptr, &n);
                const Outcome outcome = Bytes(ok, alloc ? mine : out, size_t(n));
                std::free(mine);
                return outcome;
            };
        }
        calls[way + "Final"] = [=](auto& a) {
            unsigned char out[64], *to = a.empty() ? out : nullptr;
            int n = 0;
            return Bytes(enc ? c->EncryptFinal(to, &n) : c->DecryptFinal(to, &n), out, size_t(n));
        };
    }
    return calls;
}

TEST_F(CipherTest, Scripts) { RunScripts("cipher_scripts.vec", CipherCalls); }

// An injected free does none of its work, so the VKL context is lost on purpose:
// the leak checkers are told not to count it (see valgrind.supp).
TEST_F(CipherTest, FailedReleaseIsReported) {
#ifdef __SANITIZE_ADDRESS__
    __lsan::ScopedDisabler lost;
#endif
    auto leaking = std::make_unique<C>(*context);
    VKLTest_FailCall("VKL_EVP_CIPHER_CTX_free", 0, 1, 0);
    leaking.reset();
    EXPECT_EQ(diagnostics->TakeErrors("czulcryptciphercontext"), std::vector<std::string>{"VKL_EVP_CIPHER_CTX_free: injected failure"});
    liveObjects += 1;
}

// A child capped at 1 GiB of address space gets no 2 GiB buffer in either allocating
// form, and each says so; the data is never read.
TEST_F(CipherTest, InsufficientMemoryIsReported) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "ASan's shadow memory needs more address space than the cap leaves";
#endif
    C c(*context);
    unsigned char data[16] = {}, *out = nullptr;
    int n = 0;
    const rlimit cap = {1 << 30, 1 << 30};
    ASSERT_TRUE(c.SetEncryptType("RC4", data, 0));
    EXPECT_EXIT((CZulCryptContext::SetErrorResponseFn(nullptr), setrlimit(RLIMIT_AS, &cap),
                 std::exit(c.EncryptData(data, INT_MAX, &out, &n) || c.DecryptData(data, INT_MAX - 1, &out, &n) || out)),
                ::testing::ExitedWithCode(0), "DESC:Insufficient memory.*DESC:Insufficient memory");
}

}  // namespace
