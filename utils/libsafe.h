// Small text and directory tests of the system library.
#ifndef FERRYGATE_UTILS_LIBSAFE_H
#define FERRYGATE_UTILS_LIBSAFE_H

// 1 when `dir` and `candidate` are directories (a final symbolic link is not followed) and the
// resolved `candidate` lies strictly below the resolved `dir`; 0 otherwise. Resolves by changing
// into each and reading the working directory, which is restored afterwards.
int issubdir(const char* dir, const char* candidate);
// 1 for a null or empty text.
int isempty(const char* text);
// 1 when every character is a decimal digit, the empty text included.
int is_number(const char* text);

#endif  // FERRYGATE_UTILS_LIBSAFE_H
