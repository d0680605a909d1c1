#include "utl/utl_regfile.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <utility>

#include "absl/strings/ascii.h"
#include "core/files/core_scopedfd.h"
#include "core/files/core_wrapper.h"
#include "core/log/core_v2masterlogger.h"
#include "core/text/core_utf8.h"
#include "core/text/core_varargs.h"
#include "utl/utl_registry.h"

namespace NS_UTL {
namespace {

// The second name is the short one, or empty.
constexpr std::string_view kRoots[][2] = {
    {"hkey_local_machine", "hklm"}, {"hkey_current_user", "hkcu"},   {"hkey_classes_root", "hkcr"},
    {"hkey_users", "hku"},          {"hkey_current_config", "hkcc"},
};

std::string lowerCase(std::string_view text) {
    std::string lower(text);
    for (char& c : lower) c = absl::ascii_tolower(static_cast<unsigned char>(c));
    return lower;
}

// A key's path as the map holds it: lower case, the root's long name, no backslash at its end. Nothing when there is
// no such root.
std::optional<std::string> normalPath(std::string_view path) {
    std::string lower = lowerCase(path);
    while (!lower.empty() && lower.back() == '\\') lower.pop_back();
    const size_t rootLength = std::min(lower.find('\\'), lower.size());
    for (const auto& [longName, shortName] : kRoots) {
        const std::string_view root = std::string_view(lower).substr(0, rootLength);
        if (root == longName) return lower;
        if (root == shortName) return lower.replace(0, rootLength, longName);
    }
    return std::nullopt;
}

// The keys below `path` stand together in the map, behind this one.
std::string prefixBelow(std::string_view path) {
    return std::string(path) + '\\';
}

std::u16string unitsOf(std::string_view utf16le) {
    std::u16string units(utf16le.size() / 2, u'\0');
    for (size_t i = 0; i < units.size(); ++i)
        units[i] =
            static_cast<char16_t>(static_cast<uint8_t>(utf16le[2 * i]) | static_cast<uint8_t>(utf16le[2 * i + 1]) << 8);
    return units;
}

// The file's text as UTF-8 without its byte-order mark.
std::string textOf(std::string_view file) {
    if (file.starts_with("\xff\xfe")) return NS_CORE::toUtf8(unitsOf(file.substr(2)));
    if (file.starts_with("\xef\xbb\xbf")) file.remove_prefix(3);
    return std::string(file);
}

bool isText(uint32_t type) {
    return type == RegType::Sz || type == RegType::ExpandSz || type == RegType::MultiSz;
}

bool isBlank(char c) {
    return c == ' ' || c == '\t';
}

// Reads one text from its beginning to its end. What it has taken is gone from m_rest.
class Parser {
public:
    Parser(std::string_view text, RegFile::Keys* keys) : m_rest(text), m_keys(keys) {}

    bool run() {
        if (!takeHeader()) return false;
        while (!m_rest.empty())
            if (!takeEntry()) return false;
        return true;
    }

    const RegFile::Error& error() const { return m_error; }

private:
    // What the bytes of hex(1) and its like are.
    enum class HexText { Utf16, Narrow };

    bool fail(std::string reason) { return failAt(m_line, std::move(reason)); }

    bool failAt(int32_t line, std::string reason) {
        m_error = {line, std::move(reason)};
        return false;
    }

    bool next(char c) const { return !m_rest.empty() && m_rest.front() == c; }

    bool take(std::string_view what) {
        if (!m_rest.starts_with(what)) return false;
        m_rest.remove_prefix(what.size());
        return true;
    }

    void skipBlanks() {
        while (!m_rest.empty() && isBlank(m_rest.front())) m_rest.remove_prefix(1);
    }

    // The rest of the line, without its end.
    std::string_view restOfLine() const {
        std::string_view line = m_rest.substr(0, m_rest.find('\n'));
        if (line.ends_with('\r')) line.remove_suffix(1);
        return line;
    }

    // The end of the text is one, too, and so is a CRLF that it cuts in half.
    bool atLineEnd() const {
        return m_rest.empty() || m_rest == "\r" || m_rest.starts_with("\n") || m_rest.starts_with("\r\n");
    }

    bool takeLineEnd() {
        if (!atLineEnd()) return false;
        take("\r");
        if (take("\n")) ++m_line;
        return true;
    }

    // What may stand behind everything: blanks and a comment.
    bool takeRemark() {
        skipBlanks();
        if (next(';')) m_rest.remove_prefix(restOfLine().size());
        return takeLineEnd();
    }

    bool takeHeader() {
        std::string_view header = restOfLine();
        while (!header.empty() && isBlank(header.back())) header.remove_suffix(1);
        if (header == "REGEDIT4") {
            m_hexText = HexText::Narrow;
        } else if (header != "Windows Registry Editor Version 5.00") {
            return fail("this is neither \"Windows Registry Editor Version 5.00\" nor \"REGEDIT4\"");
        }
        m_rest.remove_prefix(restOfLine().size());
        return takeLineEnd();
    }

    bool takeEntry() {
        skipBlanks();
        if (next('[')) return takeKey();
        if (next('"') || next('@')) return takeValue();
        return takeRemark() || fail("this is neither a key nor a value nor a comment");
    }

    bool takeKey() {
        const std::string_view line = restOfLine();
        // Names may hold brackets: the one that closes is followed by nothing, or by a comment.
        size_t close = line.find(']');
        for (; close != line.npos; close = line.find(']', close + 1)) {
            const size_t behind = line.find_first_not_of(" \t", close + 1);
            if (behind == line.npos || line[behind] == ';') break;
        }
        if (close == line.npos) return fail("the key has no closing bracket at its end");
        std::string_view name = line.substr(1, close - 1);
        m_rest.remove_prefix(close + 1);
        const bool deleted = name.starts_with('-');
        if (deleted) name.remove_prefix(1);
        std::optional<std::string> path = normalPath(name);
        if (!path) return fail(NS_CORE::formatString("the key '%s' has an unknown root", name));
        m_underKey = true;
        m_current = nullptr;
        if (deleted) {
            deleteKey(*path);
        } else {
            m_current = &(*m_keys)[*std::move(path)];
        }
        return takeRemark();
    }

    void deleteKey(const std::string& path) {
        const std::string prefix = prefixBelow(path);
        auto end = m_keys->lower_bound(prefix);
        const auto begin = end;
        while (end != m_keys->end() && end->first.starts_with(prefix)) ++end;
        m_keys->erase(begin, end);
        m_keys->erase(path);
        // A key stays when the last one below it goes.
        const size_t parent = path.rfind('\\');
        if (parent != path.npos) m_keys->try_emplace(path.substr(0, parent));
    }

    bool takeValue() {
        if (!m_underKey) return fail("a value stands before the first key");
        std::string name;
        if (!take("@") && !takeQuoted(&name)) return false;
        skipBlanks();
        if (!take("=")) return fail("the value's name is not followed by '='");
        skipBlanks();
        name = lowerCase(name);
        const int32_t line = m_line;
        if (take("-")) {
            if (m_current != nullptr) m_current->erase(name);
        } else {
            RegFile::Value value;
            if (!takeData(&value)) return false;
            if (m_current != nullptr) m_current->insert_or_assign(std::move(name), std::move(value));
        }
        // Of the line where the data begins: a forgotten quote shows up only where the next one stands.
        return takeRemark() || failAt(line, "the value's data is not followed by the line's end");
    }

    bool takeData(RegFile::Value* value) {
        if (next('"')) {
            value->type = RegType::Sz;
            if (!takeQuoted(&value->bytes)) return false;
            value->bytes.push_back('\0');
            return true;
        }
        if (take("dword:")) return takeDword(value);
        if (take("hex:")) {
            value->type = RegType::Binary;
            return takeBytes(&value->bytes);
        }
        if (take("hex(")) {
            if (!takeHexNumber(8, &value->type) || !take("):")) return fail("hex( is not followed by a type and '):'");
            if (!takeBytes(&value->bytes)) return false;
            if (isText(value->type) && m_hexText == HexText::Utf16)
                value->bytes = NS_CORE::toUtf8(unitsOf(value->bytes));
            return true;
        }
        return fail("the value's data is neither quoted text nor dword:, hex: or '-'");
    }

    bool takeQuoted(std::string* text) {
        const int32_t begin = m_line;
        m_rest.remove_prefix(1);
        while (!m_rest.empty()) {
            const char c = m_rest.front();
            m_rest.remove_prefix(1);
            if (c == '"') return true;
            if (c == '\n') ++m_line;
            if (c == '\\') {
                if (!next('\\') && !next('"'))
                    return fail("a backslash in quoted text is not followed by another one or by a quote");
                text->push_back(m_rest.front());
                m_rest.remove_prefix(1);
            } else {
                text->push_back(c);
            }
        }
        return failAt(begin, "the quoted text has no closing quote");
    }

    // 1 to `maxDigits` hexadecimal digits.
    bool takeHexNumber(size_t maxDigits, uint32_t* number) {
        size_t digits = 0;
        *number = 0;
        while (digits < maxDigits && digits < m_rest.size() &&
               absl::ascii_isxdigit(static_cast<unsigned char>(m_rest[digits]))) {
            const auto digit = static_cast<uint8_t>(absl::ascii_tolower(static_cast<unsigned char>(m_rest[digits])));
            *number = *number << 4 | (digit <= '9' ? digit - uint32_t{'0'} : digit - uint32_t{'a'} + 10);
            ++digits;
        }
        m_rest.remove_prefix(digits);
        return digits != 0;
    }

    bool takeDword(RegFile::Value* value) {
        uint32_t number = 0;
        if (!takeHexNumber(8, &number)) return fail("dword: is not followed by hexadecimal digits");
        value->type = RegType::Dword;
        for (uint32_t shift = 0; shift < 32; shift += 8)
            value->bytes.push_back(static_cast<char>(number >> shift & 0xff));
        return true;
    }

    // Bytes separated by commas, up to the end of a line that does not go on.
    bool takeBytes(std::string* bytes) {
        for (;;) {
            skipBlanks();
            if (take("\\")) {
                if (!takeRemark()) return fail("a backslash between bytes is not followed by the line's end");
                if (m_rest.empty()) return fail("the list of bytes goes on behind the end of the file");
                continue;
            }
            if (atLineEnd() || next(';')) return true;
            uint32_t byte = 0;
            if (!takeHexNumber(2, &byte)) return fail("a byte is not written as two hexadecimal digits");
            bytes->push_back(static_cast<char>(byte));
            skipBlanks();
            if (!take(",") && !next('\\')) return true;
        }
    }

    std::string_view m_rest;
    RegFile::Keys* m_keys;
    int32_t m_line = 1;
    HexText m_hexText = HexText::Utf16;
    bool m_underKey = false;              // a key line has been seen
    RegFile::Values* m_current = nullptr; // of the key that values belong to; null below a deleted one
    RegFile::Error m_error;
};

// False, with errno set, when it cannot be read.
bool readAll(int fd, std::string* bytes) {
    constexpr int32_t kChunk = 64 * 1024;
    while (bytes->size() <= RegFile::kMaxFileSize) {
        const size_t size = bytes->size();
        bytes->resize(size + kChunk);
        const int32_t count = NS_CORE::Wrapper::read(fd, bytes->data() + size, kChunk);
        bytes->resize(size + static_cast<size_t>(count < 0 ? 0 : count));
        if (count <= 0) return count == 0;
    }
    errno = EFBIG;
    return false;
}

// Logs why the file cannot be had, and leaves errno at that.
bool failLoading(const std::string& path, int error) {
    MLOG(Warn, "UTL::RegFile::load", "failed reading '%s': %s", path, std::strerror(error));
    errno = error;
    return false;
}

} // namespace

bool RegFile::load(const std::string& path) {
    m_keys.clear();
    const NS_CORE::ScopedFd fd(NS_CORE::Wrapper::open(path, O_RDONLY, /*permissionMode=*/0));
    if (!fd) return errno == ENOENT ? false : failLoading(path, errno);
    std::string bytes;
    if (!readAll(fd.get(), &bytes)) return failLoading(path, errno);
    Error error;
    if (parse(bytes, &error)) return true;
    MLOG(Warn, "UTL::RegFile::load", "'%s' is no registry export: line %d: %s", path, error.line, error.reason);
    errno = EINVAL;
    return false;
}

bool RegFile::parse(std::string_view file, Error* error) {
    m_keys.clear();
    const std::string text = textOf(file);
    Parser parser(text, &m_keys);
    if (parser.run()) return true;
    m_keys.clear();
    *error = parser.error();
    return false;
}

bool RegFile::hasKey(std::string_view path) const {
    const std::optional<std::string> normal = normalPath(path);
    if (!normal) return false;
    if (m_keys.contains(*normal)) return true;
    const std::string prefix = prefixBelow(*normal);
    const auto below = m_keys.lower_bound(prefix);
    return below != m_keys.end() && below->first.starts_with(prefix);
}

const RegFile::Value* RegFile::findValue(std::string_view path, std::string_view name) const {
    const std::optional<std::string> normal = normalPath(path);
    if (!normal) return nullptr;
    const auto key = m_keys.find(*normal);
    if (key == m_keys.end()) return nullptr;
    const auto value = key->second.find(lowerCase(name));
    return value == key->second.end() ? nullptr : &value->second;
}

} // namespace NS_UTL
