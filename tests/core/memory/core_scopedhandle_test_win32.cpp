#include <gtest/gtest.h>

#include "core/memory/core_scopedhandle_win32.h"
#include "tests/support/child.h"
#include "tests/support/temp_dir.h"

namespace NS_CORE {
namespace {

constexpr DWORD kBefore = 4711;
int g_closed = 0;

void closeAndFail(HANDLE /*handle*/) {
    ++g_closed;
    ::SetLastError(ERROR_INVALID_HANDLE);
}

TEST(ScopedHandleWin32, ClosingKeepsTheLastError) {
    g_closed = 0;
    ::SetLastError(kBefore);
    {
        const ScopedHandle<Win32HandleTraits<HANDLE, &closeAndFail>> owner(::GetCurrentProcess());
    }
    EXPECT_EQ(::GetLastError(), kBefore);
    EXPECT_EQ(g_closed, 1);
}

// Closes what `value` names; afterwards the value is no longer a handle.
template <class Owner>
void close(typename Owner::Value value) {
    Owner owner(value);
    ASSERT_TRUE(owner);
    owner.reset();
    EXPECT_FALSE(owner);
    EXPECT_EQ(owner.get(), Owner().get());
}

TEST(ScopedHandleWin32, EachKindIsClosedByItsOwnFunction) {
    EXPECT_EQ(ScopedKernelHandle().get(), nullptr);
    EXPECT_EQ(ScopedFileHandle().get(), INVALID_HANDLE_VALUE);
    EXPECT_EQ(ScopedFindHandle().get(), INVALID_HANDLE_VALUE);

    const HANDLE event = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    close<ScopedKernelHandle>(event);
    EXPECT_FALSE(::SetEvent(event));

    // Nobody else may open the file or remove the directory meanwhile.
    const test::TempDir dir;
    const std::wstring file = (dir.path() / "file").wstring();
    close<ScopedFileHandle>(::CreateFileW(file.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr));
    EXPECT_TRUE(::DeleteFileW(file.c_str()));
    WIN32_FIND_DATAW found = {};
    const HANDLE search = ::FindFirstFileW((dir.path() / "*").c_str(), &found);
    close<ScopedFindHandle>(search);
    EXPECT_FALSE(::FindNextFileW(search, &found));

    const SC_HANDLE manager = ::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
    close<ScopedServiceHandle>(manager);
    EXPECT_FALSE(::CloseServiceHandle(manager));

    HKEY key = nullptr;
    ASSERT_EQ(::RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"SOFTWARE", 0, KEY_QUERY_VALUE, &key), ERROR_SUCCESS);
    close<ScopedRegistryKey>(key);
    EXPECT_EQ(::RegCloseKey(key), ERROR_INVALID_HANDLE);

    // Not loaded by this program before.
    constexpr const wchar_t* kLibrary = L"cabinet.dll";
    ASSERT_EQ(::GetModuleHandleW(kLibrary), nullptr);
    close<ScopedModule>(::LoadLibraryW(kLibrary));
    EXPECT_EQ(::GetModuleHandleW(kLibrary), nullptr);

    void* const memory = ::LocalAlloc(LMEM_MOVEABLE, 16);
    close<ScopedLocalMemory<void>>(memory);
    EXPECT_EQ(::LocalFlags(memory), UINT{LMEM_INVALID_HANDLE});
}

} // namespace
} // namespace NS_CORE
