// Random characters of the crypt salt alphabet.
#ifndef FERRYGATE_UTILS_TO64_H
#define FERRYGATE_UTILS_TO64_H

// "./0-9A-Za-z", the 64 characters allowed in a crypt salt.
extern const char itoa64[];

// Writes `n` random salt characters to `buffer` (no terminator), one random() draw each.
void to64(char* buffer, int n);

#endif  // FERRYGATE_UTILS_TO64_H
