/*
 * libwexcrypt: hands out the process's VKL context and tells whether the host
 * runs in FIPS mode.
 */
#ifndef WEXCRYPT_H
#define WEXCRYPT_H

#include <vkl.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The result that means the VKL context was handed out. */
#define WEXCRYPT_CONTEXT_AVAILABLE (-3LL)

/* Stores the process's VKL context into *context and returns WEXCRYPT_CONTEXT_AVAILABLE;
 * any other result means no context was handed out (*context is left alone). */
long long WEXCryptGetContext(VKL_t** context);

/* 1 when the host runs in FIPS mode, 0 otherwise. */
int WEXUTILSIsSystemFips(void);

#ifdef __cplusplus
}
#endif

#endif /* WEXCRYPT_H */
