# 32-bit ARM with hard-float, ARMv7 like Debian's armhf: script/cross-root armhf, cmake --preset
# armhf
set(QUILLORBEACON_CROSS_ARCH armhf)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(triplet arm-linux-gnueabihf)
set(qemu_arch arm)
# The notes are about an ABI change in GCC 7.1; all libraries used were built by a later GCC.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
