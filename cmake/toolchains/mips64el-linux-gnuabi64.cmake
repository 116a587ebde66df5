# 64-bit little-endian MIPS Linux (mips64el, the n64 ABI), cross-built on a
# Debian host.
set(TARN_CROSS_TRIPLET mips64el-linux-gnuabi64)
set(TARN_CROSS_MULTIARCH mips64el-linux-gnuabi64)
set(TARN_CROSS_PROCESSOR mips64)
set(TARN_CROSS_QEMU qemu-mips64el)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
