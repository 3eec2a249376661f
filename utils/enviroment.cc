#include "utils/enviroment.h"

#include <crypt.h>

#include <cstdlib>
#include <cstring>
#include <ctime>

#include "utils/to64.h"

namespace {

const char kPlainVariable[] = "HMX_PASSWORD";
const char kCryptedVariable[] = "HMX_CRYPTED_PASSWORD";

char cryptedPassword[4096];
char plainPassword[4096];

void copyText(char* out, size_t size, const char* text) {
    if (size == 0) return;
    strncpy(out, text, size - 1);
    out[size - 1] = '\0';
}

const char* nonEmptyVariable(const char* name) {
    const char* value = getenv(name);
    return value != nullptr && *value != '\0' ? value : nullptr;
}

// The "$1$" prefix asks crypt for its MD5 scheme.
void encrypt(const char* password) {
    char salt[3 + 8 + 1] = "$1$";
    srandom(static_cast<unsigned>(time(nullptr)));
    to64(salt + 3, 8);
    salt[11] = '\0';
    struct crypt_data data;
    memset(&data, 0, sizeof data);
    const char* hashed = crypt_r(password, salt, &data);
    // libxcrypt reports failure with a text starting with '*' rather than null.
    if (hashed == nullptr || hashed[0] == '*') {
        cryptedPassword[0] = '\0';
    } else {
        copyText(cryptedPassword, sizeof cryptedPassword, hashed);
    }
    explicit_bzero(&data, sizeof data);
}

}  // namespace

const char* get_env_noncrypted_password() {
    if (plainPassword[0] == '\0') {
        const char* value = getenv(kPlainVariable);
        if (value != nullptr) copyText(plainPassword, sizeof plainPassword, value);
    }
    unsetenv(kPlainVariable);
    return plainPassword;
}

int get_env_password(char* out, size_t size, int* isCrypted) {
    if (const char* plain = nonEmptyVariable(kPlainVariable)) {
        copyText(out, size, plain);
        *isCrypted = 0;
        unsetenv(kPlainVariable);
        return 0;
    }
    if (const char* crypted = nonEmptyVariable(kCryptedVariable)) {
        copyText(out, size, crypted);
        *isCrypted = 1;
        unsetenv(kCryptedVariable);
        return 0;
    }
    return -1;
}

const char* get_env_crypted_password() {
    if (cryptedPassword[0] == '\0') {
        if (const char* plain = nonEmptyVariable(kPlainVariable)) {
            encrypt(plain);
        } else if (const char* crypted = nonEmptyVariable(kCryptedVariable)) {
            copyText(cryptedPassword, sizeof cryptedPassword, crypted);
        } else {
            encrypt("");
        }
    }
    unsetenv(kPlainVariable);
    unsetenv(kCryptedVariable);
    return cryptedPassword;
}
