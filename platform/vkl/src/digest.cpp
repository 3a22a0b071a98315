// Message digests of the VKL stand-in, over digests fetched once per context.
#include <cstring>
#include <new>
#include <string>

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/objects.h>

#include "errors.h"
#include "memory.h"
#include "probe.h"
#include "vkl_context.h"

namespace vkl {
namespace {

// Room for small updates gathered before they reach OpenSSL. Callers such as
// the SNMPv3 password-to-key feed 64-byte pieces by the thousand; one provider
// call per piece would cost several times the hashing itself.
constexpr size_t kStagingRoom = 4096;

}  // namespace
}  // namespace vkl

struct VKL_EVP_MD_CTX_s {
    vkl::MdCtxPtr ctx;
    // The digest of the hash in progress; null before an init and after a final.
    const VKL_EVP_MD_s* md = nullptr;
    // Bytes not yet handed to OpenSSL. The capacity is a whole number of the
    // digest's blocks, so a flush never leaves OpenSSL a partial block to copy.
    size_t staged = 0;
    size_t capacity = 0;
    // How far the staging area holds bytes of this hash: wiped once when the
    // hash ends rather than on every flush, which would cost as much again as
    // gathering the pieces.
    size_t touched = 0;
    unsigned char staging[vkl::kStagingRoom];
    vkl::Live live;
};

namespace vkl {
namespace {

// The staging area may hold key material (HMAC pads, SNMPv3 passwords).
void Forget(VKL_EVP_MD_CTX_s* ctx) {
    OPENSSL_cleanse(ctx->staging, ctx->staged > ctx->touched ? ctx->staged : ctx->touched);
    ctx->staged = 0;
    ctx->touched = 0;
    ctx->md = nullptr;
}

bool Flush(VKL_EVP_MD_CTX_s* ctx, const char* function) {
    if (ctx->staged == 0) return true;
    bool ok = EVP_DigestUpdate(ctx->ctx.get(), ctx->staging, ctx->staged) == 1;
    if (ctx->staged > ctx->touched) ctx->touched = ctx->staged;
    ctx->staged = 0;
    if (!ok) QueueErrorIfEmpty(function, "hashing failed");
    return ok;
}

bool HaveContext(VKL_t* vkl, const VKL_EVP_MD_CTX_s* ctx, const char* function) {
    if (vkl == nullptr || ctx == nullptr) {
        QueueError(std::string(function) + ": no VKL context or digest context");
        return false;
    }
    return true;
}

bool HaveHash(VKL_t* vkl, const VKL_EVP_MD_CTX_s* ctx, const char* function) {
    if (!HaveContext(vkl, ctx, function)) return false;
    if (ctx->md == nullptr) {
        QueueError(std::string(function) + ": no digest in progress");
        return false;
    }
    return true;
}

// Copies a piece into the staging area when it fits with room to spare; false, having
// done nothing, for anything else.
inline bool Stage(VKL_t* vkl, VKL_EVP_MD_CTX_s* ctx, const void* data, size_t length) {
    if (vkl == nullptr || ctx == nullptr || ctx->md == nullptr || data == nullptr ||
        length >= ctx->capacity - ctx->staged) {
        return false;
    }
    unsigned char* to = ctx->staging + ctx->staged;
    ctx->staged += length;
    // A fixed-size copy moves 16 bytes at a time, as the caller most likely stored the
    // piece. The C library's memcpy may read it with one 64-byte load, which cannot take
    // bytes just stored in narrower pieces and waits for them to reach the cache.
    if (length == 64) {
        std::memcpy(to, data, 64);
    } else {
        std::memcpy(to, data, length);
    }
    return true;
}

// An update that Stage did not settle, or whose probe asks for a second look (pass false).
__attribute__((noinline)) int AttendedUpdate(Probe& probe, bool pass, VKL_t* vkl, VKL_EVP_MD_CTX_s* ctx,
                                             const void* data, size_t length, const char* function) {
    if (!pass) {
        if (probe.Attend()) return Injected<int>(probe);
        if (Stage(vkl, ctx, data, length)) return 1;
    }
    if (!HaveHash(vkl, ctx, function)) return -2;
    if (length == 0) return 1;
    if (data == nullptr) {
        QueueError(std::string(function) + ": no data");
        return -2;
    }
    bool ok = true;
    if (ctx->staged + length > ctx->capacity) ok = Flush(ctx, function);
    if (ok && length >= ctx->capacity) {
        ok = EVP_DigestUpdate(ctx->ctx.get(), data, length) == 1;
        if (!ok) QueueErrorIfEmpty(function, "hashing failed");
    } else if (ok) {
        std::memcpy(ctx->staging + ctx->staged, data, length);
        ctx->staged += length;
        if (ctx->staged == ctx->capacity) ok = Flush(ctx, function);
    }
    // A hash that lost bytes must not be finished as if it had them all.
    if (!ok) Forget(ctx);
    return ok ? 1 : -2;
}

bool Reset(VKL_t* vkl, VKL_EVP_MD_CTX_s* ctx, const char* function) {
    if (!HaveContext(vkl, ctx, function)) return false;
    Forget(ctx);
    if (EVP_MD_CTX_reset(ctx->ctx.get()) != 1) {
        QueueErrorIfEmpty(function, "cannot reset the OpenSSL digest context");
        return false;
    }
    return true;
}

}  // namespace
}  // namespace vkl

extern "C" {

VKL_EVP_MD_CTX_t* VKL_EVP_MD_CTX_new(VKL_t* vkl) {
    VKL_ENTER(VKL_EVP_MD_CTX_t*);
    if (vkl == nullptr) {
        vkl::QueueError(std::string(__func__) + ": no VKL context");
        return nullptr;
    }
    std::unique_ptr<VKL_EVP_MD_CTX_s> ctx = vkl::Make<VKL_EVP_MD_CTX_s>();
    if (!ctx) {
        vkl::QueueError(std::string(__func__) + ": out of memory");
        return nullptr;
    }
    ctx->ctx.reset(EVP_MD_CTX_new());
    if (!ctx->ctx) {
        vkl::QueueErrorIfEmpty(__func__, "cannot create an OpenSSL digest context");
        return nullptr;
    }
    return ctx.release();
}

int VKL_EVP_MD_CTX_init(VKL_t* vkl, VKL_EVP_MD_CTX_t* ctx) {
    VKL_ENTER(int);
    return vkl::Reset(vkl, ctx, __func__);
}

int VKL_EVP_MD_CTX_cleanup(VKL_t* vkl, VKL_EVP_MD_CTX_t* ctx) {
    VKL_ENTER(int);
    return vkl::Reset(vkl, ctx, __func__);
}

int VKL_EVP_MD_CTX_free(VKL_t* vkl, VKL_EVP_MD_CTX_t* ctx) {
    VKL_ENTER(int);
    if (ctx == nullptr) return 1;
    (void)vkl;
    vkl::Forget(ctx);
    delete ctx;
    return 1;
}

const VKL_EVP_MD_t* VKL_EVP_get_digestbyname(VKL_t* vkl, const char* name) {
    VKL_ENTER(const VKL_EVP_MD_t*);
    return vkl::FetchDigest(vkl, name, __func__);
}

int VKL_EVP_DigestInit(VKL_t* vkl, VKL_EVP_MD_CTX_t* ctx, const VKL_EVP_MD_t* md) {
    VKL_ENTER(int);
    if (!vkl::HaveContext(vkl, ctx, __func__)) return -2;
    vkl::Forget(ctx);
    if (md == nullptr) {
        vkl::QueueError(std::string(__func__) + ": no digest");
        return -2;
    }
    // The provider keeps its state for the same digest, so restarting costs no allocation.
    if (EVP_DigestInit_ex2(ctx->ctx.get(), md->md.get(), nullptr) != 1) {
        vkl::QueueErrorIfEmpty(__func__, "cannot start the digest");
        return -2;
    }
    size_t block = md->blockSize > 0 ? static_cast<size_t>(md->blockSize) : 0;
    ctx->capacity = block > 0 && block <= vkl::kStagingRoom ? vkl::kStagingRoom - vkl::kStagingRoom % block : 0;
    ctx->md = md;
    return 1;
}

int VKL_EVP_DigestUpdate(VKL_t* vkl, VKL_EVP_MD_CTX_t* ctx, const void* data, size_t length) {
    // Small pieces that fit the staging area are the bulk of calls (SNMPv3 password to key
    // makes 16,384 of them). They are settled here with no call that needs registers kept;
    // an armed fault and everything else go to AttendedUpdate.
    static vkl::Probe vklProbe_{__func__};
    const bool pass = vklProbe_.Pass(static_cast<long>(length));
    if (pass && vkl::Stage(vkl, ctx, data, length)) return 1;
    return vkl::AttendedUpdate(vklProbe_, pass, vkl, ctx, data, length, __func__);
}

int VKL_EVP_DigestFinal(VKL_t* vkl, VKL_EVP_MD_CTX_t* ctx, unsigned char* out, unsigned int* outLength) {
    VKL_ENTER(int);
    if (!vkl::HaveHash(vkl, ctx, __func__)) return -2;
    if (out == nullptr) {
        vkl::QueueError(std::string(__func__) + ": no output buffer");
        return -2;
    }
    unsigned int written = 0;
    bool ok = vkl::Flush(ctx, __func__);
    if (ok && EVP_DigestFinal_ex(ctx->ctx.get(), out, &written) != 1) {
        vkl::QueueErrorIfEmpty(__func__, "cannot finish the digest");
        ok = false;
    }
    // A finished (or broken) hash takes no more data until the next init.
    vkl::Forget(ctx);
    if (!ok) return -2;
    if (outLength != nullptr) *outLength = written;
    return 1;
}

int VKL_EVP_MD_type(VKL_t*, const VKL_EVP_MD_t* md) {
    VKL_ENTER(int);
    if (md == nullptr) {
        vkl::QueueError(std::string(__func__) + ": no digest");
        return 0;
    }
    return md->nid;
}

const char* VKL_OBJ_nid2sn(VKL_t*, int nid) {
    VKL_ENTER(const char*);
    // OpenSSL's own entry for an unknown number says less than ours.
    ERR_set_mark();
    const char* name = OBJ_nid2sn(nid);
    ERR_pop_to_mark();
    if (name == nullptr) {
        vkl::QueueError(std::string(__func__) + ": unknown object identifier number " + std::to_string(nid));
    }
    return name;
}

int VKL_EVP_MD_size(VKL_t*, const VKL_EVP_MD_t* md) {
    VKL_ENTER(int);
    if (md == nullptr) {
        vkl::QueueError(std::string(__func__) + ": no digest");
        return -1;
    }
    return md->size;
}

int VKL_EVP_MD_block_size(VKL_t*, const VKL_EVP_MD_t* md) {
    VKL_ENTER(int);
    if (md == nullptr) {
        vkl::QueueError(std::string(__func__) + ": no digest");
        return -1;
    }
    return md->blockSize;
}

}  // extern "C"

namespace vkl {

bool FinishDigest(VKL_t* vkl, VKL_EVP_MD_CTX_t* ctx, unsigned char* out, unsigned int* outLength,
                  const VKL_EVP_MD_s** md, const char* function) {
    if (!HaveHash(vkl, ctx, function)) return false;
    *md = ctx->md;
    unsigned int written = 0;
    bool ok = Flush(ctx, function);
    if (ok && EVP_DigestFinal_ex(ctx->ctx.get(), out, &written) != 1) {
        QueueErrorIfEmpty(function, "cannot finish the digest");
        ok = false;
    }
    Forget(ctx);
    if (ok) *outLength = written;
    return ok;
}

}  // namespace vkl
