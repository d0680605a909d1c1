#pragma once

#include <string>
#include <vector>

// What the tests leave on a machine while they run, and how it goes away again.
namespace selftest {

// Why this machine is not one to test on now: no administrator's rights, what the run would make is there already (the
// service, the product, its directories, the Keri software, settings of Windows Error Reporting), or the companion's
// port is in use. One sentence for each; none when the machine is free. Changes nothing.
std::vector<std::string> obstacles();

// Notes in the file `journal` what the run is about to make, before it makes it. The note outlives a crash and a power
// failure. Returns false if it could not be written.
bool noteBeforeRun(const std::wstring& journal);

// True when a note of an earlier run that did not clean up is there.
bool isNoted(const std::wstring& journal);

// Removes what a noted run made, then the note itself: the product where a test has installed it, processes whose
// program lies below `root` or where the tests install, the service when its program lies there, the Keri registration,
// the settings of error reporting, the directories, `work` among them. Returns a sentence for each thing that stays.
// Without a note it touches nothing. Waits up to ten minutes for Windows Installer.
std::vector<std::string> clean(const std::wstring& journal, const std::wstring& root, const std::wstring& work);

} // namespace selftest
