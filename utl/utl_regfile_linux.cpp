#include "utl/utl_regfile_linux.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <utility>

#include "absl/strings/ascii.h"
#include "core/files/core_scopedfd.h"
#include "core/log/core_v2masterlogger.h"
#include "core/text/core_utf8.h"
#include "utl/utl_regtype.h"

namespace NS_UTL {
namespace {

// Stands between a key's path and a value's name in an entry's name; neither of them contains it.
constexpr char kBetween = '\n';

std::string lowerCase(std::string_view text) {
    std::string lower(text);
    for (char& c : lower) c = absl::ascii_tolower(static_cast<unsigned char>(c));
    return lower;
}

std::string utf8Of(std::string_view utf16le) {
    std::u16string units;
    for (; utf16le.size() >= 2; utf16le.remove_prefix(2))
        units.push_back(static_cast<char16_t>(static_cast<uint8_t>(utf16le[0]) | utf16le[1] << 8));
    return NS_CORE::toUtf8(units);
}

// The file's text as UTF-8 without its byte-order mark.
std::string textOf(std::string_view file) {
    if (file.starts_with("\xff\xfe")) return utf8Of(file.substr(2));
    if (file.starts_with("\xef\xbb\xbf")) file.remove_prefix(3);
    return std::string(file);
}

// Reads a text piece by piece. Each function returns false where the text continues with something else.
class Reader {
public:
    explicit Reader(std::string_view text) : m_rest(text) {}

    // What has not been read yet.
    std::string_view rest() const { return m_rest; }

    bool take(std::string_view what) {
        if (!m_rest.starts_with(what)) return false;
        m_rest.remove_prefix(what.size());
        return true;
    }
    bool takeLineEnd() { return take("\r\n") || take("\n") || m_rest.empty(); }
    bool takeComment() { return take(";") && take(restOfLine()); }

    // Names may hold brackets: the last one of the line closes. "[-" would delete a key.
    bool takeKey(std::string& path) {
        const std::string_view line = restOfLine();
        if (!line.starts_with('[') || line.starts_with("[-") || !line.ends_with(']')) return false;
        path = lowerCase(line.substr(1, line.size() - 2));
        return take(line);
    }
    bool takeValue(std::string& name, RegFile::Value& value) {
        if (!(take("@") || takeQuoted(name)) || !take("=")) return false;
        name = lowerCase(name);
        if (!takeQuoted(value.bytes)) return takeDword(value) || takeHex(value);
        value.bytes.push_back('\0');
        return true;
    }

private:
    std::string_view restOfLine() const {
        const std::string_view line = m_rest.substr(0, m_rest.find('\n'));
        return line.ends_with('\r') ? line.substr(0, line.size() - 1) : line;
    }
    bool takeQuoted(std::string& text) {
        if (!take("\"")) return false;
        for (; !m_rest.empty() && !m_rest.starts_with('"'); m_rest.remove_prefix(1)) {
            if (take("\\") && !m_rest.starts_with('\\') && !m_rest.starts_with('"')) return false;
            text.push_back(m_rest.front());
        }
        return take("\"");
    }
    // Hexadecimal, with that many digits at most.
    bool takeNumber(size_t maxDigits, uint32_t& number) {
        const std::string_view digits = m_rest.substr(0, maxDigits);
        const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number, 16);
        m_rest.remove_prefix(static_cast<size_t>(end - digits.data()));
        return error == std::errc();
    }
    bool takeDword(RegFile::Value& value) {
        uint32_t number = 0;
        if (!take("dword:") || !takeNumber(8, number)) return false;
        value.type = RegType::Dword;
        for (uint32_t shift = 0; shift < 32; shift += 8) value.bytes.push_back(static_cast<char>(number >> shift));
        return true;
    }
    bool takeHex(RegFile::Value& value) {
        value.type = RegType::Binary;
        if (!take("hex:") && !(take("hex(") && takeNumber(8, value.type) && take("):"))) return false;
        for (uint32_t byte = 0; takeNumber(2, byte);) {
            value.bytes.push_back(static_cast<char>(byte));
            if (take(",\\") && !takeLineEnd()) return false;
            while (take(",") || take(" ")) continue;
        }
        const bool isText = value.type == RegType::Sz || value.type == RegType::ExpandSz;
        if (isText || value.type == RegType::MultiSz) value.bytes = utf8Of(value.bytes);
        return true;
    }

    std::string_view m_rest;
};

// Logs why the file cannot be read, and sets errno to `error`. Returns false.
bool failLoading(const std::string& path, const std::string& reason, int error) {
    MLOG(Warn, "UTL::RegFile::load", "failed reading '%s': %s", path, reason);
    errno = error;
    return false;
}

} // namespace

bool RegFile::load(const std::string& path) {
    m_entries.clear();
    const NS_CORE::ScopedFd fd(NS_CORE::Wrapper::open(path, O_RDONLY, /*permissionMode=*/0));
    if (!fd) return errno != ENOENT && failLoading(path, std::strerror(errno), errno);
    std::string bytes(kMaxFileSize + 1, '\0');
    const int32_t size = NS_CORE::Wrapper::read(fd.get(), bytes.data(), static_cast<int32_t>(bytes.size()));
    if (size < 0) return failLoading(path, std::strerror(errno), errno);
    bytes.resize(static_cast<size_t>(size));
    if (bytes.size() > kMaxFileSize) return failLoading(path, std::strerror(EFBIG), EFBIG);
    const int32_t line = parse(bytes);
    return line == 0 || failLoading(path, "line " + std::to_string(line) + " is not a registry export's", EINVAL);
}

int32_t RegFile::parse(std::string_view file) {
    const std::string text = textOf(file);
    Reader reader(text);
    std::string_view entry = text; // begins at the line or value being read
    std::string key;
    m_entries.clear();
    bool isGood = reader.take("Windows Registry Editor Version 5.00") && reader.takeLineEnd();
    while (isGood && !reader.rest().empty()) {
        entry = reader.rest();
        std::string name;
        Value value{RegType::Sz, {}};
        if (reader.takeKey(key)) {
            m_entries.try_emplace(key);
        } else if (!key.empty() && reader.takeValue(name, value)) {
            std::string place = key;
            place += kBetween;
            place += name;
            m_entries.insert_or_assign(std::move(place), value);
        } else if (reader.rest().size() == entry.size()) {
            reader.takeComment();
        } else {
            isGood = false; // in the middle of a value
        }
        isGood = isGood && reader.takeLineEnd();
    }
    if (isGood) return 0;
    m_entries.clear();
    const auto before = static_cast<std::ptrdiff_t>(text.size() - entry.size());
    return 1 + static_cast<int32_t>(std::count(text.begin(), text.begin() + before, '\n'));
}

bool RegFile::hasKey(std::string_view path) const {
    return m_entries.contains(lowerCase(path));
}

const RegFile::Value* RegFile::findValue(std::string_view path, std::string_view name) const {
    const auto entry = m_entries.find(lowerCase(path) + kBetween + lowerCase(name));
    return entry == m_entries.end() ? nullptr : &entry->second;
}

} // namespace NS_UTL
