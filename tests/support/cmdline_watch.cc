#include "support/cmdline_watch.h"

#include <boost/filesystem.hpp>
#include <chrono>

#include "support/sandbox_env.h"

namespace tavik {
namespace test {

CmdlineWatch::CmdlineWatch() : thread_([this] { scan(); }) {}

CmdlineWatch::~CmdlineWatch() { stop(); }

std::vector<std::string> CmdlineWatch::stop() {
    stopping_ = true;
    if (thread_.joinable()) thread_.join();
    std::lock_guard<std::mutex> lock(mutex_);
    return std::vector<std::string>(seen_.begin(), seen_.end());
}

void CmdlineWatch::scan() {
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

}  // namespace test
}  // namespace tavik
