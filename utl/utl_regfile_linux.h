#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>

namespace NS_UTL {

// The Linux twin's registry: a text file in the format in which Windows' registry editor exports keys (.reg).
//
//     Windows Registry Editor Version 5.00           the first line
//
//     [HKEY_LOCAL_MACHINE\SOFTWARE\Name]             a key, with its root's long name
//     "Path"="C:\\Program Files\\Name"               REG_SZ; \\ and \" are the only escapes
//     @="the key's default value"                    whose name is empty
//     "Count"=dword:0000002a                         REG_DWORD
//     "Bytes"=hex:01,02,\                            REG_BINARY; a backslash continues the list on the next line
//       03
//     "Data"=hex(2):25,00,50,00,00,00                any type by its number, here REG_EXPAND_SZ
//     ; a comment                                    on a line of its own; an export has none, but samples do
//
// The text is UTF-16LE with a byte-order mark, or UTF-8 with or without one, with CRLF or LF. A quoted text may hold
// line breaks. Later lines win. Names are compared without regard to the case of ASCII letters. Forms that the editor
// imports but never exports are not supported: REGEDIT4 and deletions of keys and values are refused; keys below short
// root names (HKLM) are never found.
//
// Values are held as Windows' narrow calls return them: text types (REG_SZ, REG_EXPAND_SZ, REG_MULTI_SZ) as UTF-8 with
// their terminators as stored (a quoted text is stored with one), all others byte for byte.
//
// One thread at a time; several may read.
class RegFile {
public:
    struct Value {
        uint32_t type; // of RegType, or any other number
        std::string bytes;

        bool operator==(const Value&) const = default;
    };

    // Larger files are refused.
    static constexpr size_t kMaxFileSize = 1024 * 1024;

    // Replaces the contents with those of the file at `path` (UTF-8). False, with the contents empty and errno set,
    // when the file is missing (not logged), or cannot be read or is no registry export (logged at WARN with its name
    // and the reason; errno is EINVAL for the latter).
    [[nodiscard]] bool load(const std::string& path);

    // Replaces the contents with those of a file's bytes. Returns 0, or, with the contents empty, the number of the
    // first line that does not belong in a registry export; the first is 1.
    [[nodiscard]] int32_t parse(std::string_view file);

    bool hasKey(std::string_view path) const;

    // Borrowed until the contents change; null when there is no such key or value. An empty name means the default
    // value.
    const Value* findValue(std::string_view path, std::string_view name) const;

private:
    // By the key's path, or by that and the value's name; in lower case.
    std::map<std::string, Value> m_entries;
};

} // namespace NS_UTL
