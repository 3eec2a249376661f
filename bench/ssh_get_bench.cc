// Downloads one remote file a number of times and reports each run's throughput, the negotiated
// algorithms (so that OpenSSH can be run with the same) and the peak RSS.
//
//   FERRYGATE_BENCH_PASSWORD=... ssh_get_bench PORT USER REMOTE_FILE LOCAL_FILE RUNS [md5|WINDOW]
//
// Without a sixth argument the download is Ssh::get into a file. With "md5" it goes through the
// content download's DigestingWriter, which sums what it stores on a second thread: the two side
// by side are what verification costs. With WINDOW the same "cat" runs on a channel opened with
// that window (and packets of a quarter of it, at most 32 KiB), read by the same non-blocking
// loop: what the window alone is worth across a distance.
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
#include <stdexcept>

#include "commons/checksum.h"
#include "ferrygate/digesting_writer.h"
#include "ssh/libssh2pp.h"
#include "ssh/shell_quote.h"
#include "ssh/ssh_transfer.h"

int main(int argc, char** argv) {
    const char* password = std::getenv("FERRYGATE_BENCH_PASSWORD");
    if ((argc != 6 && argc != 7) || password == nullptr) {
        std::cerr << "usage: FERRYGATE_BENCH_PASSWORD=... " << argv[0]
                  << " PORT USER REMOTE_FILE LOCAL_FILE RUNS [md5|WINDOW]\n";
        return 2;
    }
    const std::string remote = argv[3], local = argv[4];
    const std::string mode = argc == 7 ? argv[6] : "";
    const unsigned window = mode == "md5" ? 0 : std::atoi(mode.c_str());
    try {
        // The bench's server is new each time: its key goes to a file of its own, beside the
        // download, and nowhere else.
        const tavik::HostKeyPolicy hostKeys(local + ".known_hosts");
        boost::filesystem::remove(hostKeys.file);
        tavik::Ssh ssh("127.0.0.1", argv[2], password, false, std::atoi(argv[1]), hostKeys);
        LIBSSH2_SESSION* session = ssh.session().get();
        std::cout << "cipher " << libssh2_session_methods(session, LIBSSH2_METHOD_CRYPT_SC) << "\n"
                  << "mac " << libssh2_session_methods(session, LIBSSH2_METHOD_MAC_SC) << "\n";
        for (int run = 0; run < std::atoi(argv[5]); ++run) {
            const auto start = std::chrono::steady_clock::now();
            if (window == 0) {
                std::ofstream out(local, std::ios::binary | std::ios::trunc);
                if (mode == "md5") {
                    tavik::Md5 digest;
                    tavik::DigestingWriter writer(out, digest);
                    std::ostream summed(&writer);
                    ssh.get(summed, remote);
                    if (!writer.finish()) throw std::runtime_error("cannot write");
                } else {
                    ssh.get(out, remote);
                }
                if (!out.flush()) throw std::runtime_error("cannot write");
            } else {
                const auto channel =
                    ssh.session().openChannel(window, std::min(32768u, window / 4));
                channel->exec("cat " + tavik::sh_quote(remote));
                channel->sendEof();
                std::ofstream out(local, std::ios::binary | std::ios::trunc);
                char buffer[65536];
                while (!channel->eof()) {
                    ssh.session().waitForInput(*channel, 1000);
                    out.write(buffer, channel->readQueued(0, buffer, sizeof buffer));
                }
                channel->waitClosed();
            }
            const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
            const double mb = boost::filesystem::file_size(local) / 1e6;
            std::cout << "run " << took.count() << " " << mb / took.count() << std::endl;
        }
    } catch (const std::exception& e) {
        std::cerr << "ssh_get_bench: " << e.what() << "\n";
        return 1;
    }
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    std::cout << "maxrss_kib " << usage.ru_maxrss << "\n";
}
