#include "support/relay_process.h"

#include <signal.h>

#include <stdexcept>

#include "ssh/shell_quote.h"

namespace tavik {
namespace test {

RelayProcess::RelayProcess(uint16_t targetPort, const std::string& rules) {
    // The shell's process id is the relay's after exec; the relay prints its port once it
    // listens, or says on standard error why it cannot and exits.
    const std::string line =
        "echo $$; exec " + sh_quote(FG_RELAY_BINARY) +
        " --listen 127.0.0.1:20000-32767 --target 127.0.0.1:" + std::to_string(targetPort) + " " +
        rules;
    out_ = popen(line.c_str(), "re");
    if (out_ == nullptr || std::fscanf(out_, "%d %hu", &pid_, &port_) != 2) {
        if (out_ != nullptr) pclose(out_);
        throw std::runtime_error("fg-relay did not start");
    }
}

RelayProcess::~RelayProcess() {
    kill(pid_, SIGTERM);
    pclose(out_);
}

}  // namespace test
}  // namespace tavik
