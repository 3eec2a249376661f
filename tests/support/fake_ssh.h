// A transport that runs nothing: it records every command with its input and answers from a
// script, so that tests can see exactly what an action sends to the source host.
#ifndef FERRYGATE_TESTS_SUPPORT_FAKE_SSH_H
#define FERRYGATE_TESTS_SUPPORT_FAKE_SSH_H

#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "ssh/ssh_transfer.h"

namespace tavik {
namespace testing {

struct SentCommand {
    std::string command;
    std::string input;
    bool quietOutput;
    bool quietInput;
};

// What the fake answers for one command.
struct Reply {
    int status = 0;
    std::string out;
    std::string err;
};

class FakeSsh : public Ssh {
  public:
    // Answers every command with `reply(command, input)`; the default answers status 0, no
    // output.
    typedef std::function<Reply(const std::string& command, const std::string& input)> Responder;

    explicit FakeSsh(std::vector<SentCommand>* log, Responder reply = Responder())
        : log_(log), reply_(reply) {}

    int exec(const std::string& command, std::istream& in, std::ostream& out, std::ostream& err,
             bool quietOutput, bool quietInput, Counter& counter) override {
        std::ostringstream input;
        if (in.rdbuf() != nullptr) input << in.rdbuf();
        log_->push_back(SentCommand{command, input.str(), quietOutput, quietInput});
        const Reply reply = reply_ ? reply_(command, input.str()) : Reply();
        if (!reply.out.empty()) counter(static_cast<int>(reply.out.size()));
        out << reply.out;
        err << reply.err;
        return reply.status;
    }

    // Answers `reply` to every command that contains `part`, and status 0 to the others.
    static Responder answer(const std::string& part, const Reply& reply) {
        return [part, reply](const std::string& command, const std::string&) {
            return command.find(part) != std::string::npos ? reply : Reply();
        };
    }

  private:
    std::vector<SentCommand>* log_;
    Responder reply_;
};

}  // namespace testing
}  // namespace tavik

#endif  // FERRYGATE_TESTS_SUPPORT_FAKE_SSH_H
