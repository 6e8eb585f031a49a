# Cross build for the appliance's processor: 32-bit ARM, ARMv7 hard-float (Debian "armhf").
#
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/armhf-toolchain.cmake \
#         -DKEST_ARMHF_SYSROOT=/path/to/sysroot
#
# The compiler is Debian's arm-linux-gnueabihf-g++ (it brings its own C and C++ runtime headers
# and start files). The sysroot holds the armhf Qt libraries, their headers and CMake packages,
# and the runtime libraries they need, unpacked from Debian packages; scripts/armhf-test makes it.
# Programs and tests run under qemu-arm with that sysroot as the guest's root, so a plain `ctest`
# runs every test through the emulator.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

# Try-compile projects re-read this file; they get the settings through the environment.
if(NOT KEST_ARMHF_SYSROOT AND DEFINED ENV{KEST_ARMHF_SYSROOT})
    set(KEST_ARMHF_SYSROOT "$ENV{KEST_ARMHF_SYSROOT}")
endif()
if(NOT KEST_ARMHF_SYSROOT OR NOT EXISTS "${KEST_ARMHF_SYSROOT}/lib/ld-linux-armhf.so.3")
    message(FATAL_ERROR "KEST_ARMHF_SYSROOT must name an armhf sysroot (scripts/armhf-test makes one)")
endif()
set(ENV{KEST_ARMHF_SYSROOT} "${KEST_ARMHF_SYSROOT}")
if(NOT KEST_ARMHF_CPU)
    # Cortex-A7: an ARMv7-A core as found in encoder SoCs; an instruction the target lacks traps.
    set(KEST_ARMHF_CPU "$ENV{KEST_ARMHF_CPU}")
    if(NOT KEST_ARMHF_CPU)
        set(KEST_ARMHF_CPU cortex-a7)
    endif()
endif()
set(ENV{KEST_ARMHF_CPU} "${KEST_ARMHF_CPU}")

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(CMAKE_SYSROOT "${KEST_ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH "${KEST_ARMHF_SYSROOT}")
# Tools (moc, rcc) are the build machine's; libraries, headers and packages only the sysroot's.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# -L makes the sysroot the guest's root: the program's interpreter, the C library and Qt all come
# from it, from one glibc build. (The cross compiler's own armhf glibc is a different build of
# the same version; loading its libc.so under the sysroot's ld.so crashes, so nothing points at
# /usr/arm-linux-gnueabihf at run time.) qemu-arm runs through a small wrapper built here for
# the build machine, armhf-emulator.c, so that emulated Qt programs can start processes.
find_program(KEST_QEMU_ARM qemu-arm)
if(NOT KEST_QEMU_ARM)
    message(FATAL_ERROR "qemu-arm not found (Debian package qemu-user)")
endif()
get_property(_kest_in_try_compile GLOBAL PROPERTY IN_TRY_COMPILE)
if(NOT _kest_in_try_compile)
    set(_kest_emulator "${CMAKE_BINARY_DIR}/armhf-emulator")
    set(_kest_emulator_source "${CMAKE_CURRENT_LIST_DIR}/armhf-emulator.c")
    if(NOT EXISTS "${_kest_emulator}" OR "${_kest_emulator_source}" IS_NEWER_THAN "${_kest_emulator}")
        execute_process(
            COMMAND cc -O2 -Wall -Wextra -Werror "-DKEST_QEMU_ARM=\"${KEST_QEMU_ARM}\""
                    -o "${_kest_emulator}" "${_kest_emulator_source}"
            RESULT_VARIABLE _kest_result ERROR_VARIABLE _kest_error)
        if(NOT _kest_result EQUAL 0)
            message(FATAL_ERROR "cannot build ${_kest_emulator}:\n${_kest_error}")
        endif()
    endif()
    set(CMAKE_CROSSCOMPILING_EMULATOR "${_kest_emulator};-L;${KEST_ARMHF_SYSROOT};-cpu;${KEST_ARMHF_CPU}")
endif()
