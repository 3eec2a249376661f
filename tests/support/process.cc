#include "support/process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

extern char** environ;

namespace tavik {
namespace test {

namespace {

// Closes what it holds; -1 means nothing.
class Fd {
  public:
    Fd() = default;
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    ~Fd() { reset(); }
    void reset(int fd = -1) {
        if (fd_ != -1) close(fd_);
        fd_ = fd;
    }
    int get() const { return fd_; }

  private:
    int fd_ = -1;
};

void makePipe(Fd& readEnd, Fd& writeEnd) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        throw std::runtime_error(std::string("pipe: ") + std::strerror(errno));
    }
    readEnd.reset(fds[0]);
    writeEnd.reset(fds[1]);
}

}  // namespace

ProcessResult runProcess(const std::vector<std::string>& argv, const std::string& input,
                         const std::vector<std::string>& extraEnv) {
    if (argv.empty()) throw std::runtime_error("runProcess: no program");
    // scripts/valgrind-e2e.sh names a wrapper that every ferrygate a test starts must run under.
    std::vector<std::string> words;
    const char* wrapper = getenv("FERRYGATE_WRAPPER");
    const std::string& program = argv[0];
    if (wrapper != nullptr && *wrapper != '\0' &&
        program.compare(program.rfind('/') + 1, std::string::npos, "ferrygate") == 0) {
        words = {"/bin/sh", "-c", std::string("exec ") + wrapper + " \"$0\" \"$@\""};
    }
    words.insert(words.end(), argv.begin(), argv.end());
    std::vector<char*> args;
    for (const auto& a : words) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    std::vector<char*> env;
    for (const auto& e : extraEnv) env.push_back(const_cast<char*>(e.c_str()));
    for (char** e = environ; *e; ++e) env.push_back(*e);
    env.push_back(nullptr);

    Fd inRead, inWrite, outRead, outWrite, errRead, errWrite;
    makePipe(inRead, inWrite);
    makePipe(outRead, outWrite);
    makePipe(errRead, errWrite);

    const pid_t pid = fork();
    if (pid == -1) throw std::runtime_error(std::string("fork: ") + std::strerror(errno));
    if (pid == 0) {
        // Only async-signal-safe calls until exec.
        dup2(inRead.get(), 0);
        dup2(outWrite.get(), 1);
        dup2(errWrite.get(), 2);
        signal(SIGPIPE, SIG_DFL);
        execve(args[0], args.data(), env.data());
        _exit(127);
    }
    inRead.reset();
    outWrite.reset();
    errWrite.reset();

    // A program that stops reading its input early must not kill the test with SIGPIPE.
    struct sigaction ignore = {}, previous = {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ignore, &previous);

    ProcessResult result;
    size_t written = 0;
    if (input.empty()) inWrite.reset();
    char buffer[65536];
    while (outRead.get() != -1 || errRead.get() != -1) {
        pollfd fds[3] = {
            {outRead.get(), POLLIN, 0}, {errRead.get(), POLLIN, 0}, {inWrite.get(), POLLOUT, 0}};
        if (::poll(fds, 3, -1) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        Fd* readers[2] = {&outRead, &errRead};
        std::string* sinks[2] = {&result.out, &result.err};
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd == -1 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
            const ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
            if (n > 0) {
                sinks[i]->append(buffer, n);
            } else if (n == 0 || errno != EINTR) {
                readers[i]->reset();
            }
        }
        if (fds[2].fd != -1 && fds[2].revents) {
            const ssize_t n = write(inWrite.get(), input.data() + written, input.size() - written);
            if (n > 0) written += n;
            if (n < 0 && errno != EINTR && errno != EAGAIN) inWrite.reset();
            if (written == input.size()) inWrite.reset();
        }
    }
    inWrite.reset();
    sigaction(SIGPIPE, &previous, nullptr);

    int status = 0;
    while (waitpid(pid, &status, 0) == -1 && errno == EINTR) {
    }
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

}  // namespace test
}  // namespace tavik
