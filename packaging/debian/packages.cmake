# Debian packages by CPack, one for each component of the installation. Their version is that of the
# changelog, as always in Debian; its revision begins with 0, which leaves 1 to Debian itself.
set(here ${CMAKE_CURRENT_LIST_DIR})

file(STRINGS ${here}/changelog newest LIMIT_COUNT 1)
string(REGEX MATCH "^tarvo \\((.*)-(.*)\\)" matched "${newest}")
if(NOT CMAKE_MATCH_1 STREQUAL PROJECT_VERSION)
    message(FATAL_ERROR "packaging/debian/changelog begins with \"${newest}\", and the project's "
        "version is ${PROJECT_VERSION}: add an entry for it there")
endif()
set(CPACK_DEBIAN_PACKAGE_RELEASE ${CMAKE_MATCH_2})
set(same_version "(= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")
set(this_or_later "(>= ${PROJECT_VERSION})")

set(CPACK_PACKAGE_NAME tarvo)
set(CPACK_PACKAGE_CONTACT "libtarvo developers <developers@tarvo.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # each has its own
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_BUILT_FOR ${CMAKE_INSTALL_PREFIX})
set(CPACK_PROJECT_CONFIG_FILE ${here}/prefix.cmake)
set(CPACK_PRE_BUILD_SCRIPTS ${here}/tree.cmake)
set(CPACK_STRIP_FILES ON)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SOURCE tarvo)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# Where the tools' library is found while packages are made; none of them has it yet.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})

set(CPACK_COMPONENTS_ALL runtime development tools dkms)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libtarvo0)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
configure_file(${here}/libtarvo0/shlibs.in shlibs @ONLY)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
    ${PROJECT_BINARY_DIR}/shlibs ${here}/libtarvo0/triggers
    ${here}/libtarvo0/postinst ${here}/libtarvo0/postrm)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION [[
named chunks of one DMA region, shared by processes
libtarvo hands out named chunks of one reserved, physically contiguous
memory region to all processes of a machine. Who asks for a name gets the
DMA address that a device is given, and can map the chunk; every chunk is
kept mapped in the IOMMU for every registered PCI device.

Without such a region it simulates one in ordinary files.

This package contains the library and makes the folders that it needs.]])

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libtarvo-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libtarvo0 ${same_version}")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SUGGESTS tarvo-tools)
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION [[
named chunks of one DMA region, shared by processes (development)
libtarvo hands out named chunks of one reserved, physically contiguous
memory region to all processes of a machine, with the DMA addresses that
devices are given.

This package contains what programs in C and C++ are built with: headers,
the link to the library, files for pkg-config and CMake, the manual of each
call, and examples.]])

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME tarvo-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libtarvo0 ${this_or_later}")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION [[
tools for named chunks of one DMA region
libtarvo hands out named chunks of one reserved, physically contiguous
memory region to all processes of a machine.

This package contains tarvoctl, which shows, checks, repairs and changes
what is in the region, tarvo-sandbox, which runs a command on a machine
that seems to have the kernel driver, so that programs can be tried and
tested without it, and tarvo-driver-check, which checks such a driver.]])

set(CPACK_DEBIAN_DKMS_PACKAGE_NAME tarvo-dkms)
set(CPACK_DEBIAN_DKMS_PACKAGE_SECTION kernel)
set(CPACK_DEBIAN_DKMS_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_DKMS_PACKAGE_DEPENDS "dkms (>= 3.0), kmod")
set(CPACK_DEBIAN_DKMS_PACKAGE_RECOMMENDS "libtarvo0, linux-headers-amd64 | linux-headers-generic")
set(CPACK_DEBIAN_DKMS_PACKAGE_SUGGESTS "mokutil, tarvo-tools")
foreach(script postinst prerm)
    configure_file(${here}/tarvo-dkms/${script}.in dkms/${script} @ONLY
        FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE
            GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
endforeach()
set(CPACK_DEBIAN_DKMS_PACKAGE_CONTROL_EXTRA
    ${here}/tarvo-dkms/conffiles
    ${PROJECT_BINARY_DIR}/dkms/postinst ${PROJECT_BINARY_DIR}/dkms/prerm)
set(CPACK_DEBIAN_DKMS_DESCRIPTION [[
named chunks of one DMA region, shared by processes (kernel driver)
libtarvo hands out named chunks of one reserved, physically contiguous
memory region to all processes of a machine, with the DMA addresses that
devices are given.

This package contains the sources of the kernel driver that it speaks to on
hardware. DKMS builds the module for each kernel whose headers are
installed; once a region is named in /etc/modprobe.d/tarvo.conf it is loaded
before the services of the machine start.]])

if(TARVO_PYTHON_DIR)
    list(APPEND CPACK_COMPONENTS_ALL python)
    set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-tarvo)
    set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
    set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
    set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "libtarvo0 ${this_or_later}, python3:any")
    set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_EXTRA
        ${here}/python3-tarvo/postinst ${here}/python3-tarvo/prerm)
    set(CPACK_DEBIAN_PYTHON_DESCRIPTION [[
named chunks of one DMA region, shared by processes (Python)
libtarvo hands out named chunks of one reserved, physically contiguous
memory region to all processes of a machine, with the DMA addresses that
devices are given.

This package contains its calls for Python 3, with mapped chunks as
writable memory views, and a reader of the shared bookkeeping for
post-mortems.]])
endif()

include(CPack)
