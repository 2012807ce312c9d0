# Cross build for a 32-bit ARM television (armhf: ARMv7, hard float, where
# long, size_t and pointers are 4 bytes) with Debian's cross compiler
# (g++-arm-linux-gnueabihf):
#
#   cmake -S . -B build-armhf \
#     -DCMAKE_TOOLCHAIN_FILE=cmake/arm-linux-gnueabihf.cmake \
#     -DLUM_TARGET_SYSROOT=/path/to/sysroot
#
# The cross compiler brings the target's C and C++ runtime under
# /usr/arm-linux-gnueabihf. LUM_TARGET_SYSROOT is a folder holding the rest of
# what the target links (TagLib, and GoogleTest for the tests) laid out as on
# the target (usr/include, usr/lib/arm-linux-gnueabihf): Debian's armhf
# packages unpacked with `dpkg -x` (scripts/test-armhf.sh makes one), or the
# television's own root file system. Programs built here run on this machine
# under qemu-arm; ctest and gtest's test discovery go through it by
# CMAKE_CROSSCOMPILING_EMULATOR.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(LUM_TARGET_TRIPLE arm-linux-gnueabihf)
set(CMAKE_C_COMPILER ${LUM_TARGET_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${LUM_TARGET_TRIPLE}-g++)

set(LUM_TARGET_SYSROOT "$ENV{LUM_TARGET_SYSROOT}" CACHE PATH
    "Root of the target's libraries beside the cross compiler's own (TagLib, GoogleTest)")
# try_compile projects see the cache only through this list.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES LUM_TARGET_SYSROOT)

set(LUM_TARGET_RUNTIME /usr/${LUM_TARGET_TRIPLE})
set(CMAKE_FIND_ROOT_PATH ${LUM_TARGET_RUNTIME})
if(LUM_TARGET_SYSROOT)
  list(APPEND CMAKE_FIND_ROOT_PATH ${LUM_TARGET_SYSROOT})
  set(lum_libdirs
    ${LUM_TARGET_SYSROOT}/usr/lib/${LUM_TARGET_TRIPLE}
    ${LUM_TARGET_SYSROOT}/lib/${LUM_TARGET_TRIPLE})
  # The target's libraries need each other (libtag_c.so needs libtag.so.1):
  # the linker finds those in the sysroot, not on this machine.
  foreach(dir IN LISTS lum_libdirs)
    string(APPEND CMAKE_EXE_LINKER_FLAGS_INIT " -Wl,-rpath-link,${dir}")
    string(APPEND CMAKE_SHARED_LINKER_FLAGS_INIT " -Wl,-rpath-link,${dir}")
  endforeach()
  # pkg-config reads the target's .pc files only, and prefixes their paths
  # with the sysroot.
  set(ENV{PKG_CONFIG_LIBDIR}
      "${LUM_TARGET_SYSROOT}/usr/lib/${LUM_TARGET_TRIPLE}/pkgconfig:${LUM_TARGET_SYSROOT}/usr/share/pkgconfig")
  set(ENV{PKG_CONFIG_SYSROOT_DIR} "${LUM_TARGET_SYSROOT}")
endif()
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Programs built here run under qemu-arm with the target's root as the
# loader's prefix: the sysroot when it is a whole root (it holds the loader,
# as scripts/test-armhf.sh's does), else the cross compiler's runtime.
# QEMU_LD_PREFIX stays in the environment, so programs the tests start (the
# binary itself again, the daemon) run the same way when binfmt_misc hands
# ARM programs to qemu-arm (scripts/test-armhf.sh registers it).
if(LUM_TARGET_SYSROOT AND EXISTS ${LUM_TARGET_SYSROOT}/lib/ld-linux-armhf.so.3)
  set(LUM_TARGET_LOADER_PREFIX ${LUM_TARGET_SYSROOT})
else()
  set(LUM_TARGET_LOADER_PREFIX ${LUM_TARGET_RUNTIME})
endif()
find_program(LUM_QEMU_ARM qemu-arm)
if(LUM_QEMU_ARM)
  set(CMAKE_CROSSCOMPILING_EMULATOR env QEMU_LD_PREFIX=${LUM_TARGET_LOADER_PREFIX} ${LUM_QEMU_ARM})
endif()

# GCC notes on every std::vector of 64-bit elements that GCC 7.1 changed how
# such arguments are passed on ARM: a matter for code mixed across that
# compiler version, not for one built with a single compiler.
string(APPEND CMAKE_CXX_FLAGS_INIT " -Wno-psabi")
