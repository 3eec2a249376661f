// Downloads and uploads against a real server: byte-identical in every size, a missing remote
// file, the mode of downloads.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <boost/filesystem.hpp>
#include <random>

#include "commons/checksum.h"
#include "ssh/ssh_transfer.h"
#include "support/sandbox_env.h"
#include "support/sshd_fixture.h"

namespace tavik {
namespace {

namespace fs = boost::filesystem;

class Transfer : public test::SshdTest {
  protected:
    void SetUp() override {
        SshdTest::SetUp();
        ssh.reset(new Ssh(host(), user(), password(), false, port(), hostKeys()));
    }
    void TearDown() override {
        ssh.reset();
        SshdTest::TearDown();
    }

    std::string localFile(const std::string& name, size_t size, unsigned seed) {
        std::mt19937 random(seed);
        std::string bytes(size, '\0');
        for (char& c : bytes) c = static_cast<char>(random());
        testing::writeTextFile((local / name).string(), bytes);
        return (local / name).string();
    }

    std::unique_ptr<Ssh> ssh;
    testing::ScratchDir scratch;
    const fs::path local = scratch.path();
};

TEST_F(Transfer, RoundTripIsByteIdenticalInEverySize) {
    // Around the 64 KiB read size, and past the 2 MiB channel window (a gigabyte is bench/'s).
    const size_t sizes[] = {0, 1, 65535, 65536, 65537, 5 * 1024 * 1024 + 5};
    unsigned seed = 7;
    for (size_t size : sizes) {
        SCOPED_TRACE("size " + std::to_string(size));
        const std::string sent = localFile("sent", size, ++seed);
        ssh->put(sent, "copy");
        EXPECT_EQ(testing::md5OfFile(sent), testing::md5OfFile(sshd().home() + "/copy"));
        const std::string back = (local / "back").string();
        ssh->get(back, "copy");
        EXPECT_EQ(size, fs::file_size(back));
        EXPECT_EQ(testing::md5OfFile(sent), testing::md5OfFile(back));
    }
}

TEST_F(Transfer, DownloadsAreMode0640WhateverTheUmaskAndEmptyForAMissingFile) {
    ASSERT_EQ(0, sshd().runAsUser("echo data > file").status);
    const mode_t previous = umask(0);
    const std::string path = (local / "got").string();
    ssh->get(path, "file");
    EXPECT_EQ(0u, umask(previous)) << "the download must restore the process umask";
    struct stat st;
    ASSERT_EQ(0, stat(path.c_str(), &st));
    EXPECT_EQ(0640u, st.st_mode & 07777);

    // A missing remote file downloads as empty; callers check sizes and sums.
    const std::string stale = (local / "stale").string();
    testing::writeTextFile(stale, "stale");
    ssh->get(stale, "no-such-file");
    EXPECT_EQ(0u, fs::file_size(stale));
}

}  // namespace
}  // namespace tavik
