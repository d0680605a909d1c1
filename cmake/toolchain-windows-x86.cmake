# The product's target: 32-bit Windows, cross-compiled by Debian's mingw-w64.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_C_COMPILER i686-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER i686-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER i686-w64-mingw32-windres)

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)
set(CMAKE_FIND_ROOT_PATH /usr/i686-w64-mingw32)

# The universal C runtime in place of msvcrt.dll: only there does the invalid-parameter handler take effect.
# The headers stay the default ones, because Debian's static libstdc++ was built against them. The libraries are
# named one by one, so that no -lmsvcrt slips in. The result is one exe that needs only Windows' own DLLs.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static -nodefaultlibs")
set(quorkeri_runtime "-Wl,--start-group -lstdc++ -lmingw32 -lgcc -lgcc_eh -lmoldname -lmingwex -lucrt -lpthread")
string(APPEND quorkeri_runtime " -ladvapi32 -lshell32 -luser32 -lkernel32 -lws2_32 -ldbghelp -lbcrypt -Wl,--end-group")
set(CMAKE_C_STANDARD_LIBRARIES "${quorkeri_runtime}" CACHE STRING "")
set(CMAKE_CXX_STANDARD_LIBRARIES "${quorkeri_runtime}" CACHE STRING "")

# Tests run under Wine, in a prefix below the build tree. (This file is also installed with the libraries.)
if(EXISTS "${CMAKE_CURRENT_LIST_DIR}/../scripts/lib/wine-run")
  set(CMAKE_CROSSCOMPILING_EMULATOR "${CMAKE_CURRENT_LIST_DIR}/../scripts/lib/wine-run" CACHE STRING "")
endif()
