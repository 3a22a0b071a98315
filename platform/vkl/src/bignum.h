// Big numbers of the VKL stand-in: an OpenSSL BIGNUM behind VKL's opaque type.
#ifndef VKL_BIGNUM_H
#define VKL_BIGNUM_H

#include <vkl.h>

#include "handles.h"

struct VKL_BIGNUM_s {
    // Cleared on release: numbers carry private exponents and primes.
    vkl::BnPtr bn;
    vkl::Live live;
};

#endif  // VKL_BIGNUM_H
