// Watches the command line of every process on the host while a test runs, for secrets that
// must never appear there. The source host of the end-to-end tests is this host, so the
// commands that ferrygate has sshd start are seen as well as ferrygate itself.
#ifndef FERRYGATE_TESTS_SUPPORT_CMDLINE_WATCH_H
#define FERRYGATE_TESTS_SUPPORT_CMDLINE_WATCH_H

#include <atomic>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace tavik {
namespace test {

class CmdlineWatch {
  public:
    // Starts scanning /proc/*/cmdline in a thread of its own, a few hundred times a second.
    CmdlineWatch();
    CmdlineWatch(const CmdlineWatch&) = delete;
    CmdlineWatch& operator=(const CmdlineWatch&) = delete;
    ~CmdlineWatch();

    // Stops scanning (at once when already stopped) and returns every distinct command line seen,
    // its arguments joined by blanks.
    std::vector<std::string> stop();

  private:
    void scan();

    std::atomic<bool> stopping_{false};
    std::mutex mutex_;
    std::set<std::string> seen_;
    std::thread thread_;
};

}  // namespace test
}  // namespace tavik

#endif  // FERRYGATE_TESTS_SUPPORT_CMDLINE_WATCH_H
