#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "support/sandbox_env.h"
#include "utils/read_configuration.h"

namespace {

void keep(void* reports, const char* report) {
    static_cast<std::vector<std::string>*>(reports)->push_back(report);
}

// A heap store, freed with everything it owns, and what the reader reported.
struct Store {
    conf_data* conf = static_cast<conf_data*>(calloc(1, sizeof(conf_data)));
    tavik::testing::ScratchDir dir;
    std::vector<std::string> reports;
    ~Store() { conf_free_r(conf); }
    std::string operator[](const std::string& name) const {
        const char* value = conf_get_r(name.c_str(), conf);
        return value != nullptr ? value : "<null>";
    }
    int read(const std::string& text, std::string path = "") {
        if (path.empty()) tavik::testing::writeTextFile(path = dir.path() + "/conf", text);
        return conf_read_file_to(path.c_str(), conf, keep, &reports);
    }
};

TEST(ConfigurationReader, TrailingWhiteSpaceFollowsTheTogglingRule) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"A value\n", "value"},              // the line break alone: odd, cut
        {"A value \n", "value \n"},          // a blank and the line break: even, kept
        {"A value  \n", "value  "},          // three: only the last goes
        {"A value\t \t\n", "value\t \t\n"},  // four: kept
        {"A value # note\n", "value"},       // one blank before a comment is cut
        {"A value  # note\n", "value  "},    // two are kept
        {"A value", "value"},                // a last line without a line break
        {"A  two words\n", "two words"},
    };
    for (const auto& c : cases) {
        Store store;
        ASSERT_EQ(0, store.read(c.first));
        EXPECT_EQ(c.second, store["A"]) << c.first;
    }
}

// Rejected lines are reported with their place; later definitions win, and the store grows and
// finds every name however many there are and in whatever order they came.
TEST(ConfigurationReader, RejectedLinesLaterDefinitionsAndManyNames) {
    Store store;
    std::string many;
    for (int i = 50; i > 0; --i) many += "N" + std::to_string(i) + " " + std::to_string(i) + "\n";
    EXPECT_EQ(0,
              store.read("# comment\n   \nEQ=1\nNOVALUE  \nHASH #x\n  _U_9 ok\nK 1\nK 2\n" + many));
    EXPECT_EQ(-1, store.read("", "/nonexistent/hmx.conf"));
    const std::string path = store.dir.path() + "/conf";
    EXPECT_EQ(
        (std::vector<std::string>{
            path + ":3: Invalid variable definition EQ=1: expected a space after variable name",
            path + ":4: Invalid variable definition NOVALUE  : expected a value",
            path + ":5: Invalid variable definition HASH #x: expected a value",
            "unable to open configuration file /nonexistent/hmx.conf: No such file or "
            "directory"}),
        store.reports);
    EXPECT_EQ(52u, store.conf->nmemb);
    EXPECT_EQ("ok", store["_U_9"]);
    EXPECT_EQ("2", store["K"]);
    for (int i = 1; i <= 50; ++i) EXPECT_EQ(std::to_string(i), store["N" + std::to_string(i)]);
}

}  // namespace
