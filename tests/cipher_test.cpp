// CZulCryptCipherContext: the vectors of tests/data/cipher.vec in both directions,
// streamed in pieces and piece by piece into buffers it allocates, on one object
// reused from case to case; traces, refusals, key lengths and every VKL failure
// are the scripts of tests/data/cipher_scripts.vec and cipher_faults.vec.
#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <sys/resource.h>

#include <gtest/gtest.h>

#include <czulcryptciphercontext.h>
#include <vkl.h>
#include <vkl_testing.h>

#include "script.h"
#include "test_support.h"
#include "vector_file.h"

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif

namespace {

using Bytes = std::vector<unsigned char>;
using Texts = std::vector<std::string>;
using zultest::Args;

class CipherTest : public zultest::ContextTest {};

// One direction of a vector fed in pieces of the given sizes: into buffers of
// GetBufferSize's size, or into the buffers the object allocates per piece.
Bytes Through(CZulCryptCipherContext& cipher, const zultest::VectorCase& v, bool encrypt,
              const std::vector<size_t>& pieces, bool allocating) {
    const Bytes key = v.Bytes("Key"), iv = v.Has("IV") ? v.Bytes("IV") : Bytes();
    cipher.ResetCipher();
    EXPECT_TRUE(cipher.SetType(v.Text("Cipher").c_str(), key.data(), v.Has("KeyLength") ? v.Number("KeyLength") : 0,
                               iv.empty() ? nullptr : iv.data(), int(iv.size()), encrypt));
    EXPECT_TRUE(cipher.SetPadding(v.Has("Padding")));
    Bytes out;
    zultest::InPieces(v.Bytes(encrypt ? "In" : "Out"), pieces, [&](const unsigned char* piece, size_t length) {
        Bytes in(piece, piece + length), buffer(size_t(cipher.GetBufferSize(int(length), encrypt)));
        unsigned char* allocated = nullptr;
        int n = 0;
        EXPECT_TRUE(!allocating ? cipher.AddData(in.data(), int(length), buffer.data(), &n, encrypt)
                    : encrypt   ? cipher.EncryptData(in.data(), int(length), &allocated, &n)
                                : cipher.DecryptData(in.data(), int(length), &allocated, &n));
        const unsigned char* from = allocating ? allocated : buffer.data();
        out.insert(out.end(), from, from + std::max(n, 0));
        std::free(allocated);
    });
    Bytes last(size_t(cipher.GetBlockSize()));
    int n = 0;
    EXPECT_TRUE(encrypt ? cipher.EncryptFinal(last.data(), &n) : cipher.DecryptFinal(last.data(), &n));
    out.insert(out.end(), last.begin(), last.begin() + std::max(n, 0));
    return out;
}

TEST_F(CipherTest, Vectors) {
    const auto cases = zultest::ReadVectors("cipher.vec");
    ASSERT_GT(cases.size(), 20u);
    CZulCryptCipherContext cipher(*context);
    for (const zultest::VectorCase& v : cases) {
        for (const std::vector<size_t>& pieces : {std::vector<size_t>{SIZE_MAX}, {1}, {15}, {17}, {1, 15, 17}}) {
            for (bool allocating : {false, true}) {
                SCOPED_TRACE(v.Where() + " pieces of " + std::to_string(pieces[0]) + (allocating ? ", allocated" : ""));
                EXPECT_EQ(zultest::Hex(Through(cipher, v, true, pieces, allocating)), zultest::Hex(v.Bytes("Out")));
                EXPECT_EQ(zultest::Hex(Through(cipher, v, false, pieces, allocating)), zultest::Hex(v.Bytes("In")));
            }
        }
    }
    EXPECT_TRUE(diagnostics->errors.empty());
}

// The calls of the cipher scripts on one object. "Encrypt name key keyLength [iv ivLength]"
// (and Decrypt) key it through the five-argument form when an IV is given (- for null),
// the three-argument one otherwise, from copies of key and IV freed as it returns: a
// later read of either is a use after free under ASan. "EncryptData in [length]" and
// "EncryptAlloc in [length [size]]" give the output (Alloc with a size: that much of
// its buffer) and the length written, Alloc "buffer" or "NULL" for what it allocated;
// "EncryptFinal [-]" (- for a null output). Decrypt* the same.
zultest::Calls CipherCalls(CZulCryptContext& context) {
    auto c = std::make_shared<CZulCryptCipherContext>(context);
    auto query = [=](int (CZulCryptCipherContext::*size)(const char*)) {
        return [=](const Args& a) {
            const std::string name = a[0].Text();
            return zultest::Number(((*c).*size)(a[0].IsNull() ? nullptr : name.c_str()));
        };
    };
    zultest::Calls calls = {
        {"Padding", [=](const Args& a) { return zultest::Ok(c->SetPadding(a[0].Number() != 0)); }},
        {"KeyLength", [=](const Args& a) { return zultest::Ok(c->SetKeyLength(int(a[0].Number()))); }},
        {"KeySize", [=](const Args&) { return zultest::Number(c->GetKeySize()); }},
        {"BlockSize", [=](const Args&) { return zultest::Number(c->GetBlockSize()); }},
        {"BufferSize",
         [=](const Args& a) { return zultest::Number(c->GetBufferSize(int(a[0].Number()), a[1].raw == "1")); }},
        {"DefaultKey", query(&CZulCryptCipherContext::GetDefaultKeyLengthForType)},
        {"DefaultBlock", query(&CZulCryptCipherContext::GetDefaultBlockSizeForType)},
        {"DefaultIv", query(&CZulCryptCipherContext::GetDefaultIvLengthForType)},
        {"Type", [=](const Args&) { return zultest::Text(c->GetType()); }},
        {"Status", [=](const Args&) { return zultest::Ok(c->GetStatus()); }},
        {"Reset", [=](const Args&) { c->ResetCipher(); return zultest::Ok(true); }},
        {"Initialise", [=](const Args&) { c->Initialise(); return zultest::Ok(true); }},
        // GetBufferSize 10 with no trace callback: what the log level lets through to stdout.
        {"Printed",
         [=](const Args&) {
             CZulCryptContext::SetDebugResponseFn(nullptr);
             testing::internal::CaptureStdout();
             c->GetBufferSize(10, true);
             CZulCryptContext::SetLogLevel(0);  // the destructor's traces are not the case's
             return zultest::Text(testing::internal::GetCapturedStdout().c_str());
         }},
    };
    for (const bool encrypt : {true, false}) {
        const std::string way = encrypt ? "Encrypt" : "Decrypt";
        calls[way] = [=](const Args& a) {
            const std::string text = a[0].Text();
            const char* name = a[0].IsNull() ? nullptr : text.c_str();
            const Bytes bytes = a[1].Bytes(), iv = a.size() > 3 && !a[3].IsNull() ? a[3].Bytes() : Bytes();
            auto key = std::make_unique<unsigned char[]>(bytes.size());
            std::copy(bytes.begin(), bytes.end(), key.get());
            const int length = int(a[2].Number()), ivLength = a.size() > 3 ? int(a[4].Number()) : 0;
            const unsigned char* ivData = iv.empty() ? nullptr : iv.data();
            if (a.size() < 4) {
                return zultest::Ok(encrypt ? c->SetEncryptType(name, key.get(), length)
                                           : c->SetDecryptType(name, key.get(), length));
            }
            return zultest::Ok(encrypt ? c->SetEncryptType(name, key.get(), length, ivData, ivLength)
                                       : c->SetDecryptType(name, key.get(), length, ivData, ivLength));
        };
        for (const bool allocating : {false, true}) {
            calls[way + (allocating ? "Alloc" : "Data")] = [=](const Args& a) {
                Bytes in = a[0].IsNull() ? Bytes() : a[0].Bytes(), out(in.size() + 64);  // "" points into out
                unsigned char* data = a[0].IsNull() ? nullptr : in.empty() ? out.data() : in.data();
                const int length = a.size() > 1 ? int(a[1].Number()) : int(in.size());
                unsigned char* buffer = nullptr;
                int n = -1;
                const bool ok = allocating ? (encrypt ? c->EncryptData(data, length, &buffer, &n)
                                                      : c->DecryptData(data, length, &buffer, &n))
                                           : (encrypt ? c->EncryptData(data, length, out.data(), &n)
                                                      : c->DecryptData(data, length, out.data(), &n));
                const long size = a.size() > 2 ? a[2].Number() : n;
                auto outcome = zultest::Bytes(ok, allocating ? buffer : out.data(), size_t(std::max(size, 0L)));
                outcome.number = n;
                outcome.text = buffer != nullptr ? "buffer" : "NULL";
                std::free(buffer);
                return outcome;
            };
        }
        calls[way + "Final"] = [=](const Args& a) {
            unsigned char out[64];
            int n = -1;
            const bool ok = encrypt ? c->EncryptFinal(a.empty() ? out : nullptr, &n)
                                    : c->DecryptFinal(a.empty() ? out : nullptr, &n);
            zultest::Outcome outcome = zultest::Bytes(ok, out, size_t(std::max(n, 0)));
            outcome.number = n;
            return outcome;
        };
    }
    return calls;
}

TEST_F(CipherTest, Scripts) { zultest::RunScripts("cipher_scripts.vec", CipherCalls); }

TEST_F(CipherTest, Faults) { zultest::RunScripts("cipher_faults.vec", CipherCalls); }

// An injected free does none of its work, so the object's VKL context is lost on
// purpose: the leak checkers are told not to count it (see valgrind.supp).
TEST_F(CipherTest, FailedReleaseIsReported) {
#ifdef __SANITIZE_ADDRESS__
    __lsan_disable();
#endif
    auto leaking = std::make_unique<CZulCryptCipherContext>(*context);
#ifdef __SANITIZE_ADDRESS__
    __lsan_enable();
#endif
    VKLTest_FailCall("VKL_EVP_CIPHER_CTX_free", 0, 1, 0);
    leaking.reset();
    EXPECT_EQ(diagnostics->TakeErrors("czulcryptciphercontext"), Texts{"VKL_EVP_CIPHER_CTX_free: injected failure"});
    liveObjects += 1;
}

// In a death test's child with the address space capped at 1 GiB, neither
// allocating form gets its 2 GiB buffer; each says so. The data is never read.
TEST_F(CipherTest, InsufficientMemoryIsReported) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer's shadow memory needs more address space than the limit leaves";
#else
    CZulCryptCipherContext cipher(*context);
    unsigned char data[16] = {};
    ASSERT_TRUE(cipher.SetEncryptType("RC4", data, 0));
    auto child = [&] {
        CZulCryptContext::SetErrorResponseFn(nullptr);
        const struct rlimit limit = {rlim_t{1} << 30, rlim_t{1} << 30};
        setrlimit(RLIMIT_AS, &limit);
        unsigned char* out = nullptr;
        int n = 0;
        const bool encrypted = cipher.EncryptData(data, INT_MAX, &out, &n);
        std::exit(!encrypted && !cipher.DecryptData(data, INT_MAX - 1, &out, &n) && out == nullptr ? 0 : 1);
    };
    EXPECT_EXIT(child(), ::testing::ExitedWithCode(0), "DESC:Insufficient memory.*DESC:Insufficient memory");
#endif
}

// What the library never asks of VKL: null arguments, a context without a cipher,
// VKL's result codes themselves (the library tells only 1 from the rest), and
// the refusals of a keyed RC4 context (OpenSSL's texts: "openssl errstr").
TEST_F(CipherTest, VklAnswersWhatTheLibraryNeverAsks) {
    VKL_EVP_CIPHER_CTX_t* ctx = VKL_EVP_CIPHER_CTX_new(vkl);
    unsigned char b[32] = {};
    int n = 0;
    auto queued = [&](long got, long want, const std::string& text) {
        EXPECT_EQ(got, want) << text;
        EXPECT_EQ(zultest::TakeQueue(vkl), text.empty() ? Texts() : Texts{text});
    };
    const std::string noContext = ": no VKL context or cipher context", setLength = "VKL_EVP_CIPHER_CTX_set_key_length";
    const std::string noData = ": no input, no output or a negative length";
    const std::string invalid = "error:03000094:digital envelope routines::invalid operation";
    queued(VKL_EVP_CIPHER_block_size(vkl, nullptr), -1, "");
    queued(VKL_EVP_CIPHER_key_length(vkl, nullptr), -1, "");
    queued(VKL_EVP_CIPHER_iv_length(vkl, nullptr), -1, "");
    queued(VKL_EVP_CIPHER_type(vkl, nullptr), 0, "");
    queued(VKL_EVP_CIPHER_CTX_cipher(vkl, nullptr) == nullptr, 1, "");
    queued(VKL_EVP_CIPHER_CTX_free(vkl, nullptr), 1, "");
    queued(VKL_EVP_CIPHER_CTX_new(nullptr) == nullptr, 1, "VKL_EVP_CIPHER_CTX_new: no VKL context");
    queued(VKL_EVP_CIPHER_CTX_init(vkl, nullptr), 0, "VKL_EVP_CIPHER_CTX_init" + noContext);
    queued(VKL_EVP_CIPHER_CTX_cleanup(nullptr, ctx), 0, "VKL_EVP_CIPHER_CTX_cleanup" + noContext);
    queued(VKL_EVP_CIPHER_CTX_init(vkl, ctx) + VKL_EVP_CIPHER_CTX_cleanup(vkl, ctx), 2, "");
    queued(VKL_EVP_EncryptInit(vkl, nullptr, nullptr, b, b), -2, "VKL_EVP_EncryptInit" + noContext);
    queued(VKL_EVP_EncryptInit(vkl, ctx, nullptr, b, b), -2, "VKL_EVP_EncryptInit: no cipher given or set");
    queued(VKL_EVP_CIPHER_CTX_set_key_length(vkl, nullptr, 8), -2, setLength + noContext);
    queued(VKL_EVP_CIPHER_CTX_set_key_length(vkl, ctx, 8), -2, setLength + ": no cipher set");
    queued(VKL_EVP_CIPHER_CTX_set_padding(vkl, nullptr, 0), -2, "VKL_EVP_CIPHER_CTX_set_padding" + noContext);
    queued(VKL_EVP_EncryptUpdate(vkl, nullptr, b, &n, b, 16), -2, "VKL_EVP_EncryptUpdate" + noContext);
    queued(VKL_EVP_DecryptUpdate(vkl, ctx, nullptr, &n, b, 16), -2, "VKL_EVP_DecryptUpdate" + noData);
    queued(VKL_EVP_EncryptFinal(vkl, nullptr, b, &n), -2, "VKL_EVP_EncryptFinal" + noContext);
    queued(VKL_EVP_EncryptFinal(vkl, ctx, nullptr, &n), -2, "VKL_EVP_EncryptFinal: no output");
    queued(VKL_EVP_EncryptInit(vkl, ctx, VKL_EVP_get_cipherbyname(vkl, "RC4"), b, nullptr), 1, "");
    queued(VKL_EVP_CIPHER_CTX_set_key_length(vkl, ctx, 0), -2, setLength + ": invalid key length for the cipher");
    queued(VKL_EVP_EncryptInit(vkl, ctx, nullptr, nullptr, nullptr), 1, "");  // keeps its copy of the key
    queued(VKL_EVP_CIPHER_CTX_set_key_length(vkl, ctx, 17), -2,
           setLength + ": 17 bytes asked, but the init read 16 of the key; set the length before the init that "
                       "brings the key");
    queued(VKL_EVP_EncryptUpdate(vkl, ctx, b, &n, b, 0), 1, "");
    queued(VKL_EVP_DecryptUpdate(vkl, ctx, b, &n, b, 1), -2, invalid);
    queued(VKL_EVP_DecryptFinal(vkl, ctx, b, &n), -2, invalid);
    queued(VKL_EVP_EncryptInit(vkl, ctx, VKL_EVP_get_cipherbyname(vkl, "RC4"), nullptr, nullptr), 1, "");
    queued(VKL_EVP_CIPHER_CTX_set_key_length(vkl, ctx, 32), 1, "");  // a new cipher forgot the key
    EXPECT_EQ(VKL_EVP_CIPHER_CTX_free(vkl, ctx), 1);
}

}  // namespace
