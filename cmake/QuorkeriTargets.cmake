# What every target of the tree shares: the language, the warnings, the sanitizers, and the rules that choose platform
# sources and lay out the libraries for other programs.

add_library(quorkeri_options INTERFACE)
target_compile_features(quorkeri_options INTERFACE cxx_std_20)
target_include_directories(quorkeri_options INTERFACE "${PROJECT_SOURCE_DIR}")
target_compile_options(quorkeri_options INTERFACE
  -Wall -Wextra -Wpedantic -Werror -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast -Wcast-qual
  -Wnon-virtual-dtor -Woverloaded-virtual -Wextra-semi -Wundef -Wvla -Wimplicit-fallthrough
  -fno-omit-frame-pointer)

# Files are named from the tree's root, wherever that lies: the same sources give the same bytes. The last rule that
# fits counts. A compile cache may hand over relative names in place of absolute ones.
cmake_path(RELATIVE_PATH PROJECT_SOURCE_DIR BASE_DIRECTORY "${PROJECT_BINARY_DIR}" OUTPUT_VARIABLE quorkeri_way_up)
if(NOT quorkeri_way_up STREQUAL ".")
  target_compile_options(quorkeri_options INTERFACE "-ffile-prefix-map=${quorkeri_way_up}/=")
endif()
target_compile_options(quorkeri_options INTERFACE
  "-ffile-prefix-map=${PROJECT_SOURCE_DIR}/="
  "-ffile-prefix-map=${PROJECT_BINARY_DIR}=."
  "-ffile-prefix-map=${PROJECT_BINARY_DIR}/=")

if(WIN32)
  # DWARF 4, because Wine's dbghelp does not read version 5.
  target_compile_options(quorkeri_options INTERFACE -gdwarf-4 -ffunction-sections -fdata-sections)
  target_link_options(quorkeri_options INTERFACE -Wl,--gc-sections)
  # The interface of Windows 7, the oldest system that the programs run on.
  target_compile_definitions(quorkeri_options INTERFACE
    WIN32_LEAN_AND_MEAN NOMINMAX _WIN32_WINNT=0x0601)
endif()

# For targets that link core, which says what happens when a guard is overwritten: core_stackprotector_win32.cpp.
add_library(quorkeri_stack_guard INTERFACE)
if(WIN32)
  target_compile_options(quorkeri_stack_guard INTERFACE -fstack-protector-strong)
endif()

if(QUORKERI_SANITIZE)
  # The check of virtual pointers opens descriptors of its own, and tests take those away.
  target_compile_options(quorkeri_options INTERFACE
    "-fsanitize=${QUORKERI_SANITIZE}" -fno-sanitize=vptr -fno-sanitize-recover=all)
  target_link_options(quorkeri_options INTERFACE "-fsanitize=${QUORKERI_SANITIZE}")
endif()

if(QUORKERI_FUZZERS)
  # The fuzzers choose their inputs by the code that these reach, so all of it counts: the libraries', too.
  target_compile_options(quorkeri_options INTERFACE -fsanitize=fuzzer-no-link)
endif()

# quorkeri_platform_sources(OUT DIR): every .cpp of DIR that belongs to the platform being built. The file's
# name says which: unit_win32.cpp is Windows', unit_linux.cpp is Linux', all others are both's.
function(quorkeri_platform_sources out dir)
  file(GLOB_RECURSE sources CONFIGURE_DEPENDS "${dir}/*.cpp")
  if(WIN32)
    list(FILTER sources EXCLUDE REGEX "_linux\\.cpp$")
  else()
    list(FILTER sources EXCLUDE REGEX "_win32\\.cpp$")
  endif()
  set(${out} "${sources}" PARENT_SCOPE)
endfunction()

# quorkeri_library(NAME SOURCE...): a library of the tree, which `cmake --install DIR --component libraries` lays out for
# other programs, without its `_platform.h` headers and those of the other platform.
function(quorkeri_library name)
  add_library(${name} STATIC ${ARGN})
  target_compile_features(${name} PUBLIC cxx_std_20)
  target_link_libraries(${name} PRIVATE "$<BUILD_INTERFACE:quorkeri_stack_guard>" "$<BUILD_INTERFACE:quorkeri_options>")
  target_include_directories(${name} PUBLIC
    "$<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>" "$<INSTALL_INTERFACE:include/quorkeri>")
  install(TARGETS ${name} EXPORT quorkeriTargets
    ARCHIVE DESTINATION lib/quorkeri COMPONENT libraries EXCLUDE_FROM_ALL)
  set(other_platform "_win32\\.h$")
  if(WIN32)
    set(other_platform "_linux\\.h$")
  endif()
  install(DIRECTORY "${CMAKE_CURRENT_SOURCE_DIR}/" DESTINATION include/quorkeri/${name}
    COMPONENT libraries EXCLUDE_FROM_ALL FILES_MATCHING PATTERN "*.h"
    REGEX "_platform\\.h$" EXCLUDE
    REGEX "${other_platform}" EXCLUDE)
endfunction()

# quorkeri_link_used(TARGET LIBRARY...): links a program for Windows with Abseil as one object that holds just the functions
# that are called: a third of the size of what the archives bring in. The LIBRARYs are the tree's own that call them.
function(quorkeri_link_used target)
  file(GLOB_RECURSE abseil_archives "${absl_DIR}/../../../abseil/*.a")
  set(abseil_used "${CMAKE_CURRENT_BINARY_DIR}/${target}_abseil.obj")
  string(REGEX REPLACE "nm$" "" tool_prefix "${CMAKE_NM}")
  set(link_used "${PROJECT_SOURCE_DIR}/scripts/lib/link-used")
  list(TRANSFORM ARGN REPLACE "(.+)" "$<TARGET_FILE:\\1>" OUTPUT_VARIABLE users)
  add_custom_command(OUTPUT "${abseil_used}"
    COMMAND "${link_used}" "${tool_prefix}" "${abseil_used}" ${abseil_archives} -- ${users}
    DEPENDS "${link_used}" ${ARGN} ${abseil_archives}
    COMMENT "Joining what ${target} uses of Abseil"
    VERBATIM)
  target_sources(${target} PRIVATE "${abseil_used}")
endfunction()

# Everything that `cmake --install` needs to be built.
add_custom_target(shipped_programs)

# quorkeri_shipped_program(TARGET LIBRARY...): links a program of the packages for Windows and installs it with its
# symbols. The LIBRARYs are the tree's own that it consists of.
function(quorkeri_shipped_program target)
  add_dependencies(shipped_programs ${target})
  install(TARGETS ${target} RUNTIME DESTINATION bin)
  if(NOT WIN32)
    return()
  endif()
  # Data that is not executed, and another address at each start. Not --no-seh: the crash guard is a handler of that kind.
  target_link_options(${target} PRIVATE -Wl,--nxcompat -Wl,--dynamicbase)
  # Sections begin on a page of the file as well, so that Wine maps them. It reads other sections, and each page that it
  # reads becomes private memory of the process.
  target_link_options(${target} PRIVATE -Wl,--file-alignment,4096)
  # Windows 7, as in the manifest: an older system then says that it is too old, not that a DLL is missing.
  target_link_options(${target} PRIVATE
    -Wl,--major-os-version,6,--minor-os-version,1,--major-subsystem-version,6,--minor-subsystem-version,1)
  quorkeri_link_used(${target} ${ARGN})
  # Symbols for Windows' own tools and stack traces, which do not read DWARF. They look for the file beside the
  # program and in "symbols" below that.
  set(pdb "${CMAKE_CURRENT_BINARY_DIR}/${target}.pdb")
  target_link_options(${target} PRIVATE "-Wl,--pdb=${pdb}")
  set_property(TARGET ${target} APPEND PROPERTY ADDITIONAL_CLEAN_FILES "${pdb}")
  install(FILES "${pdb}" DESTINATION bin)
  # The linker takes the header's time stamp from here, not from the clock.
  include(QuorkeriStamp)
  set_property(TARGET ${target} PROPERTY RULE_LAUNCH_LINK
    "\"${CMAKE_COMMAND}\" -E env SOURCE_DATE_EPOCH=${QUORKERI_BUILD_SECONDS}")
endfunction()
