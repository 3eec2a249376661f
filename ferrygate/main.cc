#include <signal.h>

#include <exception>
#include <iostream>

#include "commons/exceptions.h"
#include "commons/msg_formatter.h"
#include "ferrygate/ferrygate.h"

int main(int argc, char** argv) {
    // Signals blocked by the controlling process must reach this one.
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
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
