// sentreld: the daemon behind web filtering. It has no command line; a launcher starts it and SIGTERM ends it.
#include "base/ProcessStart.h"
#include "daemon/SignalGate.h"
#include "daemon/Trace.h"
#include "daemon/VXControllerDaemon.h"
#include "store/STPreferenceController.h"

#include <clocale>
#include <cstdlib>

int main(int argc, char** argv) {
    Sentrel::beginProcess();
    Sentrel::holdSignalsForGood(); // the controller lets them in where they are safe; after it they are not
    // The trace log is wide text; without this a byte above 127 would cut a line.
    std::setlocale(LC_CTYPE, "C.UTF-8");
    try {
        Sentrel::VXController::main(argc, argv);
    } catch (...) {
        ST_TRACE(stDaemonFlow, 1, L"Exception in VXMain::main \n");
    }
    if (Sentrel::STPreferenceController::isChangingDebugLogging()) {
        std::quick_exit(0); // the statics stay as they are: the worker goes on until the process is gone
    }
    return 0; // also after a refused start: a launcher cannot tell it from a clean stop
}
