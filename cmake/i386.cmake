# Toolchain: 32-bit programs for the machine that compiles them. The versioned compiler: Debian's
# gcc-multilib cannot be installed beside cross compilers. It alone has the link that shows this word
# size the kernel's headers, so their folder is named here.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_C_COMPILER gcc-12)
set(CMAKE_CXX_COMPILER g++-12)
foreach(language C CXX)
    set(CMAKE_${language}_FLAGS_INIT "-m32 -idirafter /usr/include/x86_64-linux-gnu")
endforeach()
