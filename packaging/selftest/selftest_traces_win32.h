#pragma once

#include <string>
#include <vector>

// What the tests leave on a machine while they run, and how it goes away again.
namespace selftest {

// Why this machine is not one to test on now: no administrator's rights, the product or the Keri software is installed,
// or the companion's port is in use. One sentence for each; none when the machine is free. Changes nothing.
std::vector<std::string> obstacles();

// Notes in the file `journal` what the run is about to make, before it makes it. The note outlives a crash and a power
// failure. Returns false if it could not be written.
bool noteBeforeRun(const std::wstring& journal);

// True when a note of an earlier run that did not clean up is there.
bool isNoted(const std::wstring& journal);

// Removes what a noted run made, below the directory `work` and in the system, then the note itself: processes whose
// program lies below `root`, the service when its program lies there, the Keri registration, the packages, the
// directory. Returns a sentence for each thing that stays. Without a note it touches nothing.
std::vector<std::string> clean(const std::wstring& journal, const std::wstring& root, const std::wstring& work);

} // namespace selftest
