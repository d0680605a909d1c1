#pragma once

#include <windows.h>

#include <tlhelp32.h>

#include <filesystem>
#include <string>

#include "core/memory/core_scopedhandle_win32.h"
#include "tests/system/platform.h"

namespace test {

struct StartOptions {
    DWORD flags = 0;
    const wchar_t* directory = nullptr; // this process's own
    STARTUPINFOW startup = {};
    BOOL inherits = FALSE; // the handles that can be inherited
};

// Starts a command line; throws when it cannot. Empty for a program of Linux, which Wine starts without a handle.
NS_CORE::ScopedKernelHandle startProgram(std::wstring line, StartOptions options = {});

// Waits for the process to end; throws when it cannot.
DWORD exitCodeOf(const NS_CORE::ScopedKernelHandle& process);

// Calls use(entry), with a PROCESSENTRY32W, for each process whose program lies below `root`.
template <class Use>
void forEachProcessBelow(const std::filesystem::path& root, Use use) {
    const NS_CORE::ScopedFileHandle snapshot(::CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
    PROCESSENTRY32W entry{};
    entry.dwSize = sizeof entry;
    for (BOOL more = ::Process32FirstW(snapshot.get(), &entry); more; more = ::Process32NextW(snapshot.get(), &entry)) {
        if (processRuns(entry.th32ProcessID, root)) use(entry);
    }
}

} // namespace test
