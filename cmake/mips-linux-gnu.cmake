# CMake toolchain file for the gateway: big-endian 32-bit MIPS Linux with
# glibc, built with 64-bit file offsets and time_t. The project's own MIPS
# build (scripts/build.sh mips) uses it, and a firmware build system passes
# the same file:
#
#   cmake -S zibd -B build -DCMAKE_TOOLCHAIN_FILE=zibd/cmake/mips-linux-gnu.cmake \
#         -DZIBD_CROSS_PREFIX=/opt/fw/host/bin/mips-linux-gnu- \
#         -DCMAKE_SYSROOT=/opt/fw/staging -DCMAKE_INSTALL_PREFIX=/usr
#   cmake --build build && DESTDIR=/opt/fw/target cmake --install build
#
# Everything can be overridden on the command line (or from the environment
# of the same name, for build systems that export them):
#   ZIBD_CROSS_PREFIX  prefix of the compilers (default "mips-linux-gnu-",
#                      Debian's g++-mips-linux-gnu); CMAKE_C_COMPILER and
#                      CMAKE_CXX_COMPILER, when given, win over it
#   CMAKE_SYSROOT      the target's root (headers, libraries); without it the
#                      compiler's own (Debian: /usr/mips-linux-gnu)
#   ZIBD_TARGET_ROOT   where find_library and the emulator look for the
#                      target's files when there is no CMAKE_SYSROOT
#                      (default /usr/mips-linux-gnu)
#   CMAKE_CROSSCOMPILING_EMULATOR  how tests run the target's programs on the
#                      build machine (default qemu-mips with the root above)
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mips)

foreach(setting ZIBD_CROSS_PREFIX ZIBD_TARGET_ROOT)
  if(NOT DEFINED ${setting} AND DEFINED ENV{${setting}})
    set(${setting} "$ENV{${setting}}")
  endif()
endforeach()
if(NOT DEFINED ZIBD_CROSS_PREFIX)
  set(ZIBD_CROSS_PREFIX mips-linux-gnu-)
endif()
if(NOT DEFINED ZIBD_TARGET_ROOT)
  set(ZIBD_TARGET_ROOT /usr/mips-linux-gnu)
endif()
# try_compile projects read this file again: hand them the same settings.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ZIBD_CROSS_PREFIX ZIBD_TARGET_ROOT)

if(NOT CMAKE_C_COMPILER)
  set(CMAKE_C_COMPILER ${ZIBD_CROSS_PREFIX}gcc)
endif()
if(NOT CMAKE_CXX_COMPILER)
  set(CMAKE_CXX_COMPILER ${ZIBD_CROSS_PREFIX}g++)
endif()

if(CMAKE_SYSROOT)
  set(zibd_target_root "${CMAKE_SYSROOT}")
else()
  set(zibd_target_root "${ZIBD_TARGET_ROOT}")
endif()
list(APPEND CMAKE_FIND_ROOT_PATH "${zibd_target_root}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The gateway's ABI: 64-bit file offsets and time_t on a 32-bit glibc.
# (Once: CMake reads this file more than once in a configure.)
foreach(lang C CXX)
  if(NOT CMAKE_${lang}_FLAGS_INIT MATCHES "_TIME_BITS=64")
    string(APPEND CMAKE_${lang}_FLAGS_INIT " -D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64")
  endif()
endforeach()

if(NOT CMAKE_CROSSCOMPILING_EMULATOR)
  set(CMAKE_CROSSCOMPILING_EMULATOR qemu-mips -L "${zibd_target_root}")
endif()
