#include "ferrygate/action.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "ferrygate/session.h"
#include "support/sandbox_env.h"

namespace tavik {
namespace {

// A content-list name that climbs out (or is absolute) still lands in the target directory.
class RecordingStatus : public XmlMigrationStatus {
  public:
    RecordingStatus() : XmlMigrationStatus(theSession->getStatusFileName(), adminAccount()) {}
    void setTransferSpeed(const std::string& value) override { speed = value; }
    void setTransferSizeLeft(const std::string& value) override { sizeLeft = value; }
    void setTransferCurrentFileSizeLeft(const std::string& value) override { fileLeft = value; }
    void saveFile() override { ++saves; }
    std::string speed, sizeLeft, fileLeft;
    int saves = 0;
};

// Sizes past 4 GiB stay exact; a file already here counts as done but not as transferred (the
// speed); blocks are saved at most five times a second, however many arrive.
TEST(ProgressUpdater, CountsEveryBlockAndSavesAtMostFiveTimesASecond) {
    ASSERT_TRUE(testing::addSystemAccount("hmxadm"));
    testing::ScratchDir scratch;
    SessionLifetimeController session(scratch.path());  // the document saves there as it ends
    RecordingStatus status;
    FileRetrievalProgressUpdater updater(&status, 5000000000LL);
    updater.startFile(3000000000LL);
    for (int i = 0; i < 1000; ++i) updater(65536);
    EXPECT_EQ("4934464000", status.sizeLeft);
    EXPECT_EQ("2934464000", status.fileLeft);
    updater.skip(1000);
    EXPECT_EQ("4934463000", status.sizeLeft);
    EXPECT_EQ(0, status.saves);
    sleep(1);
    updater(100);
    EXPECT_EQ("4934462900", status.sizeLeft);
    EXPECT_EQ(1, status.saves);
    // Whole seconds since the start: one or two have passed.
    EXPECT_TRUE(status.speed == "65536100" || status.speed == "32768050") << status.speed;
}

}  // namespace
}  // namespace tavik
