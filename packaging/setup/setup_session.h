#pragma once

#include <string>
#include <vector>

namespace setup {

// The running installation, as a custom action sees it. Texts are UTF-16, which is what Windows Installer speaks. Valid
// while the action's entry point runs; one thread.
class Session {
public:
    // handle  what Windows Installer passed to the entry point; stays its own.
    explicit Session(unsigned long handle) : m_handle(handle) {}

    // Empty when the property is not set. A deferred, rollback or commit action can read but "CustomActionData".
    std::wstring property(const wchar_t* name) const;
    std::wstring actionData() const { return property(L"CustomActionData"); }
    // Immediate actions only.
    void setProperty(const wchar_t* name, const std::wstring& value) const;

    // One line in the installer's log.
    void log(const std::wstring& text) const;
    // An error: shown where the installation has a face, always in the log and, on Windows, in the event log. The
    // action has to end with a failure afterwards.
    void logError(const std::wstring& text) const;

private:
    unsigned long m_handle;
};

// The data of a deferred action: `count` parts with bars between them. The last part may have bars of its own; parts
// that are missing are empty.
std::vector<std::wstring> splitData(const std::wstring& data, size_t count);

// The system's text for one of its codes, without line end, and the number behind it.
std::wstring errorText(unsigned long code);

} // namespace setup
