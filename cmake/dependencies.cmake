# PCRE2 (8-bit) and simdjson.
#
# By default the system's copies, as pkg-config and CMake find them (Debian's
# packages; on macOS Homebrew's, and there the pinned releases below for
# whichever is missing). With CORVANE_FETCH_DEPENDENCIES both are built from
# the pinned upstream releases, downloaded and checked against their hashes:
# a universal macOS app needs that, since Homebrew's libraries are dynamic
# and of one architecture. FETCHCONTENT_SOURCE_DIR_PCRE2 and
# FETCHCONTENT_SOURCE_DIR_SIMDJSON name unpacked copies of the same releases
# to build from instead of downloading (the Linux cross-build uses Debian's).
#
# Included before the project's own compile options, so that the libraries
# build with their own warnings, not ours.
#
# Gives the targets corvane::pcre2 and simdjson::simdjson.

option(CORVANE_FETCH_DEPENDENCIES "Build PCRE2 and simdjson from their pinned releases" OFF)

include(FetchContent)

# Release tarballs. Each hash is that of the tarball Debian 12 ships as the
# package's original source (pcre2_10.42.orig.tar.gz, simdjson_3.0.1.orig.tar.gz),
# which Debian's signed source index vouches for. Debian takes PCRE2's from
# the project's release page and simdjson's from the tag's source archive
# (its git header names commit 0d2455029d845e801809dd54b01ae47173d7d8e8);
# that the files at these addresses are still byte for byte the same was not
# checked against them directly.
set(CORVANE_PCRE2_URL
    "https://github.com/PCRE2Project/pcre2/releases/download/pcre2-10.42/pcre2-10.42.tar.gz")
set(CORVANE_PCRE2_SHA256 c33b418e3b936ee3153de2c61cc638e7e4fe3156022a5c77d0711bcbb9d64f1f)
set(CORVANE_SIMDJSON_URL "https://github.com/simdjson/simdjson/archive/refs/tags/v3.0.1.tar.gz")
set(CORVANE_SIMDJSON_SHA256 156b1bc5eb0561b2bd166b46d191fd3d95a3e709cc63761477d3b7aec2b6e9ed)

if(CORVANE_FETCH_DEPENDENCIES)
  # Both from source.
elseif(APPLE)
  find_package(PkgConfig QUIET)
  if(PkgConfig_FOUND)
    pkg_check_modules(PCRE2 QUIET IMPORTED_TARGET libpcre2-8)
  endif()
  find_package(simdjson QUIET)
else()
  # Linux: the distribution's packages, never a download.
  find_package(PkgConfig REQUIRED)
  pkg_check_modules(PCRE2 REQUIRED IMPORTED_TARGET libpcre2-8)
  find_package(simdjson REQUIRED)
endif()

function(corvane_fetch_pcre2)
  # Only the 8-bit library, none of its programs, tests or compression
  # helpers (the host's would be found when cross-building).
  set(CMAKE_POLICY_DEFAULT_CMP0077 NEW)  # let these settings stand against its option()
  set(CMAKE_POLICY_VERSION_MINIMUM 3.5)  # it asks for CMake 3.1, which CMake 4 refuses
  set(BUILD_SHARED_LIBS OFF)
  set(BUILD_STATIC_LIBS ON)
  set(PCRE2_BUILD_PCRE2_8 ON)
  set(PCRE2_BUILD_PCRE2_16 OFF)
  set(PCRE2_BUILD_PCRE2_32 OFF)
  set(PCRE2_BUILD_PCRE2GREP OFF)
  set(PCRE2_BUILD_TESTS OFF)
  set(PCRE2_SUPPORT_JIT OFF)
  set(PCRE2_SUPPORT_LIBBZ2 OFF)
  set(PCRE2_SUPPORT_LIBZ OFF)
  set(PCRE2_SUPPORT_LIBEDIT OFF)
  set(PCRE2_SUPPORT_LIBREADLINE OFF)
  set(PCRE2_SHOW_REPORT OFF)
  FetchContent_Declare(pcre2 URL ${CORVANE_PCRE2_URL} URL_HASH SHA256=${CORVANE_PCRE2_SHA256}
                       DOWNLOAD_EXTRACT_TIMESTAMP TRUE)
  FetchContent_MakeAvailable(pcre2)
endfunction()

function(corvane_fetch_simdjson)
  set(BUILD_SHARED_LIBS OFF)
  set(SIMDJSON_EXCEPTIONS OFF)  # the program is built without exceptions
  set(SIMDJSON_ENABLE_THREADS OFF)  # the dispatcher parses on one thread
  FetchContent_Declare(simdjson URL ${CORVANE_SIMDJSON_URL} URL_HASH SHA256=${CORVANE_SIMDJSON_SHA256}
                       DOWNLOAD_EXTRACT_TIMESTAMP TRUE)
  FetchContent_MakeAvailable(simdjson)
endfunction()

add_library(corvane_pcre2 INTERFACE)
add_library(corvane::pcre2 ALIAS corvane_pcre2)
if(PCRE2_FOUND)
  target_link_libraries(corvane_pcre2 INTERFACE PkgConfig::PCRE2)
else()
  message(STATUS "PCRE2: building 10.42 from source")
  corvane_fetch_pcre2()
  target_link_libraries(corvane_pcre2 INTERFACE pcre2-8-static)
endif()

if(NOT simdjson_FOUND)
  message(STATUS "simdjson: building 3.0.1 from source")
  corvane_fetch_simdjson()
endif()
