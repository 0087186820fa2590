# What is installed, and where. Folders are relative to the prefix, and so is what is written into
# files, so that an installation works from a staging root and wherever it is moved to.
include(CMakePackageConfigHelpers)

foreach(folder BINDIR LIBDIR INCLUDEDIR DATADIR MANDIR DOCDIR)
    if(IS_ABSOLUTE "${CMAKE_INSTALL_${folder}}")
        message(FATAL_ERROR "CMAKE_INSTALL_${folder} is ${CMAKE_INSTALL_${folder}}: it must be "
            "relative to the prefix, or the installation could not be moved")
    endif()
endforeach()

# Libraries. Inside the build the header is found in the sources, by those who installed it below
# the prefix.
get_target_property(header_in_sources tarvo INTERFACE_INCLUDE_DIRECTORIES)
set_target_properties(tarvo PROPERTIES
    INTERFACE_INCLUDE_DIRECTORIES "$<BUILD_INTERFACE:${header_in_sources}>")
install(TARGETS tarvo EXPORT tarvoTargets
    LIBRARY COMPONENT runtime NAMELINK_COMPONENT development
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development
    FILES_MATCHING PATTERN "*.h" PATTERN "*.hpp")

# For pkg-config.
set(pc_folder ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH prefix_from_pc /${pc_folder} /)
string(REGEX REPLACE "/$" "" prefix_from_pc ${prefix_from_pc})
configure_file(cmake/tarvo.pc.in tarvo.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tarvo.pc DESTINATION ${pc_folder} COMPONENT development)

# For CMake. What the library exports is never changed, only added to, as long as its soname stays:
# a later version serves whoever asks for an earlier one.
set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/tarvo)
install(EXPORT tarvoTargets NAMESPACE tarvo:: DESTINATION ${package_folder} COMPONENT development)
configure_package_config_file(cmake/tarvoConfig.cmake.in tarvoConfig.cmake
    INSTALL_DESTINATION ${package_folder}
    NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(tarvoConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES
    ${PROJECT_BINARY_DIR}/tarvoConfig.cmake ${PROJECT_BINARY_DIR}/tarvoConfigVersion.cmake
    DESTINATION ${package_folder} COMPONENT development)

# Tools. They find the library beside them; below /usr the system does that, and is not to be
# overruled.
file(RELATIVE_PATH libraries_from_tools /${CMAKE_INSTALL_BINDIR} /${CMAKE_INSTALL_LIBDIR})
foreach(tool tarvo-driver-check tarvo-sandbox tarvoctl)
    if(TARGET ${tool})
        install(TARGETS ${tool} COMPONENT tools)
        if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
            set_target_properties(${tool} PROPERTIES INSTALL_RPATH \$ORIGIN/${libraries_from_tools})
        endif()
    endif()
endforeach()

# What there is of text, by its kind. A folder is asked again whenever something is built.
set(python_manual ${PROJECT_SOURCE_DIR}/man/tarvo_py.3) # comes with the Python package
set(driver_manual ${PROJECT_SOURCE_DIR}/man/tarvo-dkms.8) # comes with the driver
function(install_matching destination component)
    file(GLOB_RECURSE files CONFIGURE_DEPENDS ${ARGN})
    list(REMOVE_ITEM files ${python_manual} ${driver_manual})
    install(FILES ${files} DESTINATION ${destination} COMPONENT ${component})
endfunction()

foreach(section 1 5 8)
    install_matching(${CMAKE_INSTALL_MANDIR}/man${section} tools man/*.${section})
endforeach()
foreach(section 3 7)
    install_matching(${CMAKE_INSTALL_MANDIR}/man${section} development man/*.${section})
endforeach()
install_matching(${CMAKE_INSTALL_DATADIR}/bash-completion/completions tools completions/bash/*)
install_matching(${CMAKE_INSTALL_DATADIR}/zsh/site-functions tools completions/zsh/*)
install_matching(${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d tools completions/fish/*)
install_matching(${CMAKE_INSTALL_DATADIR}/tarvo tools tools/tarvoctl/*.schema.json)
install_matching(${CMAKE_INSTALL_DOCDIR}/examples tools packaging/60-tarvo-mem.rules)
install_matching(${CMAKE_INSTALL_DOCDIR} tools docs/driver.md docs/hardware.md)
install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT development
    FILES_MATCHING PATTERN "*.[ch]" PATTERN "*.[ch]pp" PATTERN "*.py" PATTERN "__pycache__" EXCLUDE)
install(FILES LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT runtime)

# systemd reads its folder in /usr/lib, in /usr/local/lib, and no library folder of an architecture.
install(FILES packaging/libtarvo0.conf DESTINATION lib/tmpfiles.d COMPONENT runtime)

# The Python package says its version itself, as it can be installed without CMake.
file(STRINGS python/tarvo/__init__.py python_version REGEX "^__version__ = ")
if(NOT python_version STREQUAL "__version__ = \"${PROJECT_VERSION}\"")
    message(FATAL_ERROR "python/tarvo/__init__.py says \"${python_version}\", and the project's "
        "version is ${PROJECT_VERSION}")
endif()

# Python. The distribution's own comes first: the one that users of the system will run.
find_program(TARVO_PYTHON python3 PATHS /usr/bin NO_DEFAULT_PATH)
find_program(TARVO_PYTHON python3)
if(TARVO_PYTHON AND NOT DEFINED TARVO_PYTHON_DIR)
    execute_process(
        COMMAND ${TARVO_PYTHON} -I cmake/python_folder.py ${CMAKE_INSTALL_PREFIX}
        WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
        OUTPUT_VARIABLE python_folder OUTPUT_STRIP_TRAILING_WHITESPACE
        COMMAND_ERROR_IS_FATAL ANY)
    set(TARVO_PYTHON_DIR ${python_folder} CACHE STRING
        "Folder for the Python package, relative to the prefix")
endif()
if(TARVO_PYTHON_DIR)
    install(DIRECTORY python/tarvo DESTINATION ${TARVO_PYTHON_DIR} COMPONENT python
        PATTERN "__pycache__" EXCLUDE)
    install(FILES ${python_manual} DESTINATION ${CMAKE_INSTALL_MANDIR}/man3 COMPONENT python)
else()
    tarvo_left_out("installing the Python package" python3)
endif()

include(cmake/dkms.cmake)
