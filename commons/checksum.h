// Services every transfer shares: MD5 of a stream, the termination flag, and a walk over a local
// directory tree.
#ifndef FERRYGATE_COMMONS_CHECKSUM_H
#define FERRYGATE_COMMONS_CHECKSUM_H

#include <atomic>
#include <boost/filesystem/path.hpp>
#include <boost/function.hpp>
#include <istream>
#include <streambuf>
#include <string>

struct evp_md_ctx_st;

namespace tavik {

// The MD5 digest of everything left in `in`, as 32 lower-case hexadecimal digits. Throws
// StreamRead when the stream fails before its end (an unopened file included).
std::string countMd5Sum(std::istream& in);

// An MD5 digest fed piece by piece, whose state can be copied (to go on from a partial file).
class Md5 {
  public:
    Md5();
    Md5(const Md5& other);
    Md5& operator=(const Md5& other);
    ~Md5();
    void update(const char* data, size_t size);
    // Adds everything left in `in`; false when the stream failed before its end.
    bool update(std::istream& in);
    // The digest of what was added so far as 32 lower-case hexadecimal digits; the state is
    // left as it was.
    std::string hex() const;

  private:
    ::evp_md_ctx_st* context_;
};

// Set once a stop of the migration is requested; nothing clears it. Lock-free, so a signal
// handler may set it.
extern std::atomic<bool> isProgramTerminated;
// Requests the stop: every transfer ends at its next chunk.
void terminateProgram();
// Throws MigrationTerminatedException when a stop was requested.
void checkProgramTerminated();

// Called with each entry's full path and its path relative to the walk's root ("." for the
// root, "./d/f" below it). For a directory, false skips its contents.
typedef boost::function<bool(const boost::filesystem::path&, const boost::filesystem::path&)>
    DirVisitor;

// Visits `root` and everything below it, depth-first, a directory before its contents, entries in
// the order the file system lists them. Symbolic links to directories are followed (no cycle
// guard). Exceptions of `visit` and of the file system end the walk.
void recursive_dir_walk(const boost::filesystem::path& root, DirVisitor visit);
// Visits `full`, then, if it is a directory and `visit` said true, each of its entries.
void recursive_dir_walk_sync(const boost::filesystem::path& full,
                             const boost::filesystem::path& relative, DirVisitor visit);
// Walks the directory entry `entry` of the directory whose relative path is `relative`.
void recursive_dir_walk_internal(const boost::filesystem::path& entry,
                                 const boost::filesystem::path& relative, DirVisitor visit);

}  // namespace tavik

#endif  // FERRYGATE_COMMONS_CHECKSUM_H
