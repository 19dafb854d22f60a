# aarch64-linux-gnu.cmake - builds for the handset's CPU (64-bit ARM) with
# Debian's cross compiler (g++-aarch64-linux-gnu) and its cross libc and
# libstdc++ under /usr/aarch64-linux-gnu. Programs built this way run on the
# host under qemu-user: `qemu-aarch64 -L /usr/aarch64-linux-gnu PROGRAM`.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(KVN_CROSS_TRIPLE aarch64-linux-gnu)
set(KVN_CROSS_SYSROOT /usr/${KVN_CROSS_TRIPLE})
set(CMAKE_C_COMPILER ${KVN_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${KVN_CROSS_TRIPLE}-g++)

# Libraries and headers come from the cross tree only; programs (ninja,
# python...) from the host.
set(CMAKE_FIND_ROOT_PATH ${KVN_CROSS_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# nlohmann/json and CLI11 are header-only and the same for every CPU: take the host's.
# GoogleTest has no arm64 build on a plain amd64 host; tests/ builds it from
# Debian's sources (/usr/src/googletest) when it is not found.
set(nlohmann_json_DIR /usr/share/cmake/nlohmann_json CACHE PATH "header-only, CPU independent")
set(CLI11_DIR /usr/share/cmake/CLI11 CACHE PATH "header-only, CPU independent")

# CTest and gtest_discover_tests run the test programs through qemu-user.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64 -L ${KVN_CROSS_SYSROOT})
