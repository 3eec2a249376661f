#include "commons/replace_file.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem/path.hpp>
#include <cerrno>
#include <cstring>

#include "commons/commons.h"
#include "commons/exceptions.h"
#include "commons/unique_fd.h"
#include "utils/tavik_ugid.h"

namespace tavik {

namespace {

// Removes the temporary file unless the rename consumed it.
class TemporaryFile {
  public:
    explicit TemporaryFile(std::string path) : path_(std::move(path)) {}
    ~TemporaryFile() {
        if (!path_.empty()) ::unlink(path_.c_str());
    }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;
    const std::string& path() const { return path_; }
    void release() { path_.clear(); }

  private:
    std::string path_;
};

void renameOver(const std::string& replacement, const std::string& target) {
    // On ext4, renaming a file over another first writes the new file's data out
    // (auto_da_alloc): milliseconds for each of the many status saves of a download. Swapping
    // the two names and then removing the old version skips that, and a reader still finds one
    // whole version or the other. Directories are never swapped into our name.
    struct stat existing = {};
    if (lstat(target.c_str(), &existing) == 0 && S_ISREG(existing.st_mode) &&
        renameat2(AT_FDCWD, replacement.c_str(), AT_FDCWD, target.c_str(), RENAME_EXCHANGE) == 0) {
        ::unlink(replacement.c_str());
        return;
    }
    // No target yet, or a file system that cannot swap names.
    if (rename(replacement.c_str(), target.c_str()) != 0) {
        TAVIK_RAISE(CantRenameFile, replacement, target, std::strerror(errno));
    }
}

}  // namespace

const FileOwner& adminAccount() {
    // Looking the account up costs as much as a whole status save; it does not change in a run.
    static const FileOwner owner{tavik_ugid("hmxadm", 0), tavik_ugid("hmxadm", 1)};
    return owner;
}

void replaceFile(const std::string& target, const FileOwner& owner,
                 const std::function<void(const std::string& temporary)>& write, bool durable) {
    const boost::filesystem::path path(target);
    std::string directory = path.parent_path().string();
    // A bare name lives in the current directory: the rename must not cross file systems.
    if (directory.empty()) directory = ".";
    TemporaryFile temporary(RKU_getTempFileName(directory, path.filename().string()));
    write(temporary.path());
    if (durable) {
        UniqueFd fd(::open(temporary.path().c_str(), O_RDONLY | O_CLOEXEC));
        if (!fd.valid() || ::fsync(fd.get()) != 0) {
            TAVIK_RAISE(FileWrite, target, std::strerror(errno));
        }
    }
    if (chown(temporary.path().c_str(), owner.uid, owner.gid) != 0) {
        TAVIK_RAISE(CantTakeFileOwnership, temporary.path(), std::strerror(errno));
    }
    renameOver(temporary.path(), target);
    temporary.release();
}

void replaceFileText(const std::string& target, const FileOwner& owner, const std::string& text,
                     bool durable) {
    replaceFile(
        target, owner,
        [&](const std::string& temporary) {
            UniqueFd fd(::open(temporary.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC));
            if (!fd.valid()) TAVIK_RAISE(FileWrite, target, std::strerror(errno));
            const char* data = text.data();
            size_t left = text.size();
            while (left > 0) {
                const ssize_t n = ::write(fd.get(), data, left);
                if (n < 0 && errno == EINTR) continue;
                if (n < 0) TAVIK_RAISE(FileWrite, target, std::strerror(errno));
                data += n;
                left -= static_cast<size_t>(n);
            }
            if (fd.close() != 0) TAVIK_RAISE(FileWrite, target, std::strerror(errno));
        },
        durable);
}

}  // namespace tavik
