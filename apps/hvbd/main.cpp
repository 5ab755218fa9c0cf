// hvbd, the hub process of Sentrel.
#include "apps/hvbd/HubCommandLine.h"
#include "apps/hvbd/HubProcess.h"
#include "base/ProcessStart.h"
#include "hub/Exceptions.h"

#include <clocale>
#include <cstdio>
#include <exception>

int main(int argc, char** argv) {
    Sentrel::beginProcess();
    using namespace HVB::hub;
    try {
        std::setlocale(LC_CTYPE, "C.UTF-8");
        const CommandLine line = parseCommandLine(argc, argv);
        if (line.exitCode) {
            return *line.exitCode;
        }
        return line.printBusConfiguration ? printBusConfiguration(*line.printBusConfiguration) : runHub(line);
    } catch (const HVB::HVBException& error) {
        std::fprintf(stderr, "hvbd: %s.\n", error.message().c_str());
    } catch (const std::exception& error) {
        std::fprintf(stderr, "hvbd: %s.\n", error.what());
    }
    return EXIT_FAILED;
}
