# Cross build for aarch64-linux-gnu with Debian's cross compiler and the arm64 libraries installed
# through multiarch (scripts/aarch64.sh installs both). Programs run under qemu-user, so test
# discovery and ctest work as on the build machine.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

# Headers and libraries of the target come from the multiarch directories under /usr; programs
# (protoc, the shell) from the build machine.
set(CMAKE_FIND_ROOT_PATH /usr/aarch64-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)
set(CMAKE_IGNORE_PATH /usr/lib/x86_64-linux-gnu /usr/lib/x86_64-linux-gnu/cmake)

# The arm64 protobuf runtime with the build machine's protoc (same Debian version).
set(Protobuf_PROTOC_EXECUTABLE /usr/bin/protoc CACHE FILEPATH "")

# -L /: the guest's dynamic loader and every library come from the arm64 multiarch packages
# (libc6:arm64 comes with them). Not -L /usr/aarch64-linux-gnu: that tree's loader belongs to the
# cross toolchain's own C library build, while libc.so.6 would still be found in
# /lib/aarch64-linux-gnu; a loader and a libc of different builds disagree on their private data
# (the first pthread_create loops forever walking the thread-stack cache).
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64 -L /)
