// Downloads one remote file with Ssh::get a number of times and reports each run's throughput,
// the negotiated algorithms (so that OpenSSH can be run with the same) and the peak RSS.
//
//   FERRYGATE_BENCH_PASSWORD=... ssh_get_bench PORT USER REMOTE_FILE LOCAL_FILE RUNS
//
// Output, one "key value" per line: "cipher", "mac", then "run SECONDS MB_PER_S" per run, then
// "maxrss_kib".
#include <libssh2.h>
#include <sys/resource.h>

#include <boost/filesystem/operations.hpp>
#include <chrono>
#include <cstdlib>
#include <iostream>

#include "ssh/libssh2pp.h"
#include "ssh/ssh_transfer.h"

int main(int argc, char** argv) {
    if (argc != 6) {
        std::cerr << "usage: FERRYGATE_BENCH_PASSWORD=... " << argv[0]
                  << " PORT USER REMOTE_FILE LOCAL_FILE RUNS\n";
        return 2;
    }
    const char* password = std::getenv("FERRYGATE_BENCH_PASSWORD");
    if (password == nullptr) {
        std::cerr << "FERRYGATE_BENCH_PASSWORD is not set\n";
        return 2;
    }
    try {
        tavik::Ssh ssh("127.0.0.1", argv[2], password, false,
                       static_cast<unsigned short>(std::atoi(argv[1])));
        LIBSSH2_SESSION* session = ssh.session().get();
        std::cout << "cipher " << libssh2_session_methods(session, LIBSSH2_METHOD_CRYPT_SC) << "\n"
                  << "mac " << libssh2_session_methods(session, LIBSSH2_METHOD_MAC_SC) << "\n";
        for (int run = 0; run < std::atoi(argv[5]); ++run) {
            const auto start = std::chrono::steady_clock::now();
            ssh.get(std::string(argv[4]), std::string(argv[3]));
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
