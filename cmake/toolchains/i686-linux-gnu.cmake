# 32-bit x86 Linux, built on an x86_64 Debian host with gcc's multilib
# support (gcc-multilib, g++-multilib) and the i386 multiarch development
# packages (libinih-dev:i386, libjansson-dev:i386, libsodium-dev:i386) and the
# runtime libuuid1:i386. scripts/setup-deps installs them.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)

set(CMAKE_C_COMPILER gcc)
set(CMAKE_CXX_COMPILER g++)
set(CMAKE_C_FLAGS_INIT "-m32")
set(CMAKE_CXX_FLAGS_INIT "-m32")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-m32")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-m32")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "-m32")

# Libraries come from the i386 multiarch directories.
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)

# pkg-config sees only the i386 .pc files and the architecture-independent
# ones; nothing of the host's own architecture.
set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/i386-linux-gnu/pkgconfig:/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")
unset(ENV{PKG_CONFIG_SYSROOT_DIR})
