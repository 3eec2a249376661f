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
        int status;
        std::string out;
        std::string err;
        // Runs before the reply, in the middle of the command (a stop request, a change).
        std::function<void()> during;
    };
    struct Call {
        std::string command;
        std::string input;
    };

    // A session, an agent "fake" (entry point run.pl, shared files beside it) and a scout.
    FakeEnv();

    // The newest rule whose text occurs in a command line answers it; without one a command
    // succeeds silently, and "cat", "tail -c +N" and "cat >" read and write `remoteFiles`.
    void answer(const std::string& match, Reply reply) {
        rules_.insert(rules_.begin(), {match, reply});
    }
    // Remote files by path.
    std::map<std::string, std::string> remoteFiles;
    std::vector<Call> calls;
    // Remote files deleted, in order.
    std::vector<std::string> deleted;
    // Every migration status document as it was saved, rendered (xml_render).
    std::vector<std::string> statusSaves;
    // What the transport does every few seconds of a long command.
    void tick() {
        if (alarm_ != nullptr) alarm_->doAlarm();
    }
    uint64_t free = UINT64_MAX;

    std::vector<std::string> commands() const;
    std::string root() const { return dir.path(); }
    config cfg;

    int exec(const std::string& command, std::istream& in, std::ostream& out, std::ostream& err,
             bool quietOutput, bool quietInput, Ssh::Counter& counter) override;
    void setAlarm(Alarm* alarm) override { alarm_ = alarm; }
    std::string agentsDir() const override { return root() + "/agents"; }
    std::string scoutFile() const override { return root() + "/scout.pl"; }
    FileOwner adminOwner() const override;
    uint64_t freeSpace(const std::string&) const override { return free; }
    MigrationStatusPtr createStatus() override;

  private:
    std::vector<std::pair<std::string, Reply>> rules_;
    Alarm* alarm_ = nullptr;
};

}  // namespace testing
}  // namespace tavik

#endif  // FERRYGATE_TESTS_SUPPORT_FAKE_ENV_H
