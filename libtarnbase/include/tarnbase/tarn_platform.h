/* tarn_platform.h -- what kind of machine this is: the platform and the
 * processor architecture.
 *
 * Both answers come from uname(2)'s machine field, that is from the running
 * kernel: a 32-bit program on a 64-bit kernel gets the 64-bit answers.
 *
 * The platform kind is TARN_OS_PLATFORM_LINUX, except on an x86 machine
 * (i386 to i686, or x86_64) whose configuration file (TARN_LOG_CONFIG_PATH,
 * tarn_log.h) says
 *
 *   [platform]
 *   x86_companion = 1    ; default 0
 *
 * where it is TARN_OS_PLATFORM_X86_COMPANION: an x86 machine on which the
 * agent also installs companion components built for 32-bit x86. Any value
 * other than 1, a missing key and a malformed file give 0. The file is read
 * once by each process, as for the log keys.
 *
 * Nothing here writes to the log: failures are reported through the
 * results and errno only.
 */
#ifndef TARN_PLATFORM_H
#define TARN_PLATFORM_H

#include <stdint.h>

#include "tarn_base_api.h"

TARNBASE_BEGIN_DECLS

/* Platform kinds. */
#define TARN_OS_PLATFORM_UNKNOWN 0
#define TARN_OS_PLATFORM_X86_COMPANION 1 /* x86 machine with companion x86 components */
#define TARN_OS_PLATFORM_LINUX 2         /* any other Linux machine */

/* Platform widths: the word width of the kernel's machine. */
#define TARN_OS_PLATFORM_WIDTH_32 1
#define TARN_OS_PLATFORM_WIDTH_64 2

/* Processor architecture codes of tarn_get_cpu_arch. */
#define TARN_CPU_ARCH_UNKNOWN 0
#define TARN_CPU_ARCH_X86 1    /* i386, i486, i586, i686 */
#define TARN_CPU_ARCH_X64 2    /* x86_64 */
#define TARN_CPU_ARCH_ARM64 3  /* aarch64 */
#define TARN_CPU_ARCH_MIPS64 4 /* mips64 */

typedef struct tarn_os_platform {
  int32_t kind;  /* TARN_OS_PLATFORM_* */
  int32_t width; /* TARN_OS_PLATFORM_WIDTH_* */
} tarn_os_platform_t;

/* Fills *out with the platform kind and width. The width is 64-bit for a
 * machine whose name is x86_64, aarch64, or otherwise holds "64" (mips64,
 * ppc64le, riscv64, ...) or is s390x; 32-bit for the rest (i686, armv7l,
 * mips, ...). Returns 0; EINVAL for a null out, or the errno of uname(2)
 * (out is then untouched). */
TARNBASE_API int tarn_get_os_platform(tarn_os_platform_t *out);

/* The processor architecture code: TARN_CPU_ARCH_X86 for i386 to i686,
 * TARN_CPU_ARCH_X64 for x86_64, TARN_CPU_ARCH_ARM64 for aarch64,
 * TARN_CPU_ARCH_MIPS64 for mips64 (and mips64el), TARN_CPU_ARCH_UNKNOWN for
 * any other machine or when uname(2) fails. */
TARNBASE_API int tarn_get_cpu_arch(void);

TARNBASE_END_DECLS

#endif
