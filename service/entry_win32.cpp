#include <windows.h>

#include <optional>

#include "service/main.h"
#include "utl/utl_parentconsole_win32.h"
#include "utl/utl_service.h"

// The graphical subsystem's entry: the service has no console of its own.
int WINAPI WinMain(HINSTANCE /*instance*/, HINSTANCE /*previousInstance*/, LPSTR commandLine, int /*showState*/) {
    // A longer path is cut; one that cannot be told is empty.
    char program[MAX_PATH + 1] = {};
    ::GetModuleFileNameA(/*hModule=*/nullptr, program, MAX_PATH);
    service::ArgumentVector arguments(program, service::splitCommandLine(commandLine ? commandLine : ""));
    std::optional<NS_UTL::ParentConsole> console;
    if (NS_UTL::Service::isConsoleMode(arguments.count(), arguments.values())) console.emplace();
    return service::runProcess(arguments);
}
