# 32-bit ARM with hard float: Debian's cross compiler, and the libraries of Debian's armhf
# architecture beside the build machine's own.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

# g++ remarks on calls whose convention changed in version 7; all that is linked here is newer.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)

# pkg-config on its own would find the build machine's modules.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/arm-linux-gnueabihf/pkgconfig:/usr/share/pkgconfig)
