#include <gtest/gtest.h>
#include <windows.h>

#include <optional>
#include <vector>

#include "core/memory/core_scopedhandle_win32.h"
#include "core/text/core_utf8.h"
#include "tests/support/registry_value.h"

namespace test {
namespace {

std::wstring wide(const std::string& text) {
    std::u16string out;
    EXPECT_TRUE(NS_CORE::fromUtf8(text, out));
    return {out.begin(), out.end()};
}

bool isText(DWORD type) {
    return type == REG_SZ || type == REG_EXPAND_SZ || type == REG_MULTI_SZ;
}

} // namespace

struct RegistryValue::Impl {
    // What a value holds, in the registry's own bytes.
    struct Stored {
        DWORD type = REG_NONE;
        std::vector<BYTE> bytes;
    };

    std::wstring subKey;
    std::wstring name;
    NS_CORE::ScopedKernelHandle mutex;
    bool keyWasThere = false;
    std::optional<Stored> before;

    NS_CORE::ScopedRegistryKey open() const {
        HKEY key = nullptr;
        EXPECT_EQ(::RegCreateKeyExW(HKEY_LOCAL_MACHINE, subKey.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE,
                                    KEY_ALL_ACCESS, nullptr, &key, nullptr),
                  ERROR_SUCCESS);
        return NS_CORE::ScopedRegistryKey(key);
    }

    void remember() {
        HKEY key = nullptr;
        keyWasThere = ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, subKey.c_str(), 0, KEY_QUERY_VALUE, &key) == ERROR_SUCCESS;
        if (!keyWasThere) return;
        const NS_CORE::ScopedRegistryKey owner(key);
        DWORD size = 0;
        if (::RegQueryValueExW(key, name.c_str(), nullptr, nullptr, nullptr, &size) == ERROR_SUCCESS) {
            before = Stored{REG_NONE, std::vector<BYTE>(size)};
            EXPECT_EQ(::RegQueryValueExW(key, name.c_str(), nullptr, &before->type, before->bytes.data(), &size),
                      ERROR_SUCCESS);
        }
    }

    void store(const Stored& value) const {
        // Text whose terminator was "forgotten", as the call sees it from what lies behind, would be given one.
        std::vector<BYTE> bytes = value.bytes;
        bytes.insert(bytes.end(), 8, BYTE{0xff});
        EXPECT_EQ(::RegSetValueExW(open().get(), name.c_str(), 0, value.type, bytes.data(),
                                   static_cast<DWORD>(value.bytes.size())),
                  ERROR_SUCCESS);
    }

    void remove() const { ::RegDeleteValueW(open().get(), name.c_str()); }
};

RegistryValue::RegistryValue(const std::string& subKey, const std::string& name, const std::filesystem::path& /*root*/)
    : m_impl(std::make_unique<Impl>()) {
    m_impl->subKey = wide(subKey);
    m_impl->name = wide(name);
    m_impl->mutex.reset(::CreateMutexA(nullptr, /*bInitialOwner=*/FALSE, "quorkeri-tests-registry"));
    const DWORD waited = ::WaitForSingleObject(m_impl->mutex.get(), INFINITE);
    EXPECT_TRUE(waited == WAIT_OBJECT_0 || waited == WAIT_ABANDONED);
    m_impl->remember();
}

RegistryValue::~RegistryValue() {
    if (m_impl->before) {
        m_impl->store(*m_impl->before);
    } else if (m_impl->keyWasThere) {
        m_impl->remove();
    } else {
        removeKey();
    }
    ::ReleaseMutex(m_impl->mutex.get());
}

void RegistryValue::set(uint32_t type, const std::string& bytes) {
    Impl::Stored value{type, {bytes.begin(), bytes.end()}};
    if (isText(type)) {
        const std::wstring text = wide(bytes);
        const auto* first = reinterpret_cast<const BYTE*>(text.data());
        value.bytes.assign(first, first + text.size() * sizeof(wchar_t));
    }
    m_impl->store(value);
}

void RegistryValue::removeValue() {
    m_impl->remove();
}

void RegistryValue::removeKey() {
    ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, m_impl->subKey.c_str());
}

} // namespace test
