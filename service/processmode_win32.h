#pragma once

namespace service {

// What a process needs that runs unattended in a session without a desktop. The entry calls it first of all.
// - A DLL that is loaded by its name alone comes from the system's directory, not from "bin", where other people's
//   libraries lie. (Windows 7 without update KB2533623 keeps its own order.)
// - The system (for a missing DLL, say) and the runtime library report an error to the program instead of showing a box
//   that nobody can close. The companion inherits the system's part of this, because a box would keep it running for
//   ever, and the service waiting. Windows Error Reporting stays on for both.
void setProcessMode();

} // namespace service
