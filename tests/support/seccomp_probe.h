// Whether this process may install a seccomp filter: not under an emulator
// such as qemu-user, which refuses them. tarn_process_run leaves FIFOs
// possible where it may not, so the tests expect them missing only here.
#ifndef TARN_TEST_SECCOMP_PROBE_H
#define TARN_TEST_SECCOMP_PROBE_H

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tarn_test {

// Tries a filter that allows everything in a child of its own.
inline bool seccomp_filters_available() {
  const pid_t pid = fork();
  if (pid == 0) {
    sock_filter allow = BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW);
    sock_fprog program = {1, &allow};
    const bool ok = prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
                    prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program, 0, 0) == 0;
    _exit(ok ? 0 : 1);
  }
  int status = 0;
  return pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace tarn_test

#endif
