# What the two cross toolchain files share: Debian's cross compiler for
# MOX_TRIPLET, and the target's OpenSSL, zlib, librelp and GoogleTest from
# the sysroot MOX_SYSROOT (a cache variable, or the environment's;
# scripts/lib/sysroot.sh makes one from Debian's packages). The C library
# and its headers are the cross compiler's own.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_CXX_COMPILER ${MOX_TRIPLET}-g++)
set(CMAKE_C_COMPILER ${MOX_TRIPLET}-gcc)
# Debian's library folders carry the triplet; CMake cannot tell it from a
# cross compiler that keeps its own libraries elsewhere.
set(CMAKE_LIBRARY_ARCHITECTURE ${MOX_TRIPLET})

if(NOT MOX_SYSROOT)
  set(MOX_SYSROOT "$ENV{MOX_SYSROOT}")
endif()
if(NOT IS_DIRECTORY "${MOX_SYSROOT}/usr/lib/${MOX_TRIPLET}")
  message(FATAL_ERROR "MOX_SYSROOT (\"${MOX_SYSROOT}\") holds no ${MOX_TRIPLET} libraries: "
    "scripts/cross makes one")
endif()
set(MOX_SYSROOT "${MOX_SYSROOT}" CACHE PATH "Target libraries unpacked from Debian's packages")
# The compiler checks in try_compile read this file again.
set(ENV{MOX_SYSROOT} "${MOX_SYSROOT}")

set(CMAKE_FIND_ROOT_PATH "${MOX_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_LIBDIR} "${MOX_SYSROOT}/usr/lib/${MOX_TRIPLET}/pkgconfig:${MOX_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${MOX_SYSROOT}")
set(ENV{PKG_CONFIG_PATH} "")

# OpenSSL's configuration header lies in the triplet's include folder.
# The sysroot's libraries need others of its libraries (librelp needs
# GnuTLS): the linker finds those through -rpath-link, which leaves no
# trace in the programs.
set(CMAKE_CXX_FLAGS_INIT "-isystem ${MOX_SYSROOT}/usr/include/${MOX_TRIPLET}")
set(mox_rpath_link "-Wl,-rpath-link,${MOX_SYSROOT}/lib/${MOX_TRIPLET}:${MOX_SYSROOT}/usr/lib/${MOX_TRIPLET}")
set(CMAKE_EXE_LINKER_FLAGS_INIT "${mox_rpath_link} ${MOX_CROSS_LINK_FLAGS}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${mox_rpath_link} ${MOX_CROSS_LINK_FLAGS}")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "${mox_rpath_link} ${MOX_CROSS_LINK_FLAGS}")

# The programs go to a device, where the build machine's library folders
# mean nothing: no RUNPATH, the device's loader finds its own libraries.
# CMake keeps this one in its cache, where a plain variable would be lost.
set(CMAKE_SKIP_RPATH ON CACHE BOOL "No RUNPATH in cross-built programs" FORCE)

# Tests run through qemu-user, which loads the target's C library and the
# sysroot's libraries from MOX_SYSROOT.
find_program(MOX_QEMU qemu-${MOX_QEMU_ARCH})
if(MOX_QEMU)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${MOX_QEMU};-L;${MOX_SYSROOT}")
endif()
