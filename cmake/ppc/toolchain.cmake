# The appliance: 32-bit big-endian PowerPC, with Debian's cross compiler, and qemu's user mode to run what it makes.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR powerpc)
set(CMAKE_C_COMPILER powerpc-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER powerpc-linux-gnu-g++)

# Whole programs of one kind of time: libraries whose interface has a time_t are built with these too.
set(CMAKE_C_FLAGS_INIT "-D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64")
set(CMAKE_CXX_FLAGS_INIT "${CMAKE_C_FLAGS_INIT}")

set(QEL_CROSS_ROOT /usr/powerpc-linux-gnu)
get_filename_component(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/emulate ABSOLUTE)

# What `./dev ppc` has prepared: libcrypto, libssl and libmosquitto.
get_filename_component(QEL_CROSS_DEPENDENCIES ${CMAKE_CURRENT_LIST_DIR}/../../build/deps/ppc ABSOLUTE)
set(CMAKE_FIND_ROOT_PATH ${QEL_CROSS_ROOT} ${QEL_CROSS_DEPENDENCIES})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_LIBDIR} ${QEL_CROSS_ROOT}/lib/pkgconfig)
