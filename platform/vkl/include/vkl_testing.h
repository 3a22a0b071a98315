/*
 * Test control of the VKL stand-in: fault injection, call counts and forced
 * status records. Process-wide; meant for tests, costs next to nothing when
 * no fault is armed.
 */
#ifndef VKL_TESTING_H
#define VKL_TESTING_H

/* The stand-in is built with hidden symbols; these are its interface. */
#pragma GCC visibility push(default)

#ifdef __cplusplus
extern "C" {
#endif

/* Disarms every fault (a failing allocation too), clears counts and the call log, makes every status record clean again,
 * makes every context forget the RSA keys it recovered from n and d, and empties the calling
 * thread's error queue. */
void VKLTest_Reset(void);

/* The VKL function named `function` runs normally `skip` more times; then for `times` calls
 * (every later call when negative) it does none of its work, queues
 * "<function>: injected failure" and returns `result` converted to its return type
 * (null for functions that return a pointer).
 * The known-answer tests of VKL_SelfTest are addressed as "VKL_SelfTest/SHA-1",
 * "VKL_SelfTest/SHA-256", "VKL_SelfTest/HMAC-SHA-1", "VKL_SelfTest/AES-128-CBC" and
 * "VKL_SelfTest/DES-CBC"; a failing one makes the self-test report it. The recovery of a
 * complete RSA key from a record holding n and d (once per key and context, at its first
 * private operation) is addressed and counted as "VKL_RSA/recover", its length being the
 * public exponent of the key completed (0 when none is); a failing one leaves that operation to
 * the exponentiation with d, and the next one tries again. That exponentiation with d alone (a
 * private operation with a record holding n and d that no usual e completes, or whose recovery
 * failed) is addressed and counted as "VKL_RSA/d"; a failing one fails the operation. */
void VKLTest_FailCall(const char* function, unsigned skip, int times, long result);

/* The record that "VKL_GetStatus", "VKL_SelfTest" or "VKL_GenerateRandomSeed" fills from now on.
 * A null description stands for an empty one. */
void VKLTest_SetStatus(const char* function, int major, int minor, const char* description);

/* Calls of `function` since the last reset. */
unsigned long VKLTest_CallCount(const char* function);

/* The length or count argument of the latest call of `function`; -1 before any call. */
long VKLTest_LastLength(const char* function);

/* Handles of the stand-in alive now (contexts, digest, cipher, HMAC and key containers, big
 * numbers, including those inside RSA and DH records): equal before and after a piece of work
 * that releases all it made. */
long VKLTest_LiveObjects(void);

/* Allocations since the last reset: the stand-in's handles and everything OpenSSL allocates for
 * it (OpenSSL allocates through the stand-in). */
unsigned long VKLTest_Allocations(void);

/* The `n`-th allocation from now (1: the next) fails, once, as though memory ran out; 0 disarms.
 * Counted across all threads, exactly when allocations are made one at a time. Returns 1, or 0 when OpenSSL had allocated before the stand-in was
 * loaded and so keeps its own allocator (then only the stand-in's own allocations can fail). */
int VKLTest_FailAllocation(unsigned long n);

/* Names of the VKL functions called since the last reset, one per line, oldest first
 * (the latest 8192 at most). Valid until the next call of this function or a reset. */
const char* VKLTest_CallLog(void);

#ifdef __cplusplus
}
#endif

#pragma GCC visibility pop

#endif /* VKL_TESTING_H */
