// Downloads one remote file a number of times and reports each run's throughput, the negotiated
// algorithms (so that OpenSSH can be run with the same) and the peak RSS.
//
//   FERRYGATE_BENCH_PASSWORD=... ssh_get_bench PORT USER REMOTE_FILE LOCAL_FILE RUNS [WINDOW]
//
// Without WINDOW the download is Ssh::get, as the product does it. With WINDOW the same "cat"
// runs on a channel opened with that window (and packets of a quarter of it, at most 32 KiB),
// read by the same non-blocking loop: what the window alone is worth across a distance.
//
// Output, one "key value" per line: "cipher", "mac", then "run SECONDS MB_PER_S" per run, then
// "maxrss_kib".
#include <libssh2.h>
#include <sys/resource.h>

#include <algorithm>
#include <boost/filesystem/operations.hpp>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iostream>

#include "ssh/libssh2pp.h"
#include "ssh/shell_quote.h"
#include "ssh/ssh_transfer.h"

namespace {

void getWithWindow(tavik::libssh2pp::Session& session, const std::string& remote,
                   const std::string& local, unsigned window) {
    const unsigned packet = std::min(32768u, window / 4);
    tavik::libssh2pp::Channel channel(libssh2_channel_open_ex(
        session.get(), "session", sizeof("session") - 1, window, packet, nullptr, 0));
    const std::string command = "cat " + tavik::sh_quote(remote);
    libssh2_channel_process_startup(channel.get(), "exec", 4, command.data(),
                                    static_cast<unsigned>(command.size()));
    libssh2_channel_send_eof(channel.get());
    std::ofstream out(local, std::ios::binary | std::ios::trunc);
    char buffer[65536];
    while (!libssh2_channel_eof(channel.get())) {
        session.waitForInput(channel, 1000);
        const ssize_t n = channel.readQueued(0, buffer, sizeof buffer);
        out.write(buffer, n);
    }
    libssh2_channel_wait_closed(channel.get());
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 6 && argc != 7) {
        std::cerr << "usage: FERRYGATE_BENCH_PASSWORD=... " << argv[0]
                  << " PORT USER REMOTE_FILE LOCAL_FILE RUNS [WINDOW]\n";
        return 2;
    }
    const char* password = std::getenv("FERRYGATE_BENCH_PASSWORD");
    if (password == nullptr) {
        std::cerr << "FERRYGATE_BENCH_PASSWORD is not set\n";
        return 2;
    }
    const unsigned window = argc == 7 ? static_cast<unsigned>(std::atoi(argv[6])) : 0;
    try {
        tavik::Ssh ssh("127.0.0.1", argv[2], password, false,
                       static_cast<unsigned short>(std::atoi(argv[1])));
        LIBSSH2_SESSION* session = ssh.session().get();
        std::cout << "cipher " << libssh2_session_methods(session, LIBSSH2_METHOD_CRYPT_SC) << "\n"
                  << "mac " << libssh2_session_methods(session, LIBSSH2_METHOD_MAC_SC) << "\n";
        for (int run = 0; run < std::atoi(argv[5]); ++run) {
            const auto start = std::chrono::steady_clock::now();
            if (window > 0) {
                getWithWindow(ssh.session(), argv[3], argv[4], window);
            } else {
                ssh.get(std::string(argv[4]), std::string(argv[3]));
            }
            const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
            const double mb = boost::filesystem::file_size(argv[4]) / 1e6;
            std::cout << "run " << took.count() << " " << mb / took.count() << std::endl;
        }
    } catch (const std::exception& e) {
        std::cerr << "ssh_get_bench: " << e.what() << "\n";
        return 1;
    }
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    std::cout << "maxrss_kib " << usage.ru_maxrss << "\n";
    return 0;
}
