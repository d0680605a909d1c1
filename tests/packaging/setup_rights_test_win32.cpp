// Who may write to a directory that a LocalSystem service runs from, judged from security descriptors as Windows has
// them. Wine keeps little more of a descriptor than Linux' owner and mode; installation_tests tries those on real
// directories.

#include "packaging/setup/setup_rights.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <sddl.h>

#include "core/memory/core_scopedhandle_win32.h"

namespace {

struct Case {
    const char* description;
    const wchar_t* descriptor;
    setup::Place place;
    bool isOpen;
};

using enum setup::Place;

const Case kCases[] = {
    {"as set-up makes it", L"O:BAD:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;FRFX;;;BU)", Inside, false},
    {"owned by SYSTEM", L"O:SYD:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)", Inside, false},
    {"owned by a user", L"O:S-1-5-21-1-2-3-1001D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)", Inside, true},
    {"owned by everybody", L"O:WDD:P(A;OICI;FA;;;SY)", Inside, true},
    {"without an access list", L"O:BA", Inside, true},
    {"with an empty access list", L"O:BAD:P", Inside, false},
    {"users may change", L"O:BAD:P(A;OICI;FA;;;SY)(A;OICI;0x1301bf;;;BU)", Inside, true},
    {"everybody may do everything", L"O:BAD:P(A;OICI;GA;;;WD)", Inside, true},
    {"everybody may write, in generic words", L"O:BAD:P(A;OICI;GW;;;WD)", Inside, true},
    {"everybody may read, in generic words", L"O:BAD:P(A;OICI;GRGX;;;WD)", Inside, false},
    {"a user may add files", L"O:BAD:P(A;;0x2;;;S-1-5-21-1-2-3-1001)", Inside, true},
    {"a user may add directories", L"O:BAD:P(A;;0x4;;;S-1-5-21-1-2-3-1001)", Inside, true},
    {"a user may change the rights", L"O:BAD:P(A;;WD;;;S-1-5-21-1-2-3-1001)", Inside, true},
    {"a user may take it", L"O:BAD:P(A;;WO;;;S-1-5-21-1-2-3-1001)", Inside, true},
    {"what is made there later is a user's", L"O:BAD:P(A;OICIIO;GA;;;AU)", Inside, true},
    {"what is made there later is the creator's", L"O:BAD:P(A;OICIIO;GA;;;CO)", Inside, false},
    {"the owner's rights are limited", L"O:BAD:P(A;OICI;FA;;;OW)", Inside, false},
    {"only denied", L"O:BAD:P(D;OICI;FA;;;WD)(A;OICI;FA;;;SY)", Inside, false},
    // A system drive and a data drive as Windows formats them, and a directory that somebody made there.
    {"the system drive",
     L"O:SYD:PAI(A;;LC;;;AU)(A;OICIIO;SDGXGWGR;;;AU)(A;;FA;;;SY)(A;OICIIO;GA;;;SY)(A;OICI;FA;;;BA)"
     L"(A;OICI;0x1200a9;;;BU)",
     Root, false},
    {"a data drive", L"O:BAD:P(A;OICI;FA;;;BA)(A;OICI;FA;;;SY)(A;OICI;0x1301bf;;;AU)(A;OICI;0x1200a9;;;BU)", Root,
     false},
    {"a data drive that everybody administers", L"O:BAD:P(A;OICI;FA;;;WD)", Root, true},
    {"a directory of the system drive as the installation's", L"O:BAD:AI(A;ID;0x1301bf;;;AU)(A;OICIID;FA;;;BA)", Inside,
     true},
    {"a directory above that users may rename", L"O:BAD:AI(A;ID;0x1301bf;;;AU)(A;OICIID;FA;;;BA)", Above, true},
    {"a directory above where users may add", L"O:BAD:P(A;CI;0x116;;;BU)(A;OICIIO;GA;;;CO)(A;OICI;FA;;;BA)", Above,
     false},
    {"a directory above that is a user's", L"O:S-1-5-21-1-2-3-1001D:P(A;OICI;FA;;;BA)", Above, true},
};

TEST(SetupRights, SomebodyElseIsFound) {
    for (const Case& one : kCases) {
        SCOPED_TRACE(one.description);
        PSECURITY_DESCRIPTOR made = nullptr;
        ASSERT_TRUE(
            ::ConvertStringSecurityDescriptorToSecurityDescriptorW(one.descriptor, SDDL_REVISION_1, &made, nullptr));
        const NS_CORE::ScopedLocalMemory<void> descriptor(made);
        EXPECT_EQ(!setup::whoElseMayChange(descriptor.get(), one.place).empty(), one.isOpen);
    }
}

TEST(SetupRights, TheServicesOwnAccountIsTrusted) {
    PSECURITY_DESCRIPTOR made = nullptr;
    ASSERT_TRUE(::ConvertStringSecurityDescriptorToSecurityDescriptorW(L"O:BAD:P(A;OICI;FA;;;BA)(A;OICI;0x1301bf;;;LS)",
                                                                       SDDL_REVISION_1, &made, nullptr));
    const NS_CORE::ScopedLocalMemory<void> descriptor(made);
    BYTE account[SECURITY_MAX_SID_SIZE] = {};
    DWORD size = sizeof(account);
    ASSERT_TRUE(::CreateWellKnownSid(WinLocalServiceSid, nullptr, account, &size));
    EXPECT_FALSE(setup::whoElseMayChange(descriptor.get(), Inside).empty());
    EXPECT_TRUE(setup::whoElseMayChange(descriptor.get(), Inside, account).empty());
}

} // namespace
