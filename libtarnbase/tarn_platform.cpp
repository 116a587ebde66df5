// The platform and processor architecture, from uname(2)'s machine name and
// the [platform] section of the configuration file.

#include "tarnbase/tarn_platform.h"

#include <errno.h>
#include <string.h>
#include <sys/utsname.h>

#include "config.h"

namespace {

int cpu_arch_of(const char *machine) {
  if (strcmp(machine, "x86_64") == 0) return TARN_CPU_ARCH_X64;
  if (strcmp(machine, "aarch64") == 0) return TARN_CPU_ARCH_ARM64;
  if (strcmp(machine, "mips64") == 0 || strcmp(machine, "mips64el") == 0) return TARN_CPU_ARCH_MIPS64;
  // i386, i486, i586, i686
  if (strlen(machine) == 4 && machine[0] == 'i' && machine[1] >= '3' && machine[1] <= '6' &&
      strcmp(machine + 2, "86") == 0)
    return TARN_CPU_ARCH_X86;
  return TARN_CPU_ARCH_UNKNOWN;
}

int width_of(const char *machine) {
  return strstr(machine, "64") != nullptr || strcmp(machine, "s390x") == 0 ? TARN_OS_PLATFORM_WIDTH_64
                                                                           : TARN_OS_PLATFORM_WIDTH_32;
}

}  // namespace

extern "C" {

TARNBASE_API int tarn_get_os_platform(tarn_os_platform_t *out) {
  if (out == nullptr) {
    errno = EINVAL;
    return EINVAL;
  }
  struct utsname name;
  if (uname(&name) != 0) return errno;
  const int arch = cpu_arch_of(name.machine);
  const bool x86 = arch == TARN_CPU_ARCH_X86 || arch == TARN_CPU_ARCH_X64;
  out->kind = x86 && tarnbase::base_config().x86_companion ? TARN_OS_PLATFORM_X86_COMPANION : TARN_OS_PLATFORM_LINUX;
  out->width = width_of(name.machine);
  return 0;
}

TARNBASE_API int tarn_get_cpu_arch(void) {
  struct utsname name;
  if (uname(&name) != 0) return TARN_CPU_ARCH_UNKNOWN;
  return cpu_arch_of(name.machine);
}

}  // extern "C"
