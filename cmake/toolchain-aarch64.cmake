# Cross build for 64-bit ARM routers with Debian's g++-aarch64-linux-gnu;
# see toolchain-common.cmake for the sysroot.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(MOX_TRIPLET aarch64-linux-gnu)
set(MOX_QEMU_ARCH aarch64)
# The aarch64 linker aligns each segment to 64 KiB, for kernels with 64 KiB
# pages, and pads the file to match: mox_logd grows from about 77 KB to
# 135 KB. Router kernels use 4 KiB pages (and a 16 KiB- or 64 KiB-page
# kernel is not something this firmware meets), so segments are aligned to
# 4 KiB like on the other targets.
set(MOX_CROSS_LINK_FLAGS "-Wl,-z,max-page-size=4096")
include(${CMAKE_CURRENT_LIST_DIR}/toolchain-common.cmake)
