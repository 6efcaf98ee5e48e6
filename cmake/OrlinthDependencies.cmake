# Everything the programs are built on; each is a package of the distribution.

find_package(Threads REQUIRED)
find_package(OpenSSL 3.0 REQUIRED COMPONENTS Crypto)
find_package(nlohmann_json 3.11 REQUIRED)
find_package(CLI11 REQUIRED)
find_package(PkgConfig REQUIRED)
pkg_check_modules(avahi REQUIRED avahi-client)
pkg_check_modules(curl REQUIRED libcurl>=7.88)
pkg_check_modules(png REQUIRED IMPORTED_TARGET libpng)
pkg_check_modules(qrencode REQUIRED IMPORTED_TARGET libqrencode)
pkg_check_modules(zxing REQUIRED IMPORTED_TARGET zxing)
pkg_check_modules(utf8proc REQUIRED IMPORTED_TARGET libutf8proc)
pkg_check_modules(systemd REQUIRED libsystemd)

# orlinth_loads_library(FILE MACRO MODULE LIBRARY): the program is not linked with this library, but loads it when it
# first needs it. FILE, of the target of this folder, gets its name as the macro: the one in the library that belongs to
# the headers, as the linker would have taken it. MODULE is what pkg_check_modules() has called it above.
function(orlinth_loads_library file macro module library)
  find_library(ORLINTH_FILE_OF_${library} "${library}" HINTS ${${module}_LIBRARY_DIRS} REQUIRED)
  execute_process(COMMAND "${CMAKE_READELF}" -d "${ORLINTH_FILE_OF_${library}}" OUTPUT_VARIABLE dynamic ERROR_QUIET)
  if(NOT dynamic MATCHES "\\(SONAME\\)[^[]*\\[([^]]+)\\]")
    message(FATAL_ERROR "${ORLINTH_FILE_OF_${library}} has no name to load it by (SONAME): is it a shared library?")
  endif()
  set_property(SOURCE "${file}" APPEND PROPERTY COMPILE_DEFINITIONS "${macro}=\"${CMAKE_MATCH_1}\"")
endfunction()

# Asio ships no CMake package. Its feature tests do not know clang with libstdc++, hence the definitions; that for
# aligned_alloc otherwise depends on which header a file includes first, and one program would mix two allocators.
find_path(ORLINTH_ASIO_INCLUDE_DIR asio.hpp REQUIRED)
add_library(orlinth_asio INTERFACE)
target_include_directories(orlinth_asio SYSTEM INTERFACE "$<BUILD_INTERFACE:${ORLINTH_ASIO_INCLUDE_DIR}>")
target_compile_definitions(orlinth_asio INTERFACE ASIO_STANDALONE ASIO_HAS_CO_AWAIT ASIO_HAS_STD_COROUTINE ASIO_NO_DEPRECATED
  ASIO_HAS_STD_ALIGNED_ALLOC=1)
target_link_libraries(orlinth_asio INTERFACE Threads::Threads)

# toml++ as headers alone: what reads the settings is then built with our own hardening and sanitizers.
find_path(ORLINTH_TOML_INCLUDE_DIR toml++/toml.h REQUIRED)
add_library(orlinth_toml INTERFACE)
target_include_directories(orlinth_toml SYSTEM INTERFACE "${ORLINTH_TOML_INCLUDE_DIR}")
