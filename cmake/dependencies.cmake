# The libraries the daemon calls: cJSON, inih, pigpio, the VideoCore host library.
include(CheckCXXSourceCompiles)
include(CheckLibraryExists)

set(THREADS_PREFER_PTHREAD_FLAG ON)
find_package(Threads REQUIRED)

find_library(CJSON_LIBRARY cjson)
find_path(CJSON_INCLUDE_DIR cjson/cJSON.h)
if(NOT CJSON_LIBRARY OR NOT CJSON_INCLUDE_DIR)
    message(FATAL_ERROR "cJSON is missing: install libcjson-dev")
endif()
add_library(cjson INTERFACE)
target_include_directories(cjson SYSTEM INTERFACE ${CJSON_INCLUDE_DIR})
target_link_libraries(cjson INTERFACE ${CJSON_LIBRARY})

find_library(INIH_LIBRARY inih)
find_path(INIH_INCLUDE_DIR ini.h)
if(NOT INIH_LIBRARY OR NOT INIH_INCLUDE_DIR)
    message(FATAL_ERROR "inih is missing: install libinih-dev")
endif()
add_library(inih INTERFACE)
target_include_directories(inih SYSTEM INTERFACE ${INIH_INCLUDE_DIR})
target_link_libraries(inih INTERFACE ${INIH_LIBRARY})

# inih must take its limits from its global variables: a line of the configuration file may be
# 10000 bytes long, and the library's default buffer has 200. The probe reads such a line, which
# catches a build that has the variables but ignores them. When it cannot be run (cross-compiling
# without an emulator), only their presence is checked.
if(NOT INIH_LIBRARY STREQUAL QUILLORBEACON_INIH_CHECKED)
    set(probe_args ${PROJECT_BINARY_DIR}/probe ${PROJECT_SOURCE_DIR}/cmake/inih_probe.cpp
        CMAKE_FLAGS "-DINCLUDE_DIRECTORIES=${INIH_INCLUDE_DIR}"
        LINK_LIBRARIES ${INIH_LIBRARY})
    if(CMAKE_CROSSCOMPILING AND NOT CMAKE_CROSSCOMPILING_EMULATOR)
        try_compile(inih_compiled ${probe_args})
        set(inih_result 0)
    else()
        try_run(inih_result inih_compiled ${probe_args})
    endif()
    if(NOT inih_compiled OR NOT inih_result EQUAL 0)
        message(FATAL_ERROR
            "The inih at ${INIH_LIBRARY} cannot be set up for 10000-byte lines through its global "
            "variables (ini_max_line and its neighbours); Debian's libinih-dev 55 or later can")
    endif()
    set(QUILLORBEACON_INIH_CHECKED ${INIH_LIBRARY} CACHE INTERNAL "inih that passed the probe")
endif()

# pigpio comes with Raspberry Pi OS, not with Debian. Without it, a library of ours with the same
# six functions stands in; its gpioInitialise fails, as pigpio's does on a machine without GPIO.
add_library(gpio_library INTERFACE)
find_library(PIGPIO_LIBRARY pigpio)
find_path(PIGPIO_INCLUDE_DIR pigpio.h)
if(PIGPIO_LIBRARY AND PIGPIO_INCLUDE_DIR)
    message(STATUS "GPIO: pigpio at ${PIGPIO_LIBRARY}")
    target_include_directories(gpio_library SYSTEM INTERFACE ${PIGPIO_INCLUDE_DIR})
    target_link_libraries(gpio_library INTERFACE ${PIGPIO_LIBRARY})
else()
    message(STATUS "GPIO: no pigpio here, building the stand-in library")
    add_library(gpio_absent SHARED src/gpio_absent/pigpio.cpp)
    set_target_properties(gpio_absent PROPERTIES
        OUTPUT_NAME pigpio SOVERSION 1 LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR})
    target_include_directories(gpio_absent PUBLIC ${PROJECT_SOURCE_DIR}/src/gpio_absent)
    target_link_libraries(gpio_library INTERFACE gpio_absent)
    include(GNUInstallDirs)
    install(TARGETS gpio_absent
        LIBRARY DESTINATION lib/quillorbeacon NAMELINK_SKIP)
endif()

# The VideoCore host library is used if it is found.
add_library(video_core INTERFACE)
find_library(BCM_HOST_LIBRARY bcm_host PATHS /opt/vc/lib)
find_path(BCM_HOST_INCLUDE_DIR bcm_host.h PATHS /opt/vc/include)
if(BCM_HOST_LIBRARY AND BCM_HOST_INCLUDE_DIR)
    message(STATUS "VideoCore host library at ${BCM_HOST_LIBRARY}")
    target_include_directories(video_core SYSTEM INTERFACE ${BCM_HOST_INCLUDE_DIR})
    target_link_libraries(video_core INTERFACE ${BCM_HOST_LIBRARY})
    target_compile_definitions(video_core INTERFACE HAVE_BCM_HOST)
endif()

# 64-bit atomics need a library on the oldest 32-bit boards.
add_library(atomic64 INTERFACE)
set(atomic64_source "#include <atomic>
#include <cstdint>
int main() { std::atomic<std::uint64_t> x{1}; x.fetch_add(1); return x.load() == 2 ? 0 : 1; }")
check_cxx_source_compiles("${atomic64_source}" HAVE_ATOMIC64_BUILTIN)
if(NOT HAVE_ATOMIC64_BUILTIN)
    target_link_libraries(atomic64 INTERFACE atomic)
endif()
