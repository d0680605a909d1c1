#include <windows.h>

#include <string>

#include "service/main.h"

// The graphical subsystem's entry: the service has no console of its own.
int WINAPI WinMain(HINSTANCE /*instance*/, HINSTANCE /*previousInstance*/, LPSTR commandLine, int /*showState*/) {
    // A longer path is cut; one that cannot be told is empty.
    char program[MAX_PATH + 1] = {};
    ::GetModuleFileNameA(/*hModule=*/nullptr, program, MAX_PATH);
    service::ArgumentVector arguments(program, service::splitCommandLine(commandLine ? commandLine : ""));
    return service::runProcess(arguments);
}
