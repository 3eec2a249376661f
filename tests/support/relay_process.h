#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace tavik {
namespace test {

// fg-relay running in front of a local port, for tests that need distance or faults between
// ferrygate and sshd. The relay listens on a free loopback port from 20000 to 32767 (ferrygate
// refuses higher ones); connect to port() instead of
// the target. Rules are fg-relay options, e.g. {"--delay-down-ms", "25", "--cut-down-at", "5000"}.
// With tests/support/sshd_fixture.h: RelayProcess relay(server.port(), {...}) and connect to
// relay.port(). The constructor throws std::runtime_error when the relay does not start within five
// seconds.
class RelayProcess {
  public:
    RelayProcess(uint16_t targetPort, const std::vector<std::string>& rules);
    ~RelayProcess();
    RelayProcess(const RelayProcess&) = delete;
    RelayProcess& operator=(const RelayProcess&) = delete;

    uint16_t port() const { return port_; }
    pid_t pid() const { return pid_; }

    // Sends SIGTERM and waits. Returns the exit code, or 128 + signal when the relay was killed.
    int stop();

  private:
    pid_t pid_ = -1;
    uint16_t port_ = 0;
};

}  // namespace test
}  // namespace tavik
