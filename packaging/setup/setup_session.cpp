#include "packaging/setup/setup_session.h"

#include <windows.h>

#include <msi.h>
#include <msiquery.h>

#include <algorithm>

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

std::vector<std::wstring> splitData(const std::wstring& data, size_t count) {
    std::vector<std::wstring> parts(count);
    size_t begin = 0;
    for (std::wstring& part : parts) {
        if (begin > data.size()) break;
        const bool isLast = &part == &parts.back();
        const size_t end = isLast ? data.size() : std::min(data.find(L'|', begin), data.size());
        part = data.substr(begin, end - begin);
        begin = end + 1;
    }
    return parts;
}

std::wstring errorText(unsigned long code) {
    wchar_t buffer[512] = {};
    DWORD length =
        ::FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, /*lpSource=*/nullptr, code,
                         /*dwLanguageId=*/0, buffer, ARRAYSIZE(buffer), /*Arguments=*/nullptr);
    while (length > 0 && (buffer[length - 1] <= L' ' || buffer[length - 1] == L'.')) --length;
    return std::wstring(buffer, length) + L" (" + std::to_wstring(code) + L")";
}

} // namespace setup
