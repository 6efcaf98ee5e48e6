# Compiler, warnings, hardening, sanitizers and fuzzing, as INTERFACE targets that every target of ours links.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 14)
  message(FATAL_ERROR "GCC ${CMAKE_CXX_COMPILER_VERSION} miscompiles coroutines (double frees without a warning): use clang 19 (Debian package clang-19), or GCC 14 or later.")
endif()

if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
  set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "Kind of build" FORCE)
endif()

option(ORLINTH_WERROR "Treat warnings in our own code as errors" OFF)
set(ORLINTH_SANITIZE "" CACHE STRING "Sanitizers, as in -fsanitize=: address,undefined or thread")

find_program(ORLINTH_CCACHE ccache)
if(ORLINTH_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_CXX_COMPILER_LAUNCHER "${ORLINTH_CCACHE}")
endif()

if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  # ccache compares what a precompiled header was made of, not when; it needs
  # CCACHE_SLOPPINESS=pch_defines,time_macros, which scripts/lib.sh sets.
  add_compile_options(-Xclang -fno-pch-timestamp)
endif()

find_program(ORLINTH_LLD NAMES ld.lld-19 ld.lld)
if(ORLINTH_LLD AND CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  add_link_options("--ld-path=${ORLINTH_LLD}")
endif()

# Sanitizers and fuzzing concern the whole program, so these are options of every target.
if(ORLINTH_SANITIZE)
  add_compile_options("-fsanitize=${ORLINTH_SANITIZE}" -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options("-fsanitize=${ORLINTH_SANITIZE}")
  if(ORLINTH_SANITIZE MATCHES undefined)
    # Its check of virtual tables opens a pipe to see whether memory may be read, and takes any object for a broken one
    # where a test has used up all descriptors.
    add_compile_options(-fno-sanitize=vptr)
  endif()
endif()
if(ORLINTH_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

# What ends the program when its memory is misused, or makes that harder to use. Every target of ours has it.
include(CheckPIESupported)
check_pie_supported() # else CMAKE_POSITION_INDEPENDENT_CODE says nothing to the linker
add_library(orlinth_hardening INTERFACE)
target_compile_definitions(orlinth_hardening INTERFACE _GLIBCXX_ASSERTIONS)
target_compile_options(orlinth_hardening INTERFACE -fstack-protector-strong -fstack-clash-protection)
target_link_options(orlinth_hardening INTERFACE -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)
if(CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|amd64|i.86")
  target_compile_options(orlinth_hardening INTERFACE -fcf-protection=full)
endif()
if(NOT ORLINTH_SANITIZE)
  # Needs the optimiser; and the sanitizers look at the plain functions instead.
  target_compile_options(orlinth_hardening INTERFACE
    "$<$<NOT:$<CONFIG:Debug>>:SHELL:-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2>")
endif()

add_library(orlinth_warnings INTERFACE)
target_compile_options(orlinth_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wold-style-cast -Wcast-align -Woverloaded-virtual
  -Wconversion -Wsign-conversion -Wnull-dereference -Wdouble-promotion -Wformat=2 -Wimplicit-fallthrough
  $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety -Wextra-semi -Wrange-loop-analysis>
  $<$<BOOL:${ORLINTH_WERROR}>:-Werror>)
