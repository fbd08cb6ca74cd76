# 64-bit ARM: script/cross-root arm64, cmake --preset arm64
set(QUILLORBEACON_CROSS_ARCH arm64)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(triplet aarch64-linux-gnu)
set(qemu_arch aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
