// Processes: questions about them, and starting programs without a shell.

#include "tarnbase/tarn_process.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stddef.h>
#include <string.h>
#include <poll.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <linux/audit.h>
#include <linux/capability.h>
#include <linux/filter.h>
#include <linux/seccomp.h>

#include <initializer_list>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "command_output.h"
#include "proc_stat.h"

namespace {

// The kernel's pidfs (Linux 6.9 and later) gives every process an inode
// number of its own; before it, pidfds shared one anonymous inode.
constexpr unsigned long kPidfsMagic = 0x50494446;

int open_pidfd(int pid) {
#ifdef SYS_pidfd_open
  return (int)syscall(SYS_pidfd_open, pid, 0);
#else
  (void)pid;
  errno = ENOSYS;
  return -1;
#endif
}

bool pidfd_exited(int fd) {
  struct pollfd entry = {fd, POLLIN, 0};
  return poll(&entry, 1, 0) == 1 && (entry.revents & (POLLIN | POLLHUP)) != 0;
}

uint64_t pidfs_inode_of(int fd) {
  struct statfs fs;
  struct stat st;
  if (fstatfs(fd, &fs) != 0 || (unsigned long)fs.f_type != kPidfsMagic || fstat(fd, &st) != 0)
    return 0;
  return (uint64_t)st.st_ino;
}

int hex_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

// This boot's id, read once: it cannot change while the process runs.
bool read_boot_id(uint8_t id[16]) {
  static uint8_t cached[16];
  static int state = 0;  // 0 unread, 1 read, -1 unreadable
  if (__atomic_load_n(&state, __ATOMIC_ACQUIRE) == 0) {
    uint8_t value[16] = {};
    char text[64] = {};
    const int fd = open("/proc/sys/kernel/random/boot_id", O_RDONLY | O_CLOEXEC);
    const ssize_t length = fd < 0 ? -1 : read(fd, text, sizeof(text) - 1);
    if (fd >= 0) close(fd);
    int digits = 0;
    for (ssize_t i = 0; i < length && digits < 32; ++i) {
      const int nibble = hex_value(text[i]);
      if (nibble < 0) continue;
      value[digits / 2] = (uint8_t)(value[digits / 2] << 4 | nibble);
      ++digits;
    }
    if (digits == 32) memcpy(cached, value, sizeof(cached));
    __atomic_store_n(&state, digits == 32 ? 1 : -1, __ATOMIC_RELEASE);
  }
  if (__atomic_load_n(&state, __ATOMIC_ACQUIRE) != 1) return false;
  memcpy(id, cached, sizeof(cached));
  return true;
}

bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\n'; }

// Splits a command line into words as tarn_process_create describes.
// Returns false for an unclosed quote or a trailing backslash.
bool split_words(const char *line, std::vector<std::string> *words) {
  std::string word;
  bool in_word = false;
  for (const char *p = line; *p != '\0'; ++p) {
    if (is_blank(*p)) {
      if (in_word) words->push_back(word);
      word.clear();
      in_word = false;
      continue;
    }
    in_word = true;
    if (*p == '\'') {
      const char *end = strchr(p + 1, '\'');
      if (end == nullptr) return false;
      word.append(p + 1, end);
      p = end;
    } else if (*p == '"') {
      for (++p; *p != '"'; ++p) {
        if (*p == '\0') return false;
        if (*p == '\\' && p[1] != '\0' && strchr("\"\\$`", p[1]) != nullptr) ++p;
        word += *p;
      }
    } else if (*p == '\\') {
      if (p[1] == '\0') return false;
      word += *++p;
    } else {
      word += *p;
    }
  }
  if (in_word) words->push_back(word);
  return true;
}

// A close-on-exec pipe whose ends are both above the standard descriptors:
// a caller that closed its own standard streams would otherwise get them
// as 0 or 1, and the child's copies would then be closed by its exec.
bool open_report_pipe(int fds[2]) {
  int raw[2];
  if (pipe2(raw, O_CLOEXEC) != 0) return false;
  fds[0] = fcntl(raw[0], F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  fds[1] = fcntl(raw[1], F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  const int error = errno;
  close(raw[0]);
  close(raw[1]);
  if (fds[0] >= 0 && fds[1] >= 0) return true;
  if (fds[0] >= 0) close(fds[0]);
  if (fds[1] >= 0) close(fds[1]);
  errno = error;
  return false;
}

// In a forked child: writes the errno of the failed step to report_fd and
// ends the child.
[[noreturn]] void report_and_exit(int report_fd) {
  const int error = errno;
  ssize_t ignored = write(report_fd, &error, sizeof(error));
  (void)ignored;
  _exit(127);
}

// A seccomp program that makes mknod and mknodat fail with EPERM, built
// before the fork (the child may not allocate). Each block covers one
// system call convention that a program run on this kernel may use: the
// library's own and, on x86, the other word width's, since a 32-bit agent
// may run a 64-bit tar and the other way round. A program of any other
// convention gets EPERM for every call: it fails instead of running
// unchecked.
class NoSpecialFilesFilter {
 public:
  NoSpecialFilesFilter() {
#if defined(__x86_64__)
    add_block(AUDIT_ARCH_X86_64, {__NR_mknod, __NR_mknodat}, true);
    add_block(AUDIT_ARCH_I386, {14, 297}, false);  // i386: mknod, mknodat
#elif defined(__i386__)
    add_block(AUDIT_ARCH_I386, {__NR_mknod, __NR_mknodat}, false);
    add_block(AUDIT_ARCH_X86_64, {133, 259}, true);  // x86-64: mknod, mknodat
#elif defined(__aarch64__)
    add_block(AUDIT_ARCH_AARCH64, {__NR_mknodat}, false);
#elif defined(__mips__) && defined(__MIPSEL__) && _MIPS_SIM == _ABI64
    add_block(AUDIT_ARCH_MIPSEL64, {__NR_mknod, __NR_mknodat}, false);
#elif defined(__mips__) && _MIPS_SIM == _ABI64
    add_block(AUDIT_ARCH_MIPS64, {__NR_mknod, __NR_mknodat}, false);
#endif
    program_.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM));
    fprog_.len = (unsigned short)program_.size();
    fprog_.filter = program_.data();
  }
  const sock_fprog *fprog() const { return &fprog_; }

 private:
  // [load arch; not this one: skip the block; load nr; (x32: deny);
  //  mknod...: deny; allow; deny]
  void add_block(uint32_t arch, std::initializer_list<long> denied, bool x32_follows) {
    const size_t extra = (x32_follows ? 1 : 0) + denied.size();
    const unsigned char after_arch = (unsigned char)(1 + extra + 2);
    program_.push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, arch)));
    program_.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, arch, 0, after_arch));
    program_.push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr)));
    // Each test jumps to the block's deny, which follows its allow.
    unsigned char to_deny = (unsigned char)(extra + 1);
    if (x32_follows) {
      // The x32 convention of an x86-64 kernel: its numbers have bit 30 set.
      program_.push_back(BPF_JUMP(BPF_JMP | BPF_JGE | BPF_K, 0x40000000u, to_deny, 0));
      --to_deny;
    }
    for (long number : denied) {
      program_.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, (uint32_t)number, to_deny, 0));
      --to_deny;
    }
    program_.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    program_.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM));
  }

  std::vector<sock_filter> program_;
  sock_fprog fprog_{};
};

// In a forked child: makes sure that nothing it executes can make a device
// node or a FIFO. Returns false with errno when a step fails.
bool forbid_special_files(const sock_fprog *filter) {
  // No program executed from here on gains a privilege: no set-ID program,
  // no file capability, and root's exec keeps no capability beyond those
  // the process has now.
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return false;
  // Out of the bounding set too, where the process may change it (root).
  if (prctl(PR_CAPBSET_DROP, CAP_MKNOD, 0, 0, 0) != 0 && errno != EPERM) return false;
  __user_cap_header_struct header;
  memset(&header, 0, sizeof(header));
  header.version = _LINUX_CAPABILITY_VERSION_3;
  __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3];
  memset(data, 0, sizeof(data));
  if (syscall(SYS_capget, &header, data) != 0) return false;
  const uint32_t mknod_bit = 1u << (CAP_MKNOD % 32);
  __user_cap_data_struct &word = data[CAP_MKNOD / 32];
  word.effective &= ~mknod_bit;
  word.permitted &= ~mknod_bit;
  word.inheritable &= ~mknod_bit;
  if (syscall(SYS_capset, &header, data) != 0) return false;
  // FIFOs need no capability: they are stopped by the filter. A system
  // that has no seccomp filters (EINVAL, ENOSYS: a kernel built without
  // them, an emulator such as qemu-user) leaves them possible.
  if (prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, filter, 0, 0) != 0 && errno != EINVAL &&
      errno != ENOSYS) {
    return false;
  }
  return true;
}

// In a forked child: gives the program default signal handling, an empty
// signal mask and no descriptor above 2, then executes it: path with envp
// as its environment, or, without envp, argv[0] looked up in PATH with the
// caller's environment. With a filter, the program cannot make device
// nodes or FIFOs (forbid_special_files). Only async-signal-safe calls,
// since the caller may have other threads.
[[noreturn]] void exec_program(const char *path, char *const argv[], char *const envp[],
                               const sock_fprog *filter, int report_fd) {
  struct sigaction default_action;
  memset(&default_action, 0, sizeof(default_action));
  default_action.sa_handler = SIG_DFL;
  for (int signal_number = 1; signal_number < NSIG; ++signal_number) {
    sigaction(signal_number, &default_action, nullptr);
  }
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  if (close_range(STDERR_FILENO + 1, ~0u, CLOSE_RANGE_CLOEXEC) != 0) {
    const long limit = sysconf(_SC_OPEN_MAX);
    for (int fd = STDERR_FILENO + 1; fd < limit; ++fd) fcntl(fd, F_SETFD, FD_CLOEXEC);
  }
  if (filter != nullptr && !forbid_special_files(filter)) report_and_exit(report_fd);
  if (envp != nullptr) {
    execve(path, argv, envp);
  } else {
    execvp(argv[0], argv);
  }
  report_and_exit(report_fd);
}

// Reads an errno that a child reported before the pipe's end of file.
// Returns 0 when there was none: the program was executed.
int read_report(int fd) {
  int error = 0;
  size_t got = 0;
  while (got < sizeof(error)) {
    const ssize_t n = read(fd, reinterpret_cast<char *>(&error) + got, sizeof(error) - got);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    got += (size_t)n;
  }
  return got == sizeof(error) ? error : 0;
}

// Waits for pid; its exit status, 128 + the signal that ended it, or -1
// with errno.
int wait_status(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Starts argv; see tarn_process_create.
int create(char *const argv[], bool wait_for_end) {
  int fds[2];
  if (!open_report_pipe(fds)) return -1;
  const pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    if (!wait_for_end) {
      // The intermediate process: the program becomes its child, and init's
      // (or the nearest subreaper's) once it has exited.
      const pid_t program = fork();
      if (program < 0) report_and_exit(fds[1]);
      if (program > 0) _exit(0);
    }
    exec_program(nullptr, argv, nullptr, nullptr, fds[1]);
  }
  const int fork_error = errno;
  close(fds[1]);
  if (pid < 0) {
    close(fds[0]);
    errno = fork_error;
    return -1;
  }
  const int start_error = read_report(fds[0]);
  close(fds[0]);
  const int status = wait_status(pid);
  if (start_error != 0) {
    errno = start_error;
    return -1;
  }
  return wait_for_end ? status : 0;
}

// In a forked child: standard input from input_fd (-1: /dev/null) and
// standard output to output_fd. Returns false with errno.
bool redirect_standard_streams(int input_fd, int output_fd) {
  // Whatever stands above 2 is closed by the exec (exec_program).
  const int input = input_fd >= 0 ? input_fd : open("/dev/null", O_RDONLY);
  if (input < 0) return false;
  if (input == STDIN_FILENO ? fcntl(input, F_SETFD, 0) < 0 : dup2(input, STDIN_FILENO) < 0) return false;
  return dup2(output_fd, STDOUT_FILENO) >= 0;
}

// See tarn_process_run.
int run(const char *path, char *const argv[], char *const envp[], int input_fd, unsigned flags,
        char *out, size_t out_len) {
  std::unique_ptr<NoSpecialFilesFilter> filter;
  if ((flags & TARN_PROCESS_NO_SPECIAL_FILES) != 0) filter.reset(new NoSpecialFilesFilter());
  int report[2];
  int output[2];
  if (!open_report_pipe(report)) return -1;
  if (!open_report_pipe(output)) {
    const int error = errno;
    close(report[0]);
    close(report[1]);
    errno = error;
    return -1;
  }
  const pid_t pid = fork();
  if (pid == 0) {
    close(report[0]);
    close(output[0]);
    if (!redirect_standard_streams(input_fd, output[1])) report_and_exit(report[1]);
    exec_program(path, argv, envp, filter ? filter->fprog() : nullptr, report[1]);
  }
  const int fork_error = errno;
  close(report[1]);
  close(output[1]);
  if (pid < 0) {
    close(report[0]);
    close(output[0]);
    errno = fork_error;
    return -1;
  }
  tarnbase::read_command_output(output[0], out, out_len);
  close(output[0]);
  const int start_error = read_report(report[0]);
  close(report[0]);
  const int status = wait_status(pid);
  if (start_error != 0) {
    errno = start_error;
    return -1;
  }
  return status;
}

}  // namespace

extern "C" {

TARNBASE_API int tarn_process_get_pid(void) { return (int)getpid(); }

TARNBASE_API unsigned int tarn_process_get_umask(void) {
  unsigned int mask = 022;
  FILE *status = fopen("/proc/self/status", "re");
  if (status == nullptr) return mask;
  char line[256];
  while (fgets(line, sizeof(line), status) != nullptr) {
    unsigned value = 0;
    if (sscanf(line, "Umask: %o", &value) == 1) {
      mask = value & 0777;
      break;
    }
  }
  fclose(status);
  return mask;
}

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

TARNBASE_API int tarn_process_create(const char *command_line, int wait) {
  if (command_line == nullptr) {
    errno = EINVAL;
    return -1;
  }
  try {
    std::vector<std::string> words;
    if (!split_words(command_line, &words) || words.empty()) {
      errno = EINVAL;
      return -1;
    }
    std::vector<char *> argv;
    for (std::string &word : words) argv.push_back(&word[0]);
    argv.push_back(nullptr);
    return create(argv.data(), wait != 0);
  } catch (const std::bad_alloc &) {
    errno = ENOMEM;
    return -1;
  }
}

TARNBASE_API int tarn_process_run(const char *path, char *const argv[], char *const envp[],
                                  int input_fd, unsigned flags, char *out, size_t out_len) {
  if (out != nullptr && out_len > 0) out[0] = '\0';
  if (path == nullptr || path[0] != '/' || argv == nullptr || argv[0] == nullptr || envp == nullptr ||
      input_fd < -1 || (flags & ~TARN_PROCESS_NO_SPECIAL_FILES) != 0) {
    errno = EINVAL;
    return -1;
  }
  if (input_fd >= 0 && fcntl(input_fd, F_GETFD) < 0) return -1;
  try {
    return run(path, argv, envp, input_fd, flags, out, out_len);
  } catch (const std::bad_alloc &) {
    errno = ENOMEM;
    return -1;
  }
}

TARNBASE_API int tarn_process_get_identity(int pid, tarn_process_identity_t *out) {
  if (out != nullptr) memset(out, 0, sizeof(*out));
  if (pid <= 0 || out == nullptr) {
    errno = EINVAL;
    return EINVAL;
  }
  // The pidfd pins the process: while it has not exited, pid is still its
  // pid, so the stat line read in between is its own.
  const int fd = open_pidfd(pid);
  if (fd < 0 && errno == ESRCH) return ESRCH;
  tarnbase::ProcStat stat{};
  const bool have_stat = tarnbase::read_proc_stat(pid, &stat);
  const int stat_errno = errno;
  int result = 0;
  if (fd >= 0 && pidfd_exited(fd)) {
    result = ESRCH;
  } else if (!have_stat) {
    result = stat_errno == ENOENT && access("/proc/self", F_OK) == 0 ? ESRCH : stat_errno;
  } else if (stat.exited()) {
    result = ESRCH;
  } else {
    out->pid = pid;
    out->start_time = stat.start_time;
    out->pidfs_inode = fd >= 0 ? pidfs_inode_of(fd) : 0;
    read_boot_id(out->boot_id);
  }
  if (fd >= 0) close(fd);
  if (result != 0) {
    memset(out, 0, sizeof(*out));
    errno = result;
  }
  return result;
}

TARNBASE_API int tarn_process_get_self_identity(tarn_process_identity_t *out) {
  // Read without a lock once known: `self_pid` is published after the rest
  // and cleared before it is rewritten, so a reader that sees the caller's
  // pid before and after its copy has copied a whole identity. A forked
  // child finds its parent's pid there and reads its own.
  static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  static tarn_process_identity_t self;
  static int self_pid = 0;
  if (out == nullptr) {
    errno = EINVAL;
    return EINVAL;
  }
  const int pid = tarn_process_get_pid();
  if (__atomic_load_n(&self_pid, __ATOMIC_ACQUIRE) == pid) {
    *out = self;
    __atomic_thread_fence(__ATOMIC_ACQUIRE);
    if (__atomic_load_n(&self_pid, __ATOMIC_RELAXED) == pid) return 0;
  }
  pthread_mutex_lock(&mutex);
  int result = 0;
  if (__atomic_load_n(&self_pid, __ATOMIC_RELAXED) != pid) {
    __atomic_store_n(&self_pid, 0, __ATOMIC_RELAXED);
    __atomic_thread_fence(__ATOMIC_RELEASE);
    result = tarn_process_get_identity(pid, &self);
    if (result == 0) __atomic_store_n(&self_pid, pid, __ATOMIC_RELEASE);
  }
  *out = self;
  pthread_mutex_unlock(&mutex);
  if (result != 0) {
    memset(out, 0, sizeof(*out));
    errno = result;
  }
  return result;
}

TARNBASE_API int tarn_process_identity_same(const tarn_process_identity_t *a,
                                            const tarn_process_identity_t *b) {
  if (a == nullptr || b == nullptr) return 0;
  if (a->pid != b->pid || a->start_time != b->start_time ||
      memcmp(a->boot_id, b->boot_id, sizeof(a->boot_id)) != 0)
    return 0;
  if (a->pidfs_inode != 0 && b->pidfs_inode != 0 && a->pidfs_inode != b->pidfs_inode) return 0;
  return 1;
}

TARNBASE_API int tarn_process_open(int pid) {
  if (pid <= 0) {
    errno = EINVAL;
    return -1;
  }
  return open_pidfd(pid);
}

TARNBASE_API int tarn_process_poll_exited(const int *fds, int count, unsigned char *exited) {
  if (fds == nullptr || exited == nullptr || count < 0) {
    errno = EINVAL;
    return -1;
  }
  struct pollfd entries[256];
  for (int first = 0; first < count; first += 256) {
    const int batch = count - first < 256 ? count - first : 256;
    for (int i = 0; i < batch; ++i) entries[i] = {fds[first + i], POLLIN, 0};
    int ready;
    while ((ready = poll(entries, (nfds_t)batch, 0)) < 0 && errno == EINTR) {
    }
    if (ready < 0) return -1;
    for (int i = 0; i < batch; ++i)
      exited[first + i] = (entries[i].revents & (POLLIN | POLLHUP)) != 0 ? 1 : 0;
  }
  return 0;
}

}  // extern "C"
