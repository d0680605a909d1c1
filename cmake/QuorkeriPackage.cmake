# find_package(quorkeri) for programs outside the tree: `cmake --install BUILD --prefix DIR --component libraries` lays out
# headers, libraries and package files. The installation of the service does not contain them.
include(CMakePackageConfigHelpers)
set(package_dir lib/cmake/quorkeri)
install(EXPORT quorkeriTargets NAMESPACE quorkeri:: DESTINATION ${package_dir} COMPONENT libraries EXCLUDE_FROM_ALL)

# Abseil keeps its releases apart by the name of a namespace.
file(STRINGS "${quorkeri_abseil}/absl/base/options.h" QUORKERI_ABSEIL_RELEASE
  REGEX "^#define ABSL_OPTION_INLINE_NAMESPACE_NAME ")
string(REGEX REPLACE ".* " "" QUORKERI_ABSEIL_RELEASE "${QUORKERI_ABSEIL_RELEASE}")
configure_package_config_file("${CMAKE_CURRENT_LIST_DIR}/quorkeriConfig.cmake.in"
  "${PROJECT_BINARY_DIR}/quorkeriConfig.cmake" INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file("${PROJECT_BINARY_DIR}/quorkeriConfigVersion.cmake" COMPATIBILITY SameMajorVersion)
install(FILES "${PROJECT_BINARY_DIR}/quorkeriConfig.cmake" "${PROJECT_BINARY_DIR}/quorkeriConfigVersion.cmake"
  DESTINATION ${package_dir} COMPONENT libraries EXCLUDE_FROM_ALL)
if(WIN32)
  install(FILES "${CMAKE_CURRENT_LIST_DIR}/toolchain-windows-x86.cmake"
    DESTINATION ${package_dir} COMPONENT libraries EXCLUDE_FROM_ALL)
endif()
