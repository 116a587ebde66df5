// The calling process's pid, cached.
#ifndef TARNBASE_SELF_PID_H
#define TARNBASE_SELF_PID_H

namespace tarnbase {

// The calling process's pid as getpid() gives it, without a system call
// after the first. The cache is emptied in a child by a pthread_atfork
// handler and, where the system supports it, also by the kernel: it lives
// in a page marked MADV_WIPEONFORK, which a child made by a raw fork or
// clone (no atfork handler runs) gets zero-filled. A vfork child, which
// shares the parent's memory, reads the parent's pid.
int self_pid();

}  // namespace tarnbase

#endif
