# What a build says it is. A release sets these on the command line (-DQUORKERI_RELEASE_TAG=...), and changes no
# source; the values are never taken from the clock, so that the same settings give the same program.
set(QUORKERI_RELEASE_TAG "tag_ravelin_1_1_final_0" CACHE STRING "Release tag: letters, digits, '_', '.', '-'")
set(QUORKERI_BUILD_ID "191120-144957" CACHE STRING "Date and time of the build run: YYMMDD-HHMMSS")
set(QUORKERI_BUILD_DATE "Nov 20 2019" CACHE STRING "Date of compiling: Mmm dd yyyy")
set(QUORKERI_BUILD_TIME "16:03:44" CACHE STRING "Time of compiling: hh:mm:ss")
if(WIN32)
  set(quorkeri_system win)
else()
  set(quorkeri_system linux)
endif()
set(QUORKERI_PLATFORM "${quorkeri_system}_${CMAKE_SYSTEM_PROCESSOR}" CACHE STRING
  "Operating system and processor family")

# quorkeri_check_stamp(VARIABLE REGEX): stops the configuration where a value has not its form.
function(quorkeri_check_stamp variable regex)
  if(NOT "${${variable}}" MATCHES "^${regex}$")
    get_property(form CACHE ${variable} PROPERTY HELPSTRING)
    message(FATAL_ERROR "${variable} is \"${${variable}}\"; its form: ${form}")
  endif()
endfunction()
quorkeri_check_stamp(QUORKERI_RELEASE_TAG "[A-Za-z0-9_.-]+")
quorkeri_check_stamp(QUORKERI_BUILD_ID "[0-9][0-9][0-9][0-9][0-9][0-9]-[0-9][0-9][0-9][0-9][0-9][0-9]")
quorkeri_check_stamp(QUORKERI_BUILD_DATE "[A-Z][a-z][a-z] [ 0-9][0-9] [0-9][0-9][0-9][0-9]")
quorkeri_check_stamp(QUORKERI_BUILD_TIME "[0-9][0-9]:[0-9][0-9]:[0-9][0-9]")
quorkeri_check_stamp(QUORKERI_PLATFORM "[A-Za-z0-9_]+")

# The version is the tag as the program itself reads it out of the keyword.
string(REGEX REPLACE "^release_" "" QUORKERI_VERSION "${QUORKERI_RELEASE_TAG}")
