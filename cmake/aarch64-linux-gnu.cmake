# Cross build for 64-bit ARM with Debian's cross compiler and the arm64
# multiarch packages (libraries in /usr/lib/aarch64-linux-gnu, headers in
# /usr/include). The test programs run under qemu-user, which ctest calls
# through the emulator below.
#
#   cmake -S . -B build-arm64 --toolchain cmake/aarch64-linux-gnu.cmake
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

# Packages are found under the arm64 multiarch folders of the host's root,
# never the host's own libraries; programs (cmake helpers, nm) are the host's.
set(CMAKE_FIND_ROOT_PATH /usr/aarch64-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)
set(PKG_CONFIG_EXECUTABLE aarch64-linux-gnu-pkg-config CACHE FILEPATH "")

# No loader prefix (-L /usr/aarch64-linux-gnu): the programs load the arm64
# multiarch libraries (libc6:arm64, libgomp1:arm64, ...) that the host's
# loader cache lists. The cross toolchain's C library is another build of
# glibc, and a program that mixed the two spun on its second thread.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64)
