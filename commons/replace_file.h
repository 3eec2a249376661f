// Replacing a file that another process reads: the reader sees the old version or the new one,
// never half of either, and a killed run leaves the last good version in place.
#ifndef FERRYGATE_COMMONS_REPLACE_FILE_H
#define FERRYGATE_COMMONS_REPLACE_FILE_H

#include <sys/types.h>

#include <functional>
#include <string>

namespace tavik {

// The account a replaced file is given to.
struct FileOwner {
    uid_t uid;
    gid_t gid;
};

// The product's administrative account hmxadm (its user and primary group), looked up once per
// process; a missing account is (0, 0), reported once by the lookup.
const FileOwner& adminAccount();

// Writes a new version of `target` through `write`, which is handed the path of a fresh, empty
// temporary file in the same directory and must fill it completely (and throw if it cannot).
// The temporary file is then given to `owner` and renamed over `target`; with `durable`, its
// data reach the disk first (files written once per run, which a power failure must not empty).
// On any failure the temporary file is removed, `target` keeps its previous content, and the
// failure propagates: CantCreateTempFile, FileWrite (the sync), CantTakeFileOwnership,
// CantRenameFile, or what `write` threw.
void replaceFile(const std::string& target, const FileOwner& owner,
                 const std::function<void(const std::string& temporary)>& write,
                 bool durable = false);

// replaceFile with `text` as the whole content; a failed write or close throws FileWrite.
void replaceFileText(const std::string& target, const FileOwner& owner, const std::string& text,
                     bool durable = false);

}  // namespace tavik

#endif  // FERRYGATE_COMMONS_REPLACE_FILE_H
