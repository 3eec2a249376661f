// fg-relay in front of a local port, for tests that need distance or faults between ferrygate
// and sshd: RelayProcess relay(sshd.port(), "--delay-down-ms 25"), then connect to
// relay.port(), a free loopback port from 20000 to 32767 (ferrygate refuses higher ones). The
// constructor throws std::runtime_error when the relay does not start; the destructor ends it.
#pragma once

#include <signal.h>

#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <string>

#include "ssh/shell_quote.h"

namespace tavik {
namespace test {

class RelayProcess {
  public:
    // `rules` are words of a shell command line. The shell's process id is the relay's after
    // exec; the relay prints its port once it listens, or says why it cannot and exits.
    RelayProcess(uint16_t targetPort, const std::string& rules)
        : out_(popen(("echo $$; exec " + sh_quote(FG_RELAY_BINARY) +
                      " --listen 127.0.0.1:20000-32767 --target 127.0.0.1:" +
                      std::to_string(targetPort) + " " + rules)
                         .c_str(),
                     "re")) {
        if (out_ == nullptr || std::fscanf(out_, "%d %hu", &pid_, &port_) != 2) {
            if (out_ != nullptr) pclose(out_);
            throw std::runtime_error("fg-relay did not start");
        }
    }
    ~RelayProcess() {
        kill(pid_, SIGTERM);
        pclose(out_);
    }
    RelayProcess(const RelayProcess&) = delete;
    RelayProcess& operator=(const RelayProcess&) = delete;

    uint16_t port() const { return port_; }

  private:
    FILE* out_;
    pid_t pid_ = -1;
    uint16_t port_ = 0;
};

}  // namespace test
}  // namespace tavik
