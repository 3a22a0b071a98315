/* Test control of the libwexcrypt stand-in. */
#ifndef WEXCRYPT_TESTING_H
#define WEXCRYPT_TESTING_H

#ifdef __cplusplus
extern "C" {
#endif

/* What WEXCryptGetContext returns from now on: -3 (the default) hands out the
 * context, anything else hands out none. */
void WEXTest_SetGetContextResult(long long result);

/* What WEXUTILSIsSystemFips returns from now on; a negative value goes back to
 * reading the host (/proc/sys/crypto/fips_enabled). */
void WEXTest_SetSystemFips(int value);

#ifdef __cplusplus
}
#endif

#endif /* WEXCRYPT_TESTING_H */
