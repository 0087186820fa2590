# Read by CPack first. Debian's folders for libraries and Python modules follow from the prefix when
# the build is configured, so that it must be the one that packages have.
if(CPACK_GENERATOR STREQUAL "DEB" AND NOT CPACK_BUILT_FOR STREQUAL CPACK_PACKAGING_INSTALL_PREFIX)
    message(FATAL_ERROR "This build is configured for the prefix ${CPACK_BUILT_FOR} and Debian "
        "packages need ${CPACK_PACKAGING_INSTALL_PREFIX}: run scripts/package, or configure with "
        "-DCMAKE_INSTALL_PREFIX=${CPACK_PACKAGING_INSTALL_PREFIX}")
endif()
