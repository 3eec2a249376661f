#include "utils/tavik_ugid.h"

#include <grp.h>
#include <pwd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "utils/libsafe.h"
#include "utils/product_log.h"

namespace {
char userNameBuffer[4096];
char homeBuffer[4096];

// getpwnam and friends leave errno at 0 when the entry simply does not exist, and "Success"
// would read as nonsense.
const char* lookupError() { return errno != 0 ? strerror(errno) : "not found"; }
}  // namespace

unsigned get_user_id(const char* name) {
    errno = 0;
    const struct passwd* pw = getpwnam(name);
    if (pw == nullptr) {
        messlog2(0, 0, "Unable to find uid for user %s: %s", name, lookupError());
        return 0;
    }
    return pw->pw_uid;
}

unsigned tavik_ugid(const char* name, int which) {
    errno = 0;
    const struct passwd* pw = getpwnam(name);
    if (pw == nullptr) {
        messlog2(0, 0, "Unable to getpwnam for user %s", name);
        return 0;
    }
    return which == 0 ? pw->pw_uid : pw->pw_gid;
}

int tavik_getpw(const char* name, uid_t* uid, gid_t* gid, const char** home) {
    errno = 0;
    const struct passwd* pw = getpwnam(name);
    if (pw == nullptr) {
        messlog2(0, 0, "Unable to getpwnam for user %s", name);
        return -1;
    }
    if (uid != nullptr) *uid = pw->pw_uid;
    if (gid != nullptr) *gid = pw->pw_gid;
    if (home != nullptr) {
        snprintf(homeBuffer, sizeof homeBuffer, "%s", pw->pw_dir);
        *home = homeBuffer;
    }
    return 0;
}

gid_t get_gid_by_name(const char* name) {
    errno = 0;
    const struct group* gr = getgrnam(name);
    if (gr == nullptr) {
        messlog2(0, 0, "getgrnam(%s): %s", name, lookupError());
        return 0;
    }
    return gr->gr_gid;
}

gid_t get_gid_by_id(gid_t gid) {
    errno = 0;
    if (getgrgid(gid) == nullptr) {
        messlog2(0, 0, "getgrgid(%d): %s", static_cast<int>(gid), lookupError());
        return 0;
    }
    return gid;
}

gid_t get_group_id(const char* text) {
    if (is_number(text)) {
        int gid = 0;
        sscanf(text, "%d", &gid);
        return get_gid_by_id(static_cast<gid_t>(gid));
    }
    return get_gid_by_name(text);
}

const char* get_user_name(uid_t uid) {
    errno = 0;
    const struct passwd* pw = getpwuid(uid);
    if (pw != nullptr) {
        snprintf(userNameBuffer, sizeof userNameBuffer, "%s", pw->pw_name);
    } else {
        snprintf(userNameBuffer, sizeof userNameBuffer, "%u", static_cast<unsigned>(uid));
    }
    return userNameBuffer;
}
