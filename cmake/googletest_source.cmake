# Included by builds for machines that Debian has no compiled GoogleTest for: find_package(GTest)
# then compiles Debian's sources.
include(FetchContent)
FetchContent_Declare(GTest SOURCE_DIR /usr/src/googletest OVERRIDE_FIND_PACKAGE)
set(INSTALL_GTEST OFF)
