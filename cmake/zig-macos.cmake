# Cross-builds the macOS program on Linux with Zig's clang and linker, one
# architecture per build directory; scripts/mac-build.sh joins the two.
#
#   CORVANE_MACOS_SDK   an SDK directory with Frameworks/, include/ and lib/
#                       (default: $MACOS_SDK)
#   CORVANE_ZIG         the zig executable, version 0.11 (default: $CORVANE_ZIG)
#   CORVANE_MACOS_ARCH  x86_64 or arm64 (default: x86_64)
#
# Zig 0.11 links for macOS 11 and later only (it has no C headers to build
# its C++ library for an older system), so both architectures link with
# deployment target 11.0 here, and the app's Info.plist says so. The x86_64
# build for 10.13 is a Mac's (the macos preset); the compile check in
# scripts/mac-build.sh keeps the sources fit for it.

if(NOT CORVANE_MACOS_SDK)
  set(CORVANE_MACOS_SDK "$ENV{MACOS_SDK}")
endif()
if(NOT CORVANE_ZIG)
  set(CORVANE_ZIG "$ENV{CORVANE_ZIG}")
endif()
if(NOT CORVANE_MACOS_ARCH)
  set(CORVANE_MACOS_ARCH x86_64)
endif()
if(NOT IS_DIRECTORY "${CORVANE_MACOS_SDK}/Frameworks" OR NOT EXISTS "${CORVANE_ZIG}")
  message(FATAL_ERROR "zig-macos.cmake needs CORVANE_MACOS_SDK (an SDK with Frameworks/) and "
                      "CORVANE_ZIG (the zig executable); got '${CORVANE_MACOS_SDK}' and '${CORVANE_ZIG}'")
endif()
# try_compile projects read this file again and need the same answers.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES CORVANE_MACOS_SDK CORVANE_ZIG CORVANE_MACOS_ARCH)

if(CORVANE_MACOS_ARCH STREQUAL "x86_64")
  set(zig_arch x86_64)
elseif(CORVANE_MACOS_ARCH STREQUAL "arm64")
  set(zig_arch aarch64)
else()
  message(FATAL_ERROR "CORVANE_MACOS_ARCH must be x86_64 or arm64, not '${CORVANE_MACOS_ARCH}'")
endif()

set(CMAKE_SYSTEM_NAME Darwin)
set(CMAKE_SYSTEM_VERSION 20.0)  # Darwin 20 is macOS 11
set(CMAKE_SYSTEM_PROCESSOR ${CORVANE_MACOS_ARCH})

# Compiler plus its mandatory first argument; the target carries the
# architecture and the deployment target.
set(CMAKE_C_COMPILER "${CORVANE_ZIG}" cc)
set(CMAKE_CXX_COMPILER "${CORVANE_ZIG}" c++)
set(CMAKE_OBJCXX_COMPILER "${CORVANE_ZIG}" c++)
# What packaging/macos.cmake writes into Info.plist as the oldest system.
set(CORVANE_MACOS_DEPLOYMENT_TARGET 11.0)
foreach(lang C CXX OBJCXX)
  set(CMAKE_${lang}_COMPILER_TARGET ${zig_arch}-macos.${CORVANE_MACOS_DEPLOYMENT_TARGET})
endforeach()
set(CMAKE_OSX_ARCHITECTURES "" CACHE STRING "One architecture per build: the target says which" FORCE)
set(CMAKE_OSX_DEPLOYMENT_TARGET "" CACHE STRING "The target says which" FORCE)
set(CMAKE_OSX_SYSROOT "" CACHE PATH "Zig brings the C headers; the SDK adds the frameworks" FORCE)

# Archives in the Mach-O form that the linker reads.
find_program(CMAKE_AR NAMES llvm-ar-14 llvm-ar REQUIRED)
find_program(CMAKE_RANLIB NAMES llvm-ranlib-14 llvm-ranlib REQUIRED)
find_program(CMAKE_INSTALL_NAME_TOOL NAMES llvm-install-name-tool-14 llvm-install-name-tool)

# The SDK's frameworks as system headers (warnings in them are not ours),
# its C headers after Zig's own, and its stubs for the link. The SDK's
# headers use a kernel annotation that this clang does not know.
set(sdk_compile_flags "-D__kernel_ptr_semantics= -iframework ${CORVANE_MACOS_SDK}/Frameworks -idirafter ${CORVANE_MACOS_SDK}/include")
foreach(lang C CXX OBJCXX)
  set(CMAKE_${lang}_FLAGS_INIT "${sdk_compile_flags}")
endforeach()
# Zig adds -ObjC++ of its own beside CMake's -x objective-c++.
string(APPEND CMAKE_OBJCXX_FLAGS_INIT " -Wno-unused-command-line-argument")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-F${CORVANE_MACOS_SDK}/Frameworks -L${CORVANE_MACOS_SDK}/lib")

# Nothing on this Linux host belongs to the target: look for libraries and
# packages in the SDK only, and ask neither pkg-config nor the host's CMake
# packages. PCRE2 and simdjson then come from their sources.
set(CMAKE_FIND_ROOT_PATH "${CORVANE_MACOS_SDK}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_DISABLE_FIND_PACKAGE_PkgConfig TRUE)
set(CMAKE_DISABLE_FIND_PACKAGE_simdjson TRUE)
