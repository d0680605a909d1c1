#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace NS_UTL {

// Reads string values of one key below HKEY_LOCAL_MACHINE. On Linux the registry is the file
// "settings/registry.reg" below the working directory, in Windows' export format (utl_regfile_linux.h), as it is
// when open() is called. Failures are logged at WARN; misuse fails a CHECKF with an empty message and, if the process
// goes on, returns false. One thread at a time, for all objects together.
class RegistryKey {
public:
    // Receives a value's bytes, valid during the call only; getValue() returns its result.
    using Consumer = std::function<bool(const uint8_t* bytes, uint32_t count)>;

    RegistryKey() = default;
    RegistryKey(const RegistryKey&) = delete;
    RegistryKey& operator=(const RegistryKey&) = delete;
    ~RegistryKey() = default;

    // Opens `subKey`, a path with single backslashes, to query values. Once opened, the key stays open until the
    // process ends: neither this object nor its destruction closes it. On Windows a missing key is created, empty,
    // where the process has the right to do so; a 32-bit process sees the 32-bit view.
    [[nodiscard]] bool open(const std::string& subKey);

    // Reads the value `name`, which has to be of type REG_SZ, and hands its bytes as stored, terminators
    // included, to `consumer`. Text is UTF-8.
    [[nodiscard]] bool getValue(const std::string& name, const Consumer& consumer) const;

    // The same into `text`, less one trailing NUL. A value of no bytes at all is misuse. `text` is left alone on
    // failure.
    [[nodiscard]] bool getValue(const std::string& name, std::string& text) const;

private:
    void* m_key = nullptr; // HKEY
};

} // namespace NS_UTL
