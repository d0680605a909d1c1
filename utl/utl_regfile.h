#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

namespace NS_UTL {

// A registry read from a text file in Windows' own export format (.reg), as regedit writes and imports it:
//
//     Windows Registry Editor Version 5.00           the first line; or REGEDIT4
//
//     [HKEY_LOCAL_MACHINE\SOFTWARE\Name]             a key; HKLM and the other short names too
//     "Path"="C:\\Program Files\\Name"               REG_SZ; \\ and \" are the only escapes
//     @="the key's default value"                    whose name is empty
//     "Count"=dword:0000002a                         REG_DWORD, up to eight hexadecimal digits
//     "Bytes"=hex:01,02,\                            REG_BINARY; a backslash goes on in the next line
//       03
//     "Data"=hex(2):25,00,50,00,00,00                any type by its number, here REG_EXPAND_SZ
//     "Old"=-                                        deletes a value; [-HKLM\A\B] a key with all below it
//     ; a comment
//
// The text is UTF-16LE with a byte-order mark, or UTF-8 with or without one, with CRLF or LF. Later lines win. Key
// and value names are compared without regard to the case of ASCII letters. A key exists when it or a key below it
// is named. A quoted text may hold line breaks. Values below a deleted key are ignored.
//
// Values are held as Windows' narrow calls hand them out: text types (REG_SZ, REG_EXPAND_SZ, REG_MULTI_SZ) as UTF-8
// with their terminators as stored (a quoted text is stored with one), all others byte for byte. The bytes of
// hex(1), hex(2) and hex(7) are UTF-16LE, but in a REGEDIT4 file narrow text already.
//
// One thread at a time; several may read.
class RegFile {
public:
    struct Value {
        uint32_t type; // of RegType (utl_registry.h), or any other number
        std::string bytes;

        bool operator==(const Value&) const = default;
    };

    // Why a text is no export file: `line` counts from 1, `reason` goes on from "line N: ".
    struct Error {
        int32_t line = 0;
        std::string reason;
    };

    // Files beyond are refused.
    static constexpr int64_t kMaxFileSize = 16 * 1024 * 1024;

    // Replaces the contents by those of the file at `path` (UTF-8). False, with the contents empty and errno telling
    // the kind of fault, when it is missing (not logged), or cannot be read or is no export file (logged at WARN
    // with its name and, for the latter, line and reason; errno is EINVAL).
    [[nodiscard]] bool load(const std::string& path);

    // Replaces the contents by those of a file's bytes. False, with the contents empty and `error` filled, when they
    // are no export file; `error` is left alone otherwise.
    [[nodiscard]] bool parse(std::string_view file, Error* error);

    // `path` begins with the root key's name, long or short.
    bool hasKey(std::string_view path) const;

    // Borrowed until the contents change; null when there is no such key or value. An empty name asks for the
    // default value.
    const Value* findValue(std::string_view path, std::string_view name) const;

    // Lower-case names to values, and lower-case paths to those.
    using Values = std::map<std::string, Value, std::less<>>;
    using Keys = std::map<std::string, Values, std::less<>>;

private:
    Keys m_keys;
};

} // namespace NS_UTL
