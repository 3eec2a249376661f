// Account and group look-ups. None of them throws: a failure is written to the message log and
// answered with 0 (or -1), which callers use as it is, even though 0 is the superuser's id.
#ifndef FERRYGATE_UTILS_TAVIK_UGID_H
#define FERRYGATE_UTILS_TAVIK_UGID_H

#include <sys/types.h>

// The user id of account `name`, or 0.
unsigned get_user_id(const char* name);
// `which` 0: the account's user id; otherwise its primary group id; 0 on failure.
unsigned tavik_ugid(const char* name, int which);
// Fills each non-null output from the account `name`; `*home` then points to a static buffer
// valid until the next call. 0, or -1 when there is no such account.
int tavik_getpw(const char* name, uid_t* uid, gid_t* gid, const char** home);
// The id of group `name`, or 0.
gid_t get_gid_by_name(const char* name);
// `gid` when such a group exists, otherwise 0.
gid_t get_gid_by_id(gid_t gid);
// A text made only of digits is checked as a group id, anything else looked up as a name.
gid_t get_group_id(const char* text);
// The account name of `uid`, or its decimal text when no account has it. Static buffer, valid
// until the next call.
const char* get_user_name(uid_t uid);

#endif  // FERRYGATE_UTILS_TAVIK_UGID_H
