# Cross build for 32-bit ARM routers (ARMv7, hard float) with Debian's
# g++-arm-linux-gnueabihf; see toolchain-common.cmake for the sysroot.
set(CMAKE_SYSTEM_PROCESSOR arm)
set(MOX_TRIPLET arm-linux-gnueabihf)
set(MOX_QEMU_ARCH arm)
set(MOX_CROSS_LINK_FLAGS "")
include(${CMAKE_CURRENT_LIST_DIR}/toolchain-common.cmake)
