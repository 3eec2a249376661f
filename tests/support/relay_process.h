// fg-relay in front of a local port, for tests that need distance or faults between ferrygate
// and sshd: RelayProcess relay(sshd.port(), "--delay-down-ms 25"), then connect to
// relay.port(), a free loopback port from 20000 to 32767 (ferrygate refuses higher ones). The
// constructor throws std::runtime_error when the relay does not start; the destructor ends it.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <cstdio>
#include <string>

namespace tavik {
namespace test {

class RelayProcess {
  public:
    // `rules` are words of a shell command line.
    RelayProcess(uint16_t targetPort, const std::string& rules);
    ~RelayProcess();
    RelayProcess(const RelayProcess&) = delete;
    RelayProcess& operator=(const RelayProcess&) = delete;

    uint16_t port() const { return port_; }

  private:
    FILE* out_ = nullptr;
    pid_t pid_ = -1;
    uint16_t port_ = 0;
};

}  // namespace test
}  // namespace tavik
