#include "utils/to64.h"

#include <cstdlib>

const char itoa64[] = "./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";

void to64(char* buffer, int n) {
    for (int i = 0; i < n; ++i) {
        const long long r = random();
        const int index = static_cast<int>((r * 64 / 2147483648LL + 1) % 64);
        buffer[i] = itoa64[index];
    }
}
