# Debian's cross compiler for aarch64, with Debian's arm64 packages beside this machine's own, and qemu's user
# emulation for what the build and ctest run. scripts/aarch64-packages.txt lists all of it.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64)

# Packages of any architecture lie under /usr, in folders of their architecture's name. Those of this
# machine's must not be found in their place.
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig)
