#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "support/sandbox_env.h"
#include "utils/files.h"
#include "utils/liblog.h"
#include "utils/read_configuration.h"

namespace {

using tavik::testing::inSandbox;
using tavik::testing::ScratchDir;
using tavik::testing::writeTextFile;

// A heap store freed with everything it owns, as the product configuration keeps it.
struct Store {
    conf_data* conf = static_cast<conf_data*>(calloc(1, sizeof(conf_data)));
    ~Store() { conf_free_r(conf); }
};

std::string valueOf(const char* name, const Store& store) {
    const char* value = conf_get_r(name, store.conf);
    return value != nullptr ? value : "<null>";
}

TEST(ConfigurationReader, TrailingWhiteSpaceFollowsTheTogglingRule) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"A value\n", "value"},                 // the line break alone: odd, cut
        {"A value \n", "value \n"},             // blank and line break: even, kept whole
        {"A value  \n", "value  "},             // three: loses only the last
        {"A value\t \t\n", "value\t \t\n"},     // four: kept whole
        {"A value # note\n", "value"},          // one blank before a comment is cut
        {"A value  # note\n", "value  "},       // two are kept
        {"A value", "value"},                   // last line without a line break
        {"A  spaced value\n", "spaced value"},  // inner blanks belong to the value
        {"A x\n", "x"},
        {"A x \n", "x \n"},
    };
    for (const auto& c : cases) {
        ScratchDir dir;
        writeTextFile(dir.path() + "/conf", c.first);
        Store store;
        ASSERT_EQ(0, conf_read_file_r((dir.path() + "/conf").c_str(), store.conf));
        EXPECT_EQ(c.second, valueOf("A", store)) << "line: " << c.first;
    }
}

TEST(ConfigurationReader, RejectedLinesAreLoggedAndSkipped) {
    ScratchDir dir;
    writeTextFile(dir.path() + "/conf",
                  "# comment\n"
                  "   \n"
                  "EQ=1\n"
                  "NOVALUE   \n"
                  "HASHONLY #x\n"
                  "  _UNDER_9 ok\n"
                  "KEEP first\n"
                  "KEEP second\n");
    tavik_log_init("console", 12, 0, 0, nullptr);
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    Store store;
    EXPECT_EQ(0, conf_read_file_r((dir.path() + "/conf").c_str(), store.conf));
    const std::string err = testing::internal::GetCapturedStderr();
    testing::internal::GetCapturedStdout();
    EXPECT_NE(std::string::npos,
              err.find("Invalid variable definition EQ=1\n\nExpected a space after variable "
                       "name\n"));
    EXPECT_NE(std::string::npos,
              err.find("Invalid variable definition NOVALUE   \n\nExpected a value"));
    EXPECT_NE(std::string::npos, err.find("Invalid variable definition HASHONLY #x\n"));
    EXPECT_EQ(2u, store.conf->nmemb);
    EXPECT_EQ("ok", valueOf("_UNDER_9", store));
    EXPECT_EQ("second", valueOf("KEEP", store));
    EXPECT_EQ("<null>", valueOf("EQ", store));
}

TEST(ConfigurationStore, GrowsPastTheFirstArrayAndSearchesSortedOrNot) {
    Store store;
    for (int i = 99; i >= 0; --i) {
        const std::string key = "K" + std::to_string(i);
        ASSERT_EQ(0, conf_set_r(key.c_str(), ("v" + std::to_string(i)).c_str(), store.conf));
    }
    EXPECT_EQ(100u, store.conf->nmemb);
    EXPECT_GE(store.conf->size, 100u);
    EXPECT_FALSE(store.conf->finalized);
    EXPECT_EQ("v42", valueOf("K42", store));
    conf_finalize_r(store.conf);
    EXPECT_TRUE(store.conf->finalized);
    for (size_t i = 1; i < store.conf->nmemb; ++i) {
        EXPECT_LT(std::string(store.conf->entries[i - 1].key), store.conf->entries[i].key);
    }
    for (int i = 0; i < 100; ++i) {
        const std::string key = "K" + std::to_string(i);
        EXPECT_EQ("v" + std::to_string(i), valueOf(key.c_str(), store));
    }
    EXPECT_EQ("<null>", valueOf("K100", store));
    ASSERT_EQ(0, conf_set_r("K7", "new", store.conf));
    EXPECT_EQ("new", valueOf("K7", store));
    EXPECT_EQ(100u, store.conf->nmemb);
}

TEST(ConfigurationReader, MissingFileFails) {
    Store store;
    EXPECT_EQ(-1, conf_read_file_r("/nonexistent/hmx.conf", store.conf));
}

TEST(ProductConfiguration, DefaultsWhenTheFileIsMissing) {
    ASSERT_TRUE(inSandbox());
    std::remove(HMX_CONF_FILE);
    EXPECT_EQ(-1, autoprepend());
    EXPECT_EQ(nullptr, hmxConfGet("PRODUCT_ROOT_D"));
    EXPECT_EQ(nullptr, hmxConfGetByIndex(DUMP_TMP_D));
    EXPECT_STREQ("/tmp", hmxConfGetDefaultByIndex(DUMP_TMP_D));
    EXPECT_STREQ("httpd", hmxConfGetDefault("HTTPD_SERVICE"));
    EXPECT_EQ("/usr/local/hmx/RKU/scout.pl", tavik::files::getScoutFileName());
    EXPECT_EQ("/usr/local/hmx/RKU/agents", tavik::files::agents::getDir());
    EXPECT_EQ("/usr/local/hmx/RKU/tmp", tavik::files::getTmpDir());
    EXPECT_EQ("/usr/local/hmx/RKU/log4cpp.properties", tavik::files::getRkuLogConfigFileName());
    EXPECT_EQ("/var/www/vhosts/example.org", tavik::files::getVhostDir("example.org"));
    EXPECT_EQ("dumping-status.xml", tavik::files::getRemoteDumpingStatusFileName());
    // A file that appears later is still read: failed loads are retried.
    writeTextFile(HMX_CONF_FILE, "PRODUCT_ROOT_D /opt/hmx\n");
    EXPECT_EQ(0, autoprepend());
    EXPECT_EQ("/opt/hmx/RKU/scout.pl", tavik::files::getScoutFileName());
}

TEST(ProductConfiguration, FileValuesWinAndTheCacheKeepsThem) {
    ASSERT_TRUE(inSandbox());
    writeTextFile(HMX_CONF_FILE,
                  "PRODUCT_ROOT_D /srv/hmx # where the panel lives\n"
                  "MAILMAN_ROOT_D /opt/mm\n"
                  "MAILMAN_ROOT_D /opt/mailman\n"
                  "CUSTOM_VAR custom\n");
    EXPECT_EQ(0, autoprepend());
    EXPECT_EQ("/srv/hmx/RKU/scout.pl", tavik::files::getScoutFileName());
    EXPECT_EQ("/srv/hmx/admin/sbin/mchk", tavik::files::getMchkFileName());
    EXPECT_EQ("/opt/mailman/bin/arch", tavik::files::getMailmanArchFileName());
    EXPECT_STREQ("custom", hmxConfGet("CUSTOM_VAR"));
    EXPECT_STREQ("/usr/bin", hmxConfGetDefaultByIndex(MYSQL_BIN_D));
    // Only table variables have defaults; the sentinel at the top is not looked up by name.
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_EQ(nullptr, hmxConfGetDefault("CUSTOM_VAR"));
    EXPECT_EQ(nullptr, hmxConfGetDefault("_MAX_POSSIBLE_HMX_CONF_VAR_NAME"));
    const std::string err = testing::internal::GetCapturedStderr();
    testing::internal::GetCapturedStdout();
    EXPECT_NE(std::string::npos,
              err.find("variable 'CUSTOM_VAR' isn't found neither in /etc/hmx/hmx.conf nor in "
                       "compile-time defaults\n"));
    const char* cached = hmxConfGetByIndex(PRODUCT_ROOT_D);
    writeTextFile(HMX_CONF_FILE, "PRODUCT_ROOT_D /elsewhere\n");
    EXPECT_EQ(0, autoprepend());
    EXPECT_EQ(cached, hmxConfGetByIndex(PRODUCT_ROOT_D));
}

}  // namespace
