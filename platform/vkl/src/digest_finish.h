// Finishing a hash on behalf of another VKL function (signing, verification),
// without going through the instrumented VKL_EVP_DigestFinal entry point.
#ifndef VKL_DIGEST_FINISH_H
#define VKL_DIGEST_FINISH_H

#include <vkl.h>

#include "vkl_context.h"

namespace vkl {

// Finishes the hash in progress into out (EVP_MAX_MD_SIZE bytes of room) and gives its
// length and digest. False, with the cause queued as `function`'s, when there is no hash
// in progress or OpenSSL fails; the context takes no more data either way.
bool FinishDigest(VKL_t* vkl, VKL_EVP_MD_CTX_t* ctx, unsigned char* out, unsigned int* outLength,
                  const VKL_EVP_MD_s** md, const char* function);

}  // namespace vkl

#endif  // VKL_DIGEST_FINISH_H
