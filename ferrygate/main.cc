#include <signal.h>

#include <exception>
#include <iostream>

#include "commons/checksum.h"
#include "commons/exceptions.h"
#include "commons/msg_formatter.h"
#include "ferrygate/ferrygate.h"

namespace {

// The controlling process asks for a stop: the run ends in order at the next chunk or wait, with
// its result saved and every partial download kept for the next run. Asked twice, it ends now.
void requestStop(int signal) {
    if (tavik::isProgramTerminated) {
        ::signal(signal, SIG_DFL);
        ::raise(signal);
        return;
    }
    tavik::terminateProgram();
}

}  // namespace

int main(int argc, char** argv) {
    // Signals blocked by the controlling process must reach this one.
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    struct sigaction stop = {};
    stop.sa_handler = requestStop;
    sigemptyset(&stop.sa_mask);
    // Interrupted system calls resume: a stop must never look like a broken connection.
    stop.sa_flags = SA_RESTART;
    for (int signal : {SIGTERM, SIGINT, SIGHUP}) sigaction(signal, &stop, nullptr);
    try {
        return tavik::real_main(argc, argv);
    } catch (const tavik::ExTraceable& e) {
        std::cerr << "Uncaught ExTraceableException: " << tavik::formatPlainTextMessage(e) << "\n";
    } catch (const std::exception& e) {
        std::cerr << "Uncaught std::exception: " << e.what() << "\n";
    } catch (...) {
        std::cerr << "Uncaught unknown exception\n";
    }
    return 1;
}
