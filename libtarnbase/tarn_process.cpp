#include "tarnbase/tarn_process.h"

#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "proc_stat.h"

extern "C" {

TARNBASE_API int tarn_process_get_pid(void) { return (int)getpid(); }

TARNBASE_API int tarn_process_is_exist(int pid) {
  if (pid <= 0) return 0;
  if (kill(pid, 0) != 0 && errno != EPERM) return 0;
  // kill() also succeeds for a zombie, which has exited already.
  tarnbase::ProcStat stat;
  if (!tarnbase::read_proc_stat(pid, &stat)) return 0;
  return stat.exited() ? 0 : 1;
}

TARNBASE_API int tarn_process_get_path(int pid, char *buf, size_t len) {
  if (buf == nullptr || len == 0) {
    errno = EINVAL;
    return -1;
  }
  char link[64];
  snprintf(link, sizeof(link), "/proc/%d/exe", pid);
  char path[4096];
  const ssize_t length = readlink(link, path, sizeof(path) - 1);
  if (length < 0) {
    buf[0] = '\0';
    return -1;
  }
  const size_t kept = (size_t)length < len ? (size_t)length : len - 1;
  memcpy(buf, path, kept);
  buf[kept] = '\0';
  return (int)kept;
}

}  // extern "C"
