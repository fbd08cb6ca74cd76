# 32-bit ARM with hard-float, ARMv7 as Debian's armhf: script/cross-root armhf, cmake --preset armhf
set(QUILLORBEACON_CROSS_ARCH armhf)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(triplet arm-linux-gnueabihf)
set(qemu_arch arm)
# Every library used was built by a GCC later than the change that it would note.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
