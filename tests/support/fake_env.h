// An environment for the actions without a network: the source host is a table of answers that
// records every command line, and this host's files live in a scratch directory.
#ifndef FERRYGATE_TESTS_SUPPORT_FAKE_ENV_H
#define FERRYGATE_TESTS_SUPPORT_FAKE_ENV_H

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "ferrygate/env.h"
#include "ferrygate/options.h"
#include "ferrygate/session.h"
#include "support/sandbox_env.h"

namespace tavik {
namespace testing {

struct FakeEnvFiles {
    FakeEnvFiles();
    ScratchDir dir;
    SessionFiles sessionFiles;
};

class FakeEnv : private FakeEnvFiles, public Env {
  public:
    struct Reply {
        // `during` runs before the reply, in the middle of the command (a lost connection, say).
        Reply(int status, std::string out = "", std::function<void()> during = {})
            : status(status), out(out), during(during) {}
        int status;
        std::string out;
        std::function<void()> during;
    };

    // A session, an agent "fake" (entry point run.pl, shared files beside it) and a scout.
    FakeEnv();

    // The newest rule whose text occurs in a command line answers it. Without one, "cat",
    // "tail -c +N", "cat >", "xargs -0 cat" and "xargs -0 rm" read and write `remoteFiles`
    // (sudo takes the first line of input), and any other command succeeds silently.
    void answer(const std::string& match, Reply reply) {
        rules_.insert(rules_.begin(), {match, reply});
    }
    config cfg;
    // Remote files by path (uploads by the quoted path).
    std::map<std::string, std::string> remoteFiles;
    std::vector<std::string> commands;
    // Remote files deleted, in order.
    std::vector<std::string> deleted;
    // Every migration status document as it was saved, rendered (xml_render).
    std::vector<std::string> statusSaves;
    uint64_t free = UINT64_MAX;

    int exec(const std::string& command, std::istream& in, std::ostream& out, std::ostream& err,
             bool quietOutput, bool quietInput, Ssh::Counter& counter) override;
    void setAlarm(Alarm*) override {}
    std::string agentsDir() const override { return dir.path() + "/agents"; }
    std::string scoutFile() const override { return dir.path() + "/scout.pl"; }
    FileOwner adminOwner() const override;
    uint64_t freeSpace(const std::string&) const override { return free; }
    MigrationStatusPtr createStatus() override;

  private:
    std::vector<std::pair<std::string, Reply>> rules_;
};

}  // namespace testing
}  // namespace tavik

#endif  // FERRYGATE_TESTS_SUPPORT_FAKE_ENV_H
