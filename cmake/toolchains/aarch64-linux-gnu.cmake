# 64-bit Arm (arm64) Linux, cross-built on a Debian host.
set(TARN_CROSS_TRIPLET aarch64-linux-gnu)
set(TARN_CROSS_MULTIARCH aarch64-linux-gnu)
set(TARN_CROSS_PROCESSOR aarch64)
set(TARN_CROSS_QEMU qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
