# The part that the toolchain files share: libraries, headers and programs to run them for
# QUILLORBEACON_CROSS_ARCH (Debian's name of it), the compiler's triplet and qemu's name of it given.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${triplet}-gcc)
set(CMAKE_CXX_COMPILER ${triplet}-g++)

get_filename_component(cross_root
    ${CMAKE_CURRENT_LIST_DIR}/../build/cross/${QUILLORBEACON_CROSS_ARCH} ABSOLUTE)
if(NOT EXISTS ${cross_root}/usr/include)
    message(FATAL_ERROR "The libraries for ${QUILLORBEACON_CROSS_ARCH} are missing: "
        "run script/cross-root ${QUILLORBEACON_CROSS_ARCH}")
endif()

# Everything but the C and C++ libraries, which are the compiler's own, is found there only.
set(CMAKE_FIND_ROOT_PATH ${cross_root})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Without qemu-user the program can be built, but no test can be run.
find_program(QUILLORBEACON_QEMU qemu-${qemu_arch})
if(QUILLORBEACON_QEMU)
    set(CMAKE_CROSSCOMPILING_EMULATOR ${QUILLORBEACON_QEMU} -L ${cross_root})
endif()
