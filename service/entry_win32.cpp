#include <windows.h>

#include <optional>

#include "service/main.h"
#include "service/processmode_win32.h"
#include "utl/utl_commandline.h"
#include "utl/utl_parentconsole_win32.h"
#include "utl/utl_service.h"

// The graphical subsystem's entry: the service has no console of its own. The command line that the start-up code hands
// over is not used, because it ends the program's name at the first byte from 0x80 up.
int WINAPI WinMain(HINSTANCE /*instance*/, HINSTANCE /*previousInstance*/, LPSTR /*commandLine*/, int /*showState*/) {
    service::setProcessMode();
    // A longer path is cut; an unknown one is empty.
    char program[MAX_PATH] = {};
    ::GetModuleFileNameA(/*hModule=*/nullptr, program, MAX_PATH);
    const char* const commandLine = ::GetCommandLineA();
    service::ArgumentVector arguments(program,
                                      NS_UTL::splitCommandLine(NS_UTL::withoutProgram(commandLine ? commandLine : "")));
    std::optional<NS_UTL::ParentConsole> console;
    if (NS_UTL::Service::modeOf(arguments.count(), arguments.values()) == NS_UTL::Service::Mode::Console)
        console.emplace();
    return service::runProcess(arguments);
}
