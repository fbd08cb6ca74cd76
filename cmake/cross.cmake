# What the toolchain files share. They set QUILLORBEACON_CROSS_ARCH to Debian's name of the
# architecture, triplet to the compiler's and qemu_arch to qemu's.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${triplet}-gcc)
set(CMAKE_CXX_COMPILER ${triplet}-g++)

get_filename_component(cross_root
    ${CMAKE_CURRENT_LIST_DIR}/../build/cross/${QUILLORBEACON_CROSS_ARCH} ABSOLUTE)
if(NOT EXISTS ${cross_root}/usr/include)
    message(FATAL_ERROR "The libraries for ${QUILLORBEACON_CROSS_ARCH} are missing: "
        "run script/cross-root ${QUILLORBEACON_CROSS_ARCH}")
endif()

# Everything is found only there, except the C and C++ libraries, which come with the compiler.
set(CMAKE_FIND_ROOT_PATH ${cross_root})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Without qemu-user the program can be built but not tested.
find_program(QUILLORBEACON_QEMU qemu-${qemu_arch})
if(QUILLORBEACON_QEMU)
    set(CMAKE_CROSSCOMPILING_EMULATOR ${QUILLORBEACON_QEMU} -L ${cross_root})
endif()
