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
    EXPECT_TRUE(cipher.SetType(v.Text("Cipher").c_str(), key.data(), v.Has("KeyLength") ? int(v.Number("KeyLength")) : 0,
                               iv.empty() ? nullptr : iv.data(), int(iv.size()), encrypt));
    EXPECT_TRUE(cipher.SetPadding(v.Has("Padding")));
    Bytes out;
    zultest::InPieces(v.Bytes(encrypt ? "In" : "Out"), pieces, [&](const unsigned char* piece, size_t length) {
        Bytes in(piece, piece + length), buffer(size_t(cipher.GetBufferSize(int(length), encrypt)));
        unsigned char* allocated = nullptr;
        int written = 0;
        EXPECT_TRUE(allocating ? (encrypt ? cipher.EncryptData(in.data(), int(length), &allocated, &written)
                                          : cipher.DecryptData(in.data(), int(length), &allocated, &written))
                               : (encrypt ? cipher.EncryptData(in.data(), int(length), buffer.data(), &written)
                                          : cipher.DecryptData(in.data(), int(length), buffer.data(), &written)));
        const unsigned char* from = allocating ? allocated : buffer.data();
        out.insert(out.end(), from, from + std::max(written, 0));
        std::free(allocated);
    });
    Bytes last(size_t(cipher.GetBlockSize()));
    int written = 0;
    EXPECT_TRUE(encrypt ? cipher.EncryptFinal(last.data(), &written) : cipher.DecryptFinal(last.data(), &written));
    out.insert(out.end(), last.begin(), last.begin() + std::max(written, 0));
    return out;
}

TEST_F(CipherTest, Vectors) {
    const auto cases = zultest::ReadVectors("cipher.vec");
    ASSERT_GT(cases.size(), 20u);
    CZulCryptCipherContext cipher(*context);
    for (const zultest::VectorCase& v : cases) {
        for (const std::vector<size_t>& pieces : {std::vector<size_t>{SIZE_MAX}, {1}, {15}, {17}, {1, 15, 17}}) {
            for (bool allocating : {false, true}) {
                SCOPED_TRACE(v.Where() + " pieces from " + std::to_string(pieces[0]) + (allocating ? " allocating" : ""));
                EXPECT_EQ(zultest::Hex(Through(cipher, v, true, pieces, allocating)), zultest::Hex(v.Bytes("Out")));
                EXPECT_EQ(zultest::Hex(Through(cipher, v, false, pieces, allocating)), zultest::Hex(v.Bytes("In")));
            }
        }
    }
    EXPECT_TRUE(diagnostics->errors.empty());
}

// A text argument as a C string, - for null.
const char* Name(const zultest::Arg& arg, std::string& keep) {
    keep = arg.Text();
    return arg.IsNull() ? nullptr : keep.c_str();
}

// The calls of the cipher scripts on one object. "Encrypt name key keyLength [iv ivLength]"
// (and Decrypt) key it through the five-argument form when an IV is given (- for null),
// the three-argument one otherwise, from copies of the key and IV freed as it returns:
// a later read of either is a use after free under ASan. "EncryptData in [length]" and
// "EncryptAlloc in [length [size]]" give the output (Alloc with size: the whole
// allocated buffer) and its length, Alloc also "buffer" or "NULL" for what it
// allocated; "EncryptFinal [-]" (- for a null output). Decrypt* the same.
zultest::Calls CipherCalls(CZulCryptContext& context) {
    auto c = std::make_shared<CZulCryptCipherContext>(context);
    zultest::Calls calls = {
        {"Padding", [=](const Args& a) { return zultest::Ok(c->SetPadding(a[0].Number() != 0)); }},
        {"KeyLength", [=](const Args& a) { return zultest::Ok(c->SetKeyLength(int(a[0].Number()))); }},
        {"KeySize", [=](const Args&) { return zultest::Number(c->GetKeySize()); }},
        {"BlockSize", [=](const Args&) { return zultest::Number(c->GetBlockSize()); }},
        {"BufferSize", [=](const Args& a) { return zultest::Number(c->GetBufferSize(int(a[0].Number()), a[1].Number())); }},
        {"DefaultKey", [=](const Args& a) { std::string n; return zultest::Number(c->GetDefaultKeyLengthForType(Name(a[0], n))); }},
        {"DefaultBlock", [=](const Args& a) { std::string n; return zultest::Number(c->GetDefaultBlockSizeForType(Name(a[0], n))); }},
        {"DefaultIv", [=](const Args& a) { std::string n; return zultest::Number(c->GetDefaultIvLengthForType(Name(a[0], n))); }},
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
            std::string name;
            const Bytes bytes = a[1].Bytes();
            auto key = std::make_unique<unsigned char[]>(bytes.size());
            std::copy(bytes.begin(), bytes.end(), key.get());
            const int keyLength = int(a[2].Number());
            if (a.size() < 4) {
                return zultest::Ok(encrypt ? c->SetEncryptType(Name(a[0], name), key.get(), keyLength)
                                           : c->SetDecryptType(Name(a[0], name), key.get(), keyLength));
            }
            const Bytes iv = a[3].IsNull() ? Bytes() : a[3].Bytes();
            const unsigned char* ivData = a[3].IsNull() ? nullptr : iv.data();
            return zultest::Ok(encrypt ? c->SetEncryptType(Name(a[0], name), key.get(), keyLength, ivData, int(a[4].Number()))
                                       : c->SetDecryptType(Name(a[0], name), key.get(), keyLength, ivData, int(a[4].Number())));
        };
        for (const bool allocating : {false, true}) {
            calls[way + (allocating ? "Alloc" : "Data")] = [=](const Args& a) {
                Bytes in = a[0].IsNull() ? Bytes() : a[0].Bytes(), out(in.size() + 64);
                unsigned char none = 0;
                unsigned char* data = a[0].IsNull() ? nullptr : in.empty() ? &none : in.data();
                const int length = a.size() > 1 ? int(a[1].Number()) : int(in.size());
                unsigned char* buffer = nullptr;
                int written = -1;
                const bool ok = allocating ? (encrypt ? c->EncryptData(data, length, &buffer, &written)
                                                      : c->DecryptData(data, length, &buffer, &written))
                                           : (encrypt ? c->EncryptData(data, length, out.data(), &written)
                                                      : c->DecryptData(data, length, out.data(), &written));
                const long size = a.size() > 2 ? a[2].Number() : written;
                zultest::Outcome outcome = zultest::Bytes(ok, allocating ? buffer : out.data(), size_t(std::max(size, 0L)));
                outcome.number = written;
                outcome.text = buffer != nullptr ? "buffer" : "NULL";
                std::free(buffer);
                return outcome;
            };
        }
        calls[way + "Final"] = [=](const Args& a) {
            unsigned char out[64];
            int written = -1;
            unsigned char* to = a.empty() ? out : nullptr;
            const bool ok = encrypt ? c->EncryptFinal(to, &written) : c->DecryptFinal(to, &written);
            zultest::Outcome outcome = zultest::Bytes(ok, out, size_t(std::max(written, 0)));
            outcome.number = written;
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
}

#if !defined(__SANITIZE_ADDRESS__)
// Run in a death test's child: with the address space capped at 1 GiB neither
// allocating form gets its 2 GiB buffer. The data is never read.
void AllocateWithoutMemory(CZulCryptCipherContext& cipher) {
    CZulCryptContext::SetErrorResponseFn(nullptr);
    struct rlimit limit = {};
    limit.rlim_cur = limit.rlim_max = rlim_t{1} << 30;
    setrlimit(RLIMIT_AS, &limit);
    unsigned char data[1] = {};
    unsigned char* out = nullptr;
    int written = 0;
    std::exit(!cipher.EncryptData(data, INT_MAX, &out, &written) && !cipher.DecryptData(data, INT_MAX - 1, &out, &written) &&
                      out == nullptr ? 0 : 1);
}
#endif

TEST_F(CipherTest, InsufficientMemoryIsReported) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer's shadow memory needs more address space than the limit leaves";
#else
    CZulCryptCipherContext cipher(*context);
    const Bytes key(16, 1);
    ASSERT_TRUE(cipher.SetEncryptType("RC4", key.data(), 0));
    EXPECT_EXIT(AllocateWithoutMemory(cipher), ::testing::ExitedWithCode(0),
                "DESC:Insufficient memory.*DESC:Insufficient memory");
#endif
}

// What the library never hands VKL: null arguments, and no cipher to start from.
TEST_F(CipherTest, VklRefusesWhatTheLibraryNeverPasses) {
    VKL_EVP_CIPHER_CTX_t* ctx = VKL_EVP_CIPHER_CTX_new(vkl);
    unsigned char buffer[32] = {};
    int length = 0;
    auto queued = [&](long got, long want, const std::string& text) {
        EXPECT_EQ(got, want) << text;
        EXPECT_EQ(zultest::TakeQueue(vkl), text.empty() ? Texts() : Texts{text});
    };
    queued(VKL_EVP_CIPHER_block_size(vkl, nullptr), -1, "");
    queued(VKL_EVP_CIPHER_key_length(vkl, nullptr), -1, "");
    queued(VKL_EVP_CIPHER_iv_length(vkl, nullptr), -1, "");
    queued(VKL_EVP_CIPHER_type(vkl, nullptr), 0, "");
    queued(VKL_EVP_CIPHER_CTX_cipher(vkl, nullptr) == nullptr, 1, "");
    queued(VKL_EVP_CIPHER_CTX_free(vkl, nullptr), 1, "");
    queued(VKL_EVP_CIPHER_CTX_new(nullptr) == nullptr, 1, "VKL_EVP_CIPHER_CTX_new: no VKL context");
    queued(VKL_EVP_CIPHER_CTX_init(vkl, nullptr), 0, "VKL_EVP_CIPHER_CTX_init: no VKL context or cipher context");
    queued(VKL_EVP_CIPHER_CTX_cleanup(nullptr, ctx), 0, "VKL_EVP_CIPHER_CTX_cleanup: no VKL context or cipher context");
    queued(VKL_EVP_EncryptInit(vkl, ctx, nullptr, buffer, buffer), -2, "VKL_EVP_EncryptInit: no cipher given or set");
    queued(VKL_EVP_EncryptUpdate(vkl, nullptr, buffer, &length, buffer, 16), -2,
           "VKL_EVP_EncryptUpdate: no VKL context or cipher context");
    queued(VKL_EVP_DecryptUpdate(vkl, ctx, nullptr, &length, buffer, 16), -2,
           "VKL_EVP_DecryptUpdate: no input, no output or a negative length");
    queued(VKL_EVP_EncryptUpdate(vkl, ctx, buffer, nullptr, buffer, 16), -2,
           "VKL_EVP_EncryptUpdate: no input, no output or a negative length");
    queued(VKL_EVP_EncryptFinal(vkl, ctx, nullptr, &length), -2, "VKL_EVP_EncryptFinal: no output");
    queued(VKL_EVP_DecryptFinal(vkl, ctx, buffer, nullptr), -2, "VKL_EVP_DecryptFinal: no output");
    queued(VKL_EVP_CIPHER_CTX_set_padding(vkl, nullptr, 0), -2,
           "VKL_EVP_CIPHER_CTX_set_padding: no VKL context or cipher context");
    EXPECT_EQ(VKL_EVP_CIPHER_CTX_free(vkl, ctx), 1);
}

}  // namespace
