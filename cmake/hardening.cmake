# What the library and the tools are compiled and linked with, so that a fault in memory ends the
# program where it happens and is of little use to an attacker. tests/build/check_hardened reads it
# back from what was built.
include(CheckCXXCompilerFlag)
include(CheckPIESupported)
check_pie_supported()

# Landings for indirect calls are for x86. The same for arm64 (-mbranch-protection) takes 15 more
# instructions in a look-up of 640, and Debian 12's C library does not use it.
check_cxx_compiler_flag(-fcf-protection tarvo_has_landings)

# tarvo_harden(TARGET...)
function(tarvo_harden)
    foreach(target ${ARGN})
        set_target_properties(${target} PROPERTIES POSITION_INDEPENDENT_CODE ON)
        # All symbols are bound at the start, so calls need no detour by which they are bound later;
        # what that saves pays for a part of the rest.
        # Lengths are known only where the compiler optimises.
        target_compile_options(${target} PRIVATE
            -fstack-protector-strong -fstack-clash-protection -fno-plt
            $<$<BOOL:${tarvo_has_landings}>:-fcf-protection>
            "$<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:SHELL:-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3>")
        get_target_property(type ${target} TYPE)
        if(NOT type STREQUAL "STATIC_LIBRARY")
            target_link_options(${target} PRIVATE -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)
        endif()
    endforeach()
endfunction()
