#include "packaging/setup/setup_session.h"

#include <windows.h>

#include <msi.h>
#include <msiquery.h>

namespace setup {
namespace {

void process(MSIHANDLE installation, INSTALLMESSAGE kind, const std::wstring& text) {
    const MSIHANDLE record = ::MsiCreateRecord(/*cParams=*/1);
    if (!record) return;
    // The text is a field of its own, so that brackets in a path stay what they are.
    ::MsiRecordSetStringW(record, 0, L"[1]");
    ::MsiRecordSetStringW(record, 1, text.c_str());
    ::MsiProcessMessage(installation, kind, record);
    ::MsiCloseHandle(record);
}

} // namespace

std::wstring Session::property(const wchar_t* name) const {
    wchar_t none[1] = {};
    DWORD length = 0;
    if (::MsiGetPropertyW(m_handle, name, none, &length) != ERROR_MORE_DATA) return {};
    std::wstring value(length + 1, L'\0'); // the system writes the end as well
    length = static_cast<DWORD>(value.size());
    if (::MsiGetPropertyW(m_handle, name, value.data(), &length) != ERROR_SUCCESS) return {};
    value.resize(length);
    return value;
}

void Session::setProperty(const wchar_t* name, const std::wstring& value) const {
    ::MsiSetPropertyW(m_handle, name, value.c_str());
}

void Session::log(const std::wstring& text) const {
    process(m_handle, INSTALLMESSAGE_INFO, L"Quorvane Keri Wrapper: " + text);
}

void Session::logError(const std::wstring& text) const {
    process(m_handle, INSTALLMESSAGE_ERROR, text);
}

} // namespace setup
