#pragma once

#include <string>

namespace setup {

// The running installation, as a custom action sees it. Texts are UTF-16, as Windows Installer takes them. Valid
// while the action's entry point runs; one thread.
class Session {
public:
    // handle  what Windows Installer passed to the entry point; remains the installer's.
    explicit Session(unsigned long handle) : m_handle(handle) {}

    // Empty when the property is not set. A deferred, rollback or commit action can read only "CustomActionData".
    std::wstring property(const wchar_t* name) const;
    std::wstring actionData() const { return property(L"CustomActionData"); }
    // Immediate actions only.
    void setProperty(const wchar_t* name, const std::wstring& value) const;

    // One line in the installer's log.
    void log(const std::wstring& text) const;
    // An error: shown where the installation has a window, always in the log and, on Windows, in the event log. The
    // action has to end with a failure afterwards.
    void logError(const std::wstring& text) const;

private:
    unsigned long m_handle;
};

} // namespace setup
