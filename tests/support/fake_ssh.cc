#include "support/fake_ssh.h"

#include <sstream>

namespace tavik {
namespace testing {

int FakeSsh::exec(const std::string& command, std::istream& in, std::ostream& out,
                  std::ostream& err, bool quietOutput, bool quietInput, Counter& counter) {
    std::ostringstream input;
    if (in.rdbuf() != nullptr) input << in.rdbuf();
    log_->push_back(SentCommand{command, input.str(), quietOutput, quietInput});
    const Reply reply = reply_ ? reply_(command, input.str()) : Reply();
    if (!reply.out.empty()) counter(static_cast<int>(reply.out.size()));
    out << reply.out;
    err << reply.err;
    return reply.status;
}

}  // namespace testing
}  // namespace tavik
