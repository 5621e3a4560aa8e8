# A toolchain file for another processor: Debian's cross compiler, and qemu, which runs what it has made. Included by
# the file of the processor, which sets port_processor, as CMake names it, and port_triple, as the compiler does.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${port_processor})
set(CMAKE_C_COMPILER ${port_triple}-gcc)  # GoogleTest asks for one
set(CMAKE_CXX_COMPILER ${port_triple}-g++)
set(CMAKE_CROSSCOMPILING_EMULATOR "${CMAKE_CURRENT_LIST_DIR}/../scripts/run-port" ${port_triple})

# Libraries and headers of this machine are of no use there.
set(CMAKE_FIND_ROOT_PATH /usr/${port_triple})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
