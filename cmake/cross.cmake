# Debian's cross compiler for the architecture that the preset names, armhf or arm64, against the
# libraries that tools/cross/make_sysroot.sh extracts into build/ARCHITECTURE-sysroot; programs run
# under user-mode emulation.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES NUVIO_ARCHITECTURE)
foreach(word GNU_CPU MULTIARCH)
    execute_process(COMMAND dpkg-architecture -a ${NUVIO_ARCHITECTURE} -q DEB_HOST_${word}
                    OUTPUT_VARIABLE NUVIO_${word} OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET
                    COMMAND_ERROR_IS_FATAL ANY)
endforeach()

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${NUVIO_GNU_CPU})
set(CMAKE_C_COMPILER ${NUVIO_MULTIARCH}-gcc)
set(CMAKE_CXX_COMPILER ${NUVIO_MULTIARCH}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${NUVIO_MULTIARCH})
# Where Debian has libraries, which CMake follows on a machine of that architecture only.
set(CMAKE_INSTALL_LIBDIR lib/${NUVIO_MULTIARCH} CACHE PATH "Libraries")

# Nothing here links objects of a compiler older than GCC 7.1, when passing of iterators changed.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)

get_filename_component(CMAKE_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/${NUVIO_ARCHITECTURE}-sysroot
                       ABSOLUTE)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config looks into the sysroot only.
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${CMAKE_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR}
    ${CMAKE_SYSROOT}/usr/lib/${NUVIO_MULTIARCH}/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig)

set(CMAKE_CROSSCOMPILING_EMULATOR qemu-${NUVIO_GNU_CPU}-static -L ${CMAKE_SYSROOT})
