#include "support/cmdline_watch.h"

#include <fcntl.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <chrono>

namespace tavik {
namespace test {

namespace {

// Processes come and go while /proc is read: a vanished one reads empty (a stream would throw).
std::string readCmdline(const std::string& path) {
    std::string line;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return line;
    char buffer[4096];
    for (ssize_t n; (n = read(fd, buffer, sizeof buffer)) > 0;) line.append(buffer, n);
    close(fd);
    return line;
}

}  // namespace

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
            std::string line = readCmdline((it->path() / "cmdline").string());
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
