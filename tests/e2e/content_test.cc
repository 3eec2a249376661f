// Long dumps and content transfers: progress while they run, resuming, space, stopping.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <utime.h>

#include <atomic>
#include <boost/filesystem.hpp>
#include <chrono>
#include <fstream>
#include <set>
#include <thread>

#include "commons/checksum.h"
#include "commons/debug_log.h"
#include "ferrygate/dispatch.h"
#include "ferrygate/session.h"
#include "support/migration_host.h"

namespace tavik {
namespace test {
namespace {

namespace fs = boost::filesystem;

class Content : public MigrationTest {
  protected:
    Content() : MigrationTest(FERRYGATE_BINARY) {}
};

TEST_F(Content, ALongDumpRefreshesTheSessionsDumpingStatus) {
    configureAgent("delay = 12\n");
    ASSERT_EQ(0, ferrygate({"--deploy-agent"}).status);
    std::atomic<bool> done(false);
    ProcessResult r;
    std::thread dump([&] {
        r = ferrygate({"--dump-all"});
        done = true;
    });
    // Each refresh replaces the copy with a new file; the agent's own text may not have changed
    // in between.
    std::set<ino_t> seen;
    while (!done) {
        struct stat st;
        const std::string copy = readFile(sessionFile("dumping-status.xml"));
        if (copy.find("state=\"running\"") != std::string::npos &&
            stat(sessionFile("dumping-status.xml").c_str(), &st) == 0) {
            seen.insert(st.st_ino);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    dump.join();
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_GE(seen.size(), 2u) << readFile(sessionFile("migration.log"));
}

TEST_F(Content, ARerunSkipsWhatIsAlreadyHereAndFetchesTheRest) {
    deployAndDump();
    const auto files = dumpArchives();
    ASSERT_EQ(4u, files.size());
    const std::string dumps = session_ + "/elsewhere/dumps";
    const std::string kept = files[1].name;
    const std::string broken = files[3].name;
    // As an interrupted run leaves them: one copy whole, one cut short.
    fs::create_directories(dumps);
    testing::writeTextFile(dumps + "/" + kept, readFile(remoteAgent_ + "/content/" + kept));
    struct utimbuf old = {1000000000, 1000000000};
    utime((dumps + "/" + kept).c_str(), &old);
    testing::writeTextFile(dumps + "/" + broken, "cut short");

    for (int run = 0; run < 2; ++run) {
        const ProcessResult r = ferrygate({"--get-content", "--dumps-dir=" + dumps});
        ASSERT_EQ(0, r.status) << r.err;
        for (const auto& file : files) {
            EXPECT_EQ(file.md5, md5OfFile(dumps + "/" + file.name));
            EXPECT_FALSE(fs::exists(sessionFile(file.name)));
            EXPECT_EQ(file.name == kept, fs::exists(remoteAgent_ + "/content/" + file.name))
                << file.name;
        }
        EXPECT_EQ(1000000000, fs::last_write_time(dumps + "/" + kept)) << "fetched again";
        EXPECT_EQ(dumps + "/dump.xml", readFile(sessionFile("dump-name")));
        EXPECT_NE(std::string::npos, readFile(sessionFile("migration.status")).find("<idle/>"));
    }
}

TEST_F(Content, SpaceIsCheckedUnlessToldNotTo) {
    addRandomFile("shop.test/big.bin", 64 * 1024);
    deployAndDump();
    uint64_t total = 0;
    for (const auto& file : dumpArchives()) total += file.size;
    ASSERT_GT(total, 64u * 1024u);

    const std::string dumps = session_ + "/small";
    fs::create_directories(dumps);
    ASSERT_EQ(0, mount("fgsmall", dumps.c_str(), "tmpfs", 0, "size=16k"));
    ProcessResult r = ferrygate({"--get-content", "--dumps-dir=" + dumps});
    EXPECT_EQ(2, r.status);
    EXPECT_EQ("Selected filesystem has only 16384 free space, but " + std::to_string(total) +
                  " is needed for operation",
              r.err);
    EXPECT_TRUE(fs::is_empty(dumps));

    r = ferrygate({"--get-content", "--no-check-space", "--dumps-dir=" + dumps});
    EXPECT_EQ(2, r.status);
    EXPECT_EQ(std::string::npos, r.err.find("Selected filesystem")) << r.err;
    EXPECT_FALSE(fs::is_empty(dumps));
    umount(dumps.c_str());
}

TEST_F(Content, AStopRequestedDuringATransferEndsTheRunInOrder) {
    addRandomFile("shop.test/big.bin", 16 * 1024 * 1024);
    deployAndDump();
    config cfg;
    cfg.action = ACTION_GET_CONTENT;
    cfg.host = "127.0.0.1";
    cfg.port = port();
    cfg.login = user();
    cfg.password = password();
    cfg.agentDir = remoteAgent_;
    cfg.agentName = "hostdump";
    cfg.sessionPath = session_;
    int code = -1;
    std::string out;
    {
        SessionLifetimeController session(session_);
        DebugLogLifetimeController debugLog(false, false);
        std::thread stopper([&] {
            // Once a download has begun (or after a minute, should it never begin).
            const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
            while (!fs::exists(sessionFile("shop.test_site.tar.gz")) &&
                   std::chrono::steady_clock::now() < deadline) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
            terminateProgram();
        });
        ::testing::internal::CaptureStdout();
        code = do_actions(cfg);
        out = ::testing::internal::GetCapturedStdout();
        stopper.join();
    }
    EXPECT_EQ(0, code);
    EXPECT_EQ("Migration has been terminated", out);
    EXPECT_NE(std::string::npos, readFile(sessionFile("migration.result")).find("success"));
    EXPECT_TRUE(fs::exists(remoteAgent_ + "/content/shop.test_site.tar.gz"))
        << "a file whose download was stopped was deleted on the source host";
}

}  // namespace
}  // namespace test
}  // namespace tavik
