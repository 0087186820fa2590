include(ExternalProject)

# Builds some of the project's targets a second time, by the toolchain file of that name, into the
# folder of that name in the build directory. It is the same build as any other: what the project
# decides by word size or processor is decided there as it is for users. Sanitizers are left to the
# main build.
function(tarvo_build_for machine)
    ExternalProject_Add(tarvo_${machine}
        SOURCE_DIR ${PROJECT_SOURCE_DIR}
        BINARY_DIR ${CMAKE_BINARY_DIR}/${machine}
        PREFIX ${CMAKE_BINARY_DIR}/CMakeFiles/${machine}
        CMAKE_ARGS
            -DCMAKE_TOOLCHAIN_FILE=${PROJECT_SOURCE_DIR}/cmake/${machine}.cmake
            -DCMAKE_PROJECT_tarvo_INCLUDE=${PROJECT_SOURCE_DIR}/cmake/googletest_source.cmake
            -DCMAKE_BUILD_TYPE=RelWithDebInfo
            -DCMAKE_COMPILE_WARNING_AS_ERROR=${CMAKE_COMPILE_WARNING_AS_ERROR}
            -DBUILD_TESTING=${BUILD_TESTING}
            -DTARVO_BENCH=${TARVO_BENCH}
        BUILD_COMMAND ${CMAKE_COMMAND} --build <BINARY_DIR> --target ${ARGN}
        BUILD_ALWAYS ON
        INSTALL_COMMAND ""
        LOG_CONFIGURE ON
        LOG_BUILD ON
        LOG_OUTPUT_ON_FAILURE ON)
endfunction()
