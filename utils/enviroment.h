// Passwords handed over through the environment. Every reader removes the variables it looked
// at, so that child processes never inherit a password.
#ifndef FERRYGATE_UTILS_ENVIROMENT_H
#define FERRYGATE_UTILS_ENVIROMENT_H

#include <cstddef>

// HMX_PASSWORD as given (empty when unset), read once: later calls return the first value even
// though the variable is gone. The text lives in a static buffer.
const char* get_env_noncrypted_password();

// Copies HMX_PASSWORD (with *isCrypted = 0) or else HMX_CRYPTED_PASSWORD (*isCrypted = 1), the
// first that is set and not empty, into `out` (at most `size` bytes with the terminator) and
// removes that variable. -1 with the environment untouched when neither is usable.
int get_env_password(char* out, size_t size, int* isCrypted);

// An MD5 crypt of HMX_PASSWORD, or HMX_CRYPTED_PASSWORD as given, or the crypt of the empty
// password; cached after the first call. Both variables are removed. Empty when crypt fails.
const char* get_env_crypted_password();

#endif  // FERRYGATE_UTILS_ENVIROMENT_H
