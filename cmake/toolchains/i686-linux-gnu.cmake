# 32-bit x86 (i386) Linux, cross-built on a Debian host. Besides the i686
# suite of scripts/cross-test, the native x86-64 build uses it for its
# 32-bit heartbeat peer (tests/peers), which needs only the compiler and
# the i386 packages that scripts/setup-deps installs.
set(TARN_CROSS_TRIPLET i686-linux-gnu)
set(TARN_CROSS_MULTIARCH i386-linux-gnu)
set(TARN_CROSS_PROCESSOR i686)
set(TARN_CROSS_QEMU qemu-i386)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)

