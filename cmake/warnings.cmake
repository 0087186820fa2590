# The warnings every target of the project is built with, and none of its users.
add_library(tarvo_warnings INTERFACE)
target_compile_options(tarvo_warnings INTERFACE
    -Wall -Wextra -Wpedantic -Wconversion -Wshadow)
