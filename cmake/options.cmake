# Warnings, hardening and sanitizers, the same for every target.
include(CheckCXXCompilerFlag)

add_compile_options(
    -Wall -Wextra -Wpedantic -Wshadow -Wcast-align -Wformat=2 -Wundef
    -fno-common -fstack-protector-strong
    # __FILE__ from the top of the tree: what is shipped doesn't tell where it was built.
    -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=
    $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor>
    $<$<COMPILE_LANGUAGE:CXX>:-Woverloaded-virtual>
    # A 64-bit off_t also where long has 32 bits. time_t stays what the system's libraries were
    # built with: its width is part of Avahi's and ALSA's interfaces.
    -D_FILE_OFFSET_BITS=64
    # An element that isn't there, a look into an empty optional or pointer end the process.
    -D_GLIBCXX_ASSERTIONS)

# Where a library's sources are compiled as a few, GCC takes what is unnamed in one of them for a header's.
if(CMAKE_UNITY_BUILD)
    add_compile_options($<$<AND:$<COMPILE_LANGUAGE:CXX>,$<CXX_COMPILER_ID:GNU>>:-Wno-subobject-linkage>)
endif()

if(NUVIO_SANITIZE)
    add_compile_options(-fsanitize=${NUVIO_SANITIZE} -fno-omit-frame-pointer -g1)
    add_link_options(-fsanitize=${NUVIO_SANITIZE})
    if(NUVIO_SANITIZE MATCHES "undefined")
        add_compile_options(-fno-sanitize-recover=undefined)
    endif()
    if(NUVIO_FUZZ)
        add_compile_options(-fsanitize=fuzzer-no-link)
    endif()
else()
    # Distributions' compilers and flags may define a level of their own.
    set(hardening -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3)
    # Not every target has them.
    foreach(flag stack-clash-protection cf-protection)
        check_cxx_compiler_flag(-f${flag} NUVIO_HAS_${flag})
        if(NUVIO_HAS_${flag})
            list(APPEND hardening -f${flag})
        endif()
    endforeach()
    add_compile_options("$<$<CONFIG:Release,RelWithDebInfo>:${hardening}>")
    # What nothing refers to is left out.
    add_compile_options(-ffunction-sections -fdata-sections)
    add_link_options(-Wl,--gc-sections)
endif()

add_link_options(-Wl,-z,relro,-z,now -Wl,--as-needed)
# Relocations in a thirtieth of the room, where the linker and the C library know how.
include(CheckLinkerFlag)
check_linker_flag(CXX -Wl,--fatal-warnings,-z,pack-relative-relocs NUVIO_HAS_PACKED_RELOCATIONS)
if(NUVIO_HAS_PACKED_RELOCATIONS)
    add_link_options(-Wl,-z,pack-relative-relocs)
endif()
include(CheckPIESupported)
check_pie_supported()
