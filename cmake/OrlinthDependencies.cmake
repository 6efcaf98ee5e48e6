# Everything the programs are built on; each is a package of the distribution.

find_package(Threads REQUIRED)
find_package(CURL 7.88 REQUIRED)
find_package(OpenSSL 3.0 REQUIRED COMPONENTS Crypto)
find_package(nlohmann_json 3.11 REQUIRED)
find_package(CLI11 REQUIRED)
find_package(PkgConfig REQUIRED)
pkg_check_modules(avahi REQUIRED IMPORTED_TARGET avahi-client)
pkg_check_modules(png REQUIRED IMPORTED_TARGET libpng)
pkg_check_modules(qrencode REQUIRED IMPORTED_TARGET libqrencode)
pkg_check_modules(zxing REQUIRED IMPORTED_TARGET zxing)
pkg_check_modules(utf8proc REQUIRED IMPORTED_TARGET libutf8proc)
pkg_check_modules(systemd REQUIRED IMPORTED_TARGET libsystemd)

# Asio ships no CMake package. Its feature tests do not know clang with libstdc++, hence the definitions; that for
# aligned_alloc otherwise depends on which header a file includes first, and one program would mix two allocators.
find_path(ORLINTH_ASIO_INCLUDE_DIR asio.hpp REQUIRED)
add_library(orlinth_asio INTERFACE)
target_include_directories(orlinth_asio SYSTEM INTERFACE "$<BUILD_INTERFACE:${ORLINTH_ASIO_INCLUDE_DIR}>")
target_compile_definitions(orlinth_asio INTERFACE ASIO_STANDALONE ASIO_HAS_CO_AWAIT ASIO_HAS_STD_COROUTINE ASIO_NO_DEPRECATED
  ASIO_HAS_STD_ALIGNED_ALLOC=1)
target_link_libraries(orlinth_asio INTERFACE Threads::Threads)
