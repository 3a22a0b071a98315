// Big numbers of the VKL stand-in.
#include <climits>
#include <new>
#include <string>

#include <openssl/bn.h>

#include "bignum.h"
#include "errors.h"
#include "memory.h"
#include "probe.h"

namespace {

VKL_BIGNUM_s* NewNumber(const char* function) {
    std::unique_ptr<VKL_BIGNUM_s> number = vkl::Make<VKL_BIGNUM_s>();
    if (!number) {
        vkl::QueueError(std::string(function) + ": out of memory");
        return nullptr;
    }
    number->bn.reset(BN_new());
    if (!number->bn) {
        vkl::QueueErrorIfEmpty(function, "cannot create a number");
        return nullptr;
    }
    return number.release();
}

}  // namespace

extern "C" {

VKL_BIGNUM_t* VKL_BN_new(VKL_t*) {
    VKL_ENTER(VKL_BIGNUM_t*);
    return NewNumber(__func__);
}

void VKL_BN_free(VKL_t*, VKL_BIGNUM_t* bn) {
    VKL_ENTER(void);
    delete bn;
}

void VKL_BN_clear_free(VKL_t*, VKL_BIGNUM_t* bn) {
    VKL_ENTER(void);
    // The holder clears on release in any case; both names stay for callers that say which they mean.
    delete bn;
}

int VKL_BN_num_bits(VKL_t*, const VKL_BIGNUM_t* bn) {
    VKL_ENTER(int);
    if (bn == nullptr) {
        vkl::QueueError(std::string(__func__) + ": no number");
        return 0;
    }
    return BN_num_bits(bn->bn.get());
}

int VKL_BN_bn2bin(VKL_t*, const VKL_BIGNUM_t* bn, unsigned char* out) {
    VKL_ENTER(int);
    if (bn == nullptr || out == nullptr) {
        vkl::QueueError(std::string(__func__) + ": no number or no output buffer");
        return -1;
    }
    return BN_bn2bin(bn->bn.get(), out);
}

VKL_BIGNUM_t* VKL_BN_bin2bn(VKL_t*, const unsigned char* in, int length, VKL_BIGNUM_t* ret) {
    VKL_ENTER_LEN(VKL_BIGNUM_t*, length);
    if (length < 0 || (in == nullptr && length > 0)) {
        vkl::QueueError(std::string(__func__) + ": no input or a negative length");
        return nullptr;
    }
    std::unique_ptr<VKL_BIGNUM_s> made;
    if (ret == nullptr) {
        made.reset(NewNumber(__func__));
        if (!made) return nullptr;
        ret = made.get();
    }
    if (BN_bin2bn(in, length, ret->bn.get()) == nullptr) {
        vkl::QueueErrorIfEmpty(__func__, "cannot set the number");
        return nullptr;
    }
    static_cast<void>(made.release());  // ret holds it from here
    return ret;
}

int VKL_BN_set_negative(VKL_t*, VKL_BIGNUM_t* bn, int sign) {
    VKL_ENTER(int);
    if (bn == nullptr) {
        vkl::QueueError(std::string(__func__) + ": no number");
        return 0;
    }
    BN_set_negative(bn->bn.get(), sign);
    return 1;
}

int VKL_BN_is_negative(VKL_t*, const VKL_BIGNUM_t* bn) {
    VKL_ENTER(int);
    return bn != nullptr && BN_is_negative(bn->bn.get());
}

}  // extern "C"
