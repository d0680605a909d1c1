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

# quorkeri_check_stamp(VARIABLE REGEX): stops the configuration if a value does not have its form.
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

# The build id as seconds since 1970, for the time stamp in the exe's header. A debugger uses it to tell which build a
# dump comes from, so it has to differ from build to build, and it must not come from the clock. The "1" before two digits
# keeps a leading zero from making the number octal.
string(REGEX MATCH "^(..)(..)(..)-(..)(..)(..)$" _ "${QUORKERI_BUILD_ID}")
math(EXPR quorkeri_month "1${CMAKE_MATCH_2} - 100")
math(EXPR quorkeri_march_month "(${quorkeri_month} + 9) % 12")
math(EXPR quorkeri_march_year "2000 + 1${CMAKE_MATCH_1} - 100 - ${quorkeri_march_month} / 10")
math(EXPR quorkeri_days "365 * ${quorkeri_march_year} + ${quorkeri_march_year} / 4 - ${quorkeri_march_year} / 100 \
 + ${quorkeri_march_year} / 400 + (153 * ${quorkeri_march_month} + 2) / 5 + 1${CMAKE_MATCH_3} - 101 - 719468")
math(EXPR QUORKERI_BUILD_SECONDS "86400 * ${quorkeri_days} + 3600 * (1${CMAKE_MATCH_4} - 100) \
  + 60 * (1${CMAKE_MATCH_5} - 100) + 1${CMAKE_MATCH_6} - 100")
