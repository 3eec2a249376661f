// Watches the command line of every process on the host while a test runs, for secrets that
// must never appear there. The source host of the end-to-end tests is this host, so the
// commands that ferrygate has sshd start are seen as well as ferrygate itself.
#ifndef FERRYGATE_TESTS_SUPPORT_CMDLINE_WATCH_H
#define FERRYGATE_TESTS_SUPPORT_CMDLINE_WATCH_H

#include <atomic>
#include <boost/filesystem.hpp>
#include <chrono>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/sandbox_env.h"

namespace tavik {
namespace test {

class CmdlineWatch {
  public:
    // Starts scanning /proc/*/cmdline in a thread of its own, a few hundred times a second.
    CmdlineWatch() : thread_([this] { scan(); }) {}
    CmdlineWatch(const CmdlineWatch&) = delete;
    CmdlineWatch& operator=(const CmdlineWatch&) = delete;
    ~CmdlineWatch() { stop(); }

    // Stops scanning (at once when already stopped) and returns every distinct command line seen,
    // its arguments joined by blanks.
    std::vector<std::string> stop() {
        stopping_ = true;
        if (thread_.joinable()) thread_.join();
        std::lock_guard<std::mutex> lock(mutex_);
        return std::vector<std::string>(seen_.begin(), seen_.end());
    }

  private:
    void scan() {
        namespace fs = boost::filesystem;
        while (!stopping_) {
            boost::system::error_code error;
            for (fs::directory_iterator it("/proc", error), end; !error && it != end;
                 it.increment(error)) {
                // A process that went away meanwhile reads as empty.
                std::string line = testing::readFile((it->path() / "cmdline").string());
                if (line.empty()) continue;
                for (char& c : line) c = c == '\0' ? ' ' : c;
                std::lock_guard<std::mutex> lock(mutex_);
                seen_.insert(line);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    }

    std::atomic<bool> stopping_{false};
    std::mutex mutex_;
    std::set<std::string> seen_;
    std::thread thread_;
};

}  // namespace test
}  // namespace tavik

#endif  // FERRYGATE_TESTS_SUPPORT_CMDLINE_WATCH_H
