#pragma once

#include <cstdint>

// Types of registry values, by the system's numbers.
namespace NS_UTL::RegType {

inline constexpr uint32_t None = 0;     // REG_NONE
inline constexpr uint32_t Sz = 1;       // REG_SZ
inline constexpr uint32_t ExpandSz = 2; // REG_EXPAND_SZ
inline constexpr uint32_t Binary = 3;   // REG_BINARY
inline constexpr uint32_t Dword = 4;    // REG_DWORD
inline constexpr uint32_t MultiSz = 7;  // REG_MULTI_SZ

} // namespace NS_UTL::RegType
