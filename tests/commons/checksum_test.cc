#include "commons/checksum.h"

#include <gtest/gtest.h>

#include <boost/bind/bind.hpp>
#include <boost/filesystem.hpp>
#include <fstream>
#include <sstream>

#include "commons/exceptions.h"

namespace tavik {
namespace {

namespace fs = boost::filesystem;

std::string md5(const std::string& text) {
    std::istringstream in(text);
    return countMd5Sum(in);
}

TEST(CountMd5Sum, DigestsEveryChunkTheShortLastOneIncluded) {
    EXPECT_EQ("d41d8cd98f00b204e9800998ecf8427e", md5(""));
    EXPECT_EQ("900150983cd24fb0d6963f7d28e17f72", md5("abc"));
    EXPECT_EQ("21a199c53f422a380e20b162fb6ebe9c", md5(std::string(4096, 'a')));
    EXPECT_EQ("8cfc1a0bd8cd76599e76e5e721c6e62e", md5(std::string(4097, 'a')));

    std::istringstream rest("skipped-abc");
    rest.ignore(8);
    EXPECT_EQ("900150983cd24fb0d6963f7d28e17f72", countMd5Sum(rest)) << "only what remains counts";
}

// Gives a few bytes, then fails as a broken disk would.
class FailingBuffer : public std::streambuf {
  public:
    FailingBuffer() { setg(data_, data_, data_ + sizeof data_); }

  protected:
    int_type underflow() override { throw std::ios_base::failure("read error"); }

  private:
    char data_[10] = {};
};

TEST(CountMd5Sum, StreamThatFailsBeforeItsEndIsAReadError) {
    std::ifstream missing("/nonexistent/file");
    EXPECT_THROW(countMd5Sum(missing), Exc<&StreamRead>);
    FailingBuffer failing;
    std::istream broken(&failing);
    EXPECT_THROW(countMd5Sum(broken), Exc<&StreamRead>);
}

TEST(Termination, OnceRequestedEveryCheckThrows) {
    EXPECT_NO_THROW(checkProgramTerminated());
    terminateProgram();
    EXPECT_THROW(checkProgramTerminated(), MigrationTerminatedException);
    EXPECT_THROW(checkProgramTerminated(), MigrationTerminatedException) << "the flag stays set";
    isProgramTerminated = false;
}

class DirWalk : public ::testing::Test {
  protected:
    void SetUp() override {
        root = fs::temp_directory_path() / fs::unique_path("ferrygate-walk-%%%%%%%%");
        fs::create_directories(root / "d" / "e");
        std::ofstream((root / "f").string()) << "x";
        std::ofstream((root / "d" / "g").string()) << "x";
        std::ofstream((root / "d" / "e" / "h").string()) << "x";
        fs::create_directory_symlink(root / "d" / "e", root / "link");
    }
    void TearDown() override { fs::remove_all(root); }

    // Records each visit as "relative" and descends unless the relative path is `prune`.
    bool record(const fs::path& full, const fs::path& relative, const std::string& prune) {
        visits.push_back(relative.string());
        EXPECT_EQ(fs::canonical(full), fs::canonical(root / relative)) << relative;
        return relative.string() != prune;
    }
    std::vector<std::string> walk(const std::string& prune) {
        visits.clear();
        recursive_dir_walk(root, boost::bind(&DirWalk::record, this, boost::placeholders::_1,
                                             boost::placeholders::_2, prune));
        return visits;
    }
    static size_t position(const std::vector<std::string>& v, const std::string& item) {
        return std::find(v.begin(), v.end(), item) - v.begin();
    }

    fs::path root;
    std::vector<std::string> visits;
};

TEST_F(DirWalk, VisitsEachEntryOnceParentsFirstFollowingLinksAndPruningOnFalse) {
    std::vector<std::string> all = walk("");
    ASSERT_EQ(".", all.front());
    for (const char* child : {"./d/e", "./d/g"})
        EXPECT_LT(position(all, "./d"), position(all, child));
    EXPECT_LT(position(all, "./d/e"), position(all, "./d/e/h"));
    EXPECT_LT(position(all, "./link"), position(all, "./link/h"));
    std::sort(all.begin(), all.end());
    EXPECT_EQ((std::vector<std::string>{".", "./d", "./d/e", "./d/e/h", "./d/g", "./f", "./link",
                                        "./link/h"}),
              all);

    EXPECT_EQ(std::vector<std::string>{"."}, walk("."));
    std::vector<std::string> pruned = walk("./d");
    std::sort(pruned.begin(), pruned.end());
    EXPECT_EQ((std::vector<std::string>{".", "./d", "./f", "./link", "./link/h"}), pruned);
}

}  // namespace
}  // namespace tavik
