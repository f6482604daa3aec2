# Cross build for the device: 32-bit ARM Linux with glibc, hard-float ABI.
#
# Compiler: Debian's g++-arm-linux-gnueabihf. Its C library and libstdc++ live
# in /usr/arm-linux-gnueabihf; target libraries of other Debian packages
# (libtecla-dev:armhf) are installed multiarch, into /usr/lib/arm-linux-gnueabihf
# and /usr/include/arm-linux-gnueabihf, with architecture-independent headers
# shared in /usr/include.
#
# Executables run under qemu-arm (Debian qemu-user); CTest and custom commands
# start target programs through CMAKE_CROSSCOMPILING_EMULATOR.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(TX_TARGET_TRIPLET arm-linux-gnueabihf)
set(TX_TARGET_PREFIX /usr/${TX_TARGET_TRIPLET})

set(CMAKE_C_COMPILER ${TX_TARGET_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${TX_TARGET_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${TX_TARGET_TRIPLET})
# 64-bit file offsets and inode numbers: without them the 32-bit readdir and
# stat fail with EOVERFLOW on file systems whose values do not fit in 32 bits.
set(CMAKE_C_FLAGS_INIT "-D_FILE_OFFSET_BITS=64")
set(CMAKE_CXX_FLAGS_INIT "-D_FILE_OFFSET_BITS=64")

# Target files are looked up under the cross prefix and in the multiarch
# directories of the host tree ("/" as the second root, with the library
# architecture above, reaches /usr/lib/arm-linux-gnueabihf before /usr/lib).
# Programs are host programs.
set(CMAKE_FIND_ROOT_PATH ${TX_TARGET_PREFIX} /)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# Host libraries of the build machine must never satisfy a target lookup.
list(APPEND CMAKE_IGNORE_PATH /usr/lib/x86_64-linux-gnu /lib/x86_64-linux-gnu
     /usr/lib/x86_64-linux-gnu/cmake /usr/include/x86_64-linux-gnu)

# The loader and the C library a program runs with must come from one build.
# The cross compiler links against its own copy (libc6-dev-armhf-cross), but
# target packages such as libtecla1:armhf pull in the multiarch C library
# (libc6:armhf), which Debian updates apart from the cross copy, and a loader
# of one with the C library of the other crashes. Once the multiarch C library
# is there, programs run on the multiarch runtime (which then needs
# libstdc++6:armhf too), with the host tree as the emulator's file prefix.
if(EXISTS /usr/lib/${TX_TARGET_TRIPLET}/ld-linux-armhf.so.3)
  set(TX_TARGET_RUNTIME_PREFIX /)
  if(NOT EXISTS /usr/lib/${TX_TARGET_TRIPLET}/libstdc++.so.6)
    message(WARNING "libstdc++6:armhf is missing: target programs will not start")
  endif()
else()
  set(TX_TARGET_RUNTIME_PREFIX ${TX_TARGET_PREFIX})
endif()
find_program(TX_QEMU_ARM NAMES qemu-arm qemu-arm-static)
if(TX_QEMU_ARM)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${TX_QEMU_ARM} -L ${TX_TARGET_RUNTIME_PREFIX})
endif()
