// Key management: keeps one secret key in a pair of files and encrypts small texts with
// it. Thread-safe; by use one thread at a time starts, uses and stops it.
//
// A store file that is damaged or missing is rebuilt from its twin without changing the
// key; when both are missing a new key is made. Both files exist, mode 0600, after a start.
#pragma once

#include "zel_platform/platform_export.h"

// Result codes of the start. Any other non-zero code: the store cannot be created,
// read or written.
constexpr int kZormAlreadyStarted = 254;  // running already, or the store is locked: stop first
constexpr int kZormStoreDamaged = 287;    // both files damaged: stop, delete both, start anew

extern "C" {
// `logFile` receives a few lines about the start and never a key; an unusable log file is
// no failure. Creates the directory of the store. Does not wait: transient states are not
// reported as 254 or 287.
ZEL_PLATFORM_API int orb_zorm_service_start_ex(const char* logFile, const char* storeFile,
                                               const char* backupFile);
// Wipes the key from memory. 0 also when it was not started.
ZEL_PLATFORM_API int orb_zorm_service_stop(void);
// The cipher length in bytes of a plain text of that length. Spelling is part of the
// interface. For 32 bytes it is at most 303.
ZEL_PLATFORM_API int orb_zorm_get_ciper_len(unsigned int plainLength, unsigned int* cipherLength);
// `*cipherLength` is the capacity of `cipher` in, the length out. Non-zero, with the output
// untouched, before a start, after a stop and for a capacity that is too small.
ZEL_PLATFORM_API int orb_zorm_encrypt(const unsigned char* plain, unsigned int plainLength,
                                      unsigned char* cipher, unsigned int* cipherLength);
// The reverse. Non-zero, with the output untouched, also for a cipher text that is short,
// altered or made with another key.
ZEL_PLATFORM_API int orb_zorm_decrypt(const unsigned char* cipher, unsigned int cipherLength,
                                      unsigned char* plain, unsigned int* plainLength);
}
