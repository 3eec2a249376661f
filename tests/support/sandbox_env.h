// Helpers for tests that change /etc: they refuse to run outside scripts/sandbox.sh, whose
// private copy of /etc vanishes with the test.
#ifndef FERRYGATE_TESTS_SUPPORT_SANDBOX_ENV_H
#define FERRYGATE_TESTS_SUPPORT_SANDBOX_ENV_H

#include <set>
#include <string>

namespace tavik {
namespace testing {

// True inside scripts/sandbox.sh; use as ASSERT_TRUE(inSandbox()) before touching /etc.
bool inSandbox();
// Creates or replaces `path` (and its missing parents) with `text`.
void writeTextFile(const std::string& path, const std::string& text);
// The whole file, or "" when it cannot be read.
std::string readFile(const std::string& path);
// The names in a directory.
std::set<std::string> listDir(const std::string& dir);
// MD5 of a file as 32 lower-case hexadecimal digits.
std::string md5OfFile(const std::string& path);
// Adds a system account without a home directory (useradd -M -r) unless it exists, inside the
// sandbox only; false when there is no such account afterwards.
bool addSystemAccount(const std::string& name);

// A fresh directory below /tmp, removed with everything in it by the destructor.
class ScratchDir {
  public:
    ScratchDir();
    ~ScratchDir();
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;
    const std::string& path() const { return path_; }

  private:
    std::string path_;
};

}  // namespace testing
}  // namespace tavik

#endif  // FERRYGATE_TESTS_SUPPORT_SANDBOX_ENV_H
