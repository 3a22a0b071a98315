// The cipher vectors of tests/data/cipher.vec, run through every path that
// encrypts and decrypts: each case in both directions, in one piece and split
// at awkward boundaries, on one object reused from case to case.
#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <czulcryptciphercontext.h>
#include <czulcryptcontext.h>
#include <vkl.h>

#include "test_support.h"
#include "vector_file.h"

namespace {

using Bytes = std::vector<unsigned char>;
using zultest::VectorCase;

// One way through the library: start a message, feed pieces, finish.
class CipherPath {
public:
    virtual ~CipherPath() = default;
    virtual bool Start(const VectorCase& vector, bool encrypt) = 0;
    virtual bool Piece(const unsigned char* in, int length, Bytes& out) = 0;
    virtual bool Finish(Bytes& out) = 0;
    // The text of the latest failure.
    virtual std::string Failure() = 0;
};

int KeyLength(const VectorCase& vector) {
    return vector.Has("KeyLength") ? static_cast<int>(vector.Number("KeyLength")) : 0;
}

// VKL's functions directly. A non-default key length takes OpenSSL's order:
// cipher first, then the length, then the key.
class VklPath : public CipherPath {
public:
    explicit VklPath(VKL_t* vkl) : m_vkl(vkl), m_ctx(VKL_EVP_CIPHER_CTX_new(vkl)) {}
    ~VklPath() override { VKL_EVP_CIPHER_CTX_free(m_vkl, m_ctx); }

    bool Start(const VectorCase& vector, bool encrypt) override {
        m_encrypt = encrypt;
        auto init = encrypt ? VKL_EVP_EncryptInit : VKL_EVP_DecryptInit;
        const VKL_EVP_CIPHER_t* cipher = VKL_EVP_get_cipherbyname(m_vkl, vector.Text("Cipher").c_str());
        if (cipher == nullptr || VKL_EVP_CIPHER_CTX_cleanup(m_vkl, m_ctx) != 1 ||
            VKL_EVP_CIPHER_CTX_init(m_vkl, m_ctx) != 1)
            return false;
        Bytes key = vector.Bytes("Key");
        Bytes iv = vector.Has("IV") ? vector.Bytes("IV") : Bytes(16, 0);
        m_block = VKL_EVP_CIPHER_block_size(m_vkl, cipher);
        if (KeyLength(vector) != 0) {
            if (init(m_vkl, m_ctx, cipher, nullptr, nullptr) != 1 ||
                VKL_EVP_CIPHER_CTX_set_key_length(m_vkl, m_ctx, KeyLength(vector)) != 1 ||
                init(m_vkl, m_ctx, nullptr, key.data(), iv.data()) != 1)
                return false;
        } else if (init(m_vkl, m_ctx, cipher, key.data(), iv.data()) != 1) {
            return false;
        }
        int padding = vector.Has("Padding") ? static_cast<int>(vector.Number("Padding")) : 0;
        return VKL_EVP_CIPHER_CTX_set_padding(m_vkl, m_ctx, padding) == 1;
    }
    bool Piece(const unsigned char* in, int length, Bytes& out) override {
        Bytes buffer(static_cast<size_t>(length + m_block));
        int written = -1;
        int ok = m_encrypt ? VKL_EVP_EncryptUpdate(m_vkl, m_ctx, buffer.data(), &written, in, length)
                           : VKL_EVP_DecryptUpdate(m_vkl, m_ctx, buffer.data(), &written, in, length);
        if (ok != 1) return false;
        out.insert(out.end(), buffer.begin(), buffer.begin() + written);
        return true;
    }
    bool Finish(Bytes& out) override {
        Bytes buffer(static_cast<size_t>(m_block));
        int written = -1;
        int ok = m_encrypt ? VKL_EVP_EncryptFinal(m_vkl, m_ctx, buffer.data(), &written)
                           : VKL_EVP_DecryptFinal(m_vkl, m_ctx, buffer.data(), &written);
        if (ok != 1) return false;
        out.insert(out.end(), buffer.begin(), buffer.begin() + written);
        return true;
    }
    std::string Failure() override {
        char text[512] = "";
        VKL_ERR_error_string_n(m_vkl, VKL_ERR_get_error(m_vkl), text, sizeof text);
        while (VKL_ERR_get_error(m_vkl) != 0) {
        }
        return text;
    }

private:
    VKL_t* m_vkl;
    VKL_EVP_CIPHER_CTX_t* m_ctx;
    bool m_encrypt = true;
    int m_block = 1;
};

// The cipher object, reset and keyed again for every message: into the
// caller's buffers, or (oneShot) into buffers it allocates for every piece.
class ObjectPath : public CipherPath {
public:
    ObjectPath(CZulCryptContext& context, zultest::Diagnostics& diagnostics, bool oneShot)
        : m_cipher(context), m_diagnostics(diagnostics), m_oneShot(oneShot) {}

    bool Start(const VectorCase& vector, bool encrypt) override {
        m_encrypt = encrypt;
        m_diagnostics.Clear();
        m_cipher.ResetCipher();
        std::string name = vector.Text("Cipher");
        // The key buffer holds at least the cipher's default length, as SetType reads that much.
        Bytes key = vector.Bytes("Key");
        key.resize(std::max<size_t>(key.size(), static_cast<size_t>(m_cipher.GetDefaultKeyLengthForType(name.c_str()))));
        Bytes iv = vector.Has("IV") ? vector.Bytes("IV") : Bytes();
        const unsigned char* ivData = iv.empty() ? nullptr : iv.data();
        bool keyed = encrypt ? m_cipher.SetEncryptType(name.c_str(), key.data(), KeyLength(vector), ivData,
                                                       static_cast<int>(iv.size()))
                             : m_cipher.SetDecryptType(name.c_str(), key.data(), KeyLength(vector), ivData,
                                                       static_cast<int>(iv.size()));
        bool padding = vector.Has("Padding") && vector.Number("Padding") != 0;
        return keyed && m_cipher.SetPadding(padding);
    }
    bool Piece(const unsigned char* in, int length, Bytes& out) override {
        Bytes input(in, in + length);  // the object takes its input as non-const
        int written = -1;
        if (m_oneShot) {
            unsigned char* buffer = nullptr;
            bool done = m_encrypt ? m_cipher.EncryptData(input.data(), length, &buffer, &written)
                                  : m_cipher.DecryptData(input.data(), length, &buffer, &written);
            if (done) out.insert(out.end(), buffer, buffer + written);
            std::free(buffer);
            return done;
        }
        Bytes buffer(static_cast<size_t>(m_cipher.GetBufferSize(length, m_encrypt)));
        bool done = m_encrypt ? m_cipher.EncryptData(input.data(), length, buffer.data(), &written)
                              : m_cipher.DecryptData(input.data(), length, buffer.data(), &written);
        if (done) out.insert(out.end(), buffer.begin(), buffer.begin() + written);
        return done;
    }
    bool Finish(Bytes& out) override {
        Bytes buffer(static_cast<size_t>(m_cipher.GetBlockSize()));
        int written = -1;
        bool done = m_encrypt ? m_cipher.EncryptFinal(buffer.data(), &written)
                              : m_cipher.DecryptFinal(buffer.data(), &written);
        if (done) out.insert(out.end(), buffer.begin(), buffer.begin() + written);
        return done;
    }
    std::string Failure() override {
        return m_diagnostics.errors.empty() ? std::string() : m_diagnostics.errors.back().text;
    }

private:
    CZulCryptCipherContext m_cipher;
    zultest::Diagnostics& m_diagnostics;
    bool m_oneShot;
    bool m_encrypt = true;
};

// Runs `in` through the path in pieces of the given sizes (cycling; empty: one piece).
bool Run(CipherPath& path, const VectorCase& vector, bool encrypt, const Bytes& in, const std::vector<int>& pieces,
         Bytes& out) {
    out.clear();
    if (!path.Start(vector, encrypt)) return false;
    size_t at = 0;
    for (size_t i = 0; at < in.size(); ++i) {
        size_t length = pieces.empty() ? in.size() : std::min<size_t>(pieces[i % pieces.size()], in.size() - at);
        if (!path.Piece(in.data() + at, static_cast<int>(length), out)) return false;
        at += length;
    }
    return path.Finish(out);
}

void CheckVectors(CipherPath& path) {
    const std::vector<std::vector<int>> splits = {{}, {1}, {15}, {17}, {1, 15, 17}};
    std::vector<VectorCase> cases = zultest::ReadVectors("cipher.vec");
    ASSERT_GT(cases.size(), 20u);
    for (const VectorCase& vector : cases) {
        for (const std::vector<int>& split : splits) {
            SCOPED_TRACE(vector.Where() + " split " + std::to_string(split.empty() ? 0 : split[0]));
            Bytes out;
            if (vector.Has("Error")) {
                bool encrypt = vector.Text("Operation") == "Encrypt";
                EXPECT_FALSE(Run(path, vector, encrypt, vector.Bytes("In"), split, out));
                EXPECT_EQ(path.Failure(), vector.Text("Error"));
                continue;
            }
            ASSERT_TRUE(Run(path, vector, true, vector.Bytes("In"), split, out)) << path.Failure();
            EXPECT_EQ(zultest::Hex(out), zultest::Hex(vector.Bytes("Out")));
            ASSERT_TRUE(Run(path, vector, false, vector.Bytes("Out"), split, out)) << path.Failure();
            EXPECT_EQ(zultest::Hex(out), zultest::Hex(vector.Bytes("In")));
        }
    }
}

class CipherVectorTest : public zultest::ContextTest {};

TEST_F(CipherVectorTest, ThroughVkl) {
    VklPath path(context->GetContext()->m_pCtx);
    CheckVectors(path);
}

TEST_F(CipherVectorTest, ThroughCipherContextStreaming) {
    ObjectPath path(*context, *diagnostics, false);
    CheckVectors(path);
}

TEST_F(CipherVectorTest, ThroughCipherContextOneShot) {
    ObjectPath path(*context, *diagnostics, true);
    CheckVectors(path);
}

}  // namespace
