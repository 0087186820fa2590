# A library build needs a compiler alone. What else is missing is said aloud, and is an error where
# TARVO_COMPLETE asks for everything, so that nothing is skipped in silence.
function(tarvo_left_out what missing)
    if(TARVO_COMPLETE)
        message(FATAL_ERROR "${what} cannot be built: ${missing} not found; run ./scripts/setup")
    endif()
    message(WARNING "${what} left out: ${missing} not found; ./scripts/setup installs it")
endfunction()

# tarvo_missing(OUT PACKAGE...): those that were not found, with commas between them.
function(tarvo_missing out)
    set(missing "")
    foreach(package ${ARGN})
        if(NOT ${package}_FOUND)
            list(APPEND missing ${package})
        endif()
    endforeach()
    list(JOIN missing ", " missing)
    set(${out} "${missing}" PARENT_SCOPE)
endfunction()
