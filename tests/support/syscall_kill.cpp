#include "syscall_kill.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include "child_process.h"

namespace tarn_test {

namespace {

int wait_for(pid_t pid, int *status) {
  for (;;) {
    const pid_t got = waitpid(pid, status, __WALL);
    if (got >= 0 || errno != EINTR) return got;
  }
}

int kill_traced(pid_t pid) {
  kill(pid, SIGKILL);
  int status = 0;
  while (wait_for(pid, &status) == pid && WIFSTOPPED(status)) {
  }
  return decode_status(status);
}

std::string read_memory(pid_t pid, unsigned long address, size_t size) {
  std::string out(size, '\0');
  struct iovec local = {&out[0], size};
  struct iovec remote = {(void *)address, size};
  const ssize_t got = size == 0 ? 0 : process_vm_readv(pid, &local, 1, &remote, 1, 0);
  out.resize(got > 0 ? (size_t)got : 0);
  return out;
}

std::string read_string(pid_t pid, unsigned long address) {
  std::string out;
  while (out.size() < 4096) {
    // Never across a page end: the next page may not be mapped.
    const size_t room = 4096 - (address % 4096);
    const std::string piece = read_memory(pid, address, room < 256 ? room : 256);
    if (piece.empty()) break;
    const size_t end = piece.find('\0');
    if (end != std::string::npos) return out + piece.substr(0, end);
    out += piece;
    address += piece.size();
  }
  return out;
}

// The file operation a system call is about to make, from its registers at
// entry; kind -1 for the calls that touch no file's content or name.
struct Pending {
  int kind = -1;
  FileEvent event{};
  bool directory = false;
};

#if defined(__x86_64__)
// Where a file operation's arguments are, by system call: the argument
// numbers (0 to 5) of its descriptor, path, new path and open flags; -1
// for none. A write's buffer and length follow its descriptor.
struct CallShape {
  long call;
  FileEvent::Kind kind;
  int fd, path, target, flags;
};
const CallShape kShapes[] = {
    {SYS_open, FileEvent::kOpen, -1, 0, -1, 1},     {SYS_openat, FileEvent::kOpen, -1, 1, -1, 2},
    {SYS_write, FileEvent::kWrite, 0, -1, -1, -1},  {SYS_fsync, FileEvent::kFsync, 0, -1, -1, -1},
    {SYS_fdatasync, FileEvent::kFsync, 0, -1, -1, -1}, {SYS_rename, FileEvent::kRename, -1, 0, 1, -1},
    {SYS_renameat, FileEvent::kRename, -1, 1, 3, -1}, {SYS_renameat2, FileEvent::kRename, -1, 1, 3, -1},
    {SYS_unlink, FileEvent::kUnlink, -1, 0, -1, -1}, {SYS_unlinkat, FileEvent::kUnlink, -1, 1, -1, -1},
    {SYS_close, FileEvent::kClose, 0, -1, -1, -1},  {SYS_ftruncate, FileEvent::kTruncate, 0, -1, -1, -1},
};

Pending at_entry(pid_t pid, const user_regs_struct &regs, long number) {
  Pending pending;
  const unsigned long long args[6] = {regs.rdi, regs.rsi, regs.rdx, regs.r10, regs.r8, regs.r9};
  for (const CallShape &shape : kShapes) {
    if (shape.call != (long)regs.orig_rax) continue;
    FileEvent &event = pending.event;
    event.kind = shape.kind;
    event.syscall = number;
    if (shape.fd >= 0) event.fd = (int)args[shape.fd];
    if (shape.path >= 0) event.path = read_string(pid, args[shape.path]);
    if (shape.target >= 0) event.target = read_string(pid, args[shape.target]);
    if (shape.flags >= 0) {
      event.truncate = (args[shape.flags] & O_TRUNC) != 0;
      pending.directory = (args[shape.flags] & O_DIRECTORY) != 0;
    }
    if (shape.kind == FileEvent::kTruncate) event.truncate = true;
    if (shape.kind == FileEvent::kWrite) event.data = read_memory(pid, args[1], (size_t)args[2]);
    pending.kind = event.kind;
    break;
  }
  return pending;
}
#endif

}  // namespace

std::string syscall_kill_unavailable() {
#if !defined(__x86_64__)
  return "system calls are traced on x86-64 only";
#else
  const SyscallRun run = run_syscall_killed([] { return getppid() > 0 ? 0 : 1; }, 0);
  if (!run.error.empty()) return run.error;
  if (run.status != 0 || run.syscalls < 1) return "a traced child did not run as asked";
  return "";
#endif
}

SyscallRun run_syscall_killed(const std::function<int()> &op, long kill_at, bool record) {
  SyscallRun run;
#if !defined(__x86_64__)
  (void)op, (void)kill_at, (void)record;
  run.error = "system calls are traced on x86-64 only";
  return run;
#else
  const pid_t pid = fork_flushed();
  if (pid < 0) {
    run.error = std::string("fork: ") + strerror(errno);
    return run;
  }
  if (pid == 0) {
    if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) end_child(errno & 0xff);
    raise(SIGSTOP);
    end_child(op() & 0xff);
  }
  int status = 0;
  if (wait_for(pid, &status) != pid || !WIFSTOPPED(status) || WSTOPSIG(status) != SIGSTOP) {
    run.status = WIFSTOPPED(status) ? kill_traced(pid) : decode_status(status);
    run.error = "the child did not stop before its operation";
    return run;
  }
  ptrace(PTRACE_SETOPTIONS, pid, nullptr, (void *)(long)(PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL));
  bool inside = false;
  int deliver = 0;
  Pending pending;
  for (;;) {
    if (ptrace(PTRACE_SYSCALL, pid, nullptr, (void *)(long)deliver) != 0) {
      run.error = std::string("PTRACE_SYSCALL: ") + strerror(errno);
      run.status = kill_traced(pid);
      return run;
    }
    deliver = 0;
    if (wait_for(pid, &status) != pid) {
      run.error = std::string("waitpid: ") + strerror(errno);
      return run;
    }
    if (WIFEXITED(status) || WIFSIGNALED(status)) {
      run.status = decode_status(status);
      return run;
    }
    if (WSTOPSIG(status) != (SIGTRAP | 0x80)) {
      deliver = WSTOPSIG(status) == SIGTRAP ? 0 : WSTOPSIG(status);
      continue;
    }
    user_regs_struct regs;
    ptrace(PTRACE_GETREGS, pid, nullptr, &regs);
    if (!inside) {
      run.syscalls += 1;
      if (kill_at > 0 && run.syscalls == kill_at) {
        run.killed = true;
        run.status = kill_traced(pid);
        return run;
      }
      if (record) pending = at_entry(pid, regs, run.syscalls);
      inside = true;
      continue;
    }
    inside = false;
    const long result = (long)regs.rax;
    if (!record || pending.kind < 0 || result < 0) continue;
    FileEvent event = pending.event;
    if (event.kind == FileEvent::kOpen) {
      event.fd = (int)result;
      // A directory opened for its fsync: the name marks it.
      if (pending.directory) event.path += "/";
    }
    if (event.kind == FileEvent::kWrite) event.data.resize((size_t)result);
    run.events.push_back(event);
  }
#endif
}

namespace {

struct Inode {
  std::string synced;
  std::string now;
};

std::string parent_of(const std::string &path) {
  const size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? "" : path.substr(0, slash);
}

// The state of the model file system while the events are applied.
class ModelDisk {
 public:
  explicit ModelDisk(const DiskImage &initial) {
    for (const auto &file : initial) {
      inodes_.push_back({file.second, file.second});
      now_[file.first] = synced_[file.first] = (int)inodes_.size() - 1;
    }
  }

  void apply(const FileEvent &event) {
    switch (event.kind) {
      case FileEvent::kOpen: {
        if (!event.path.empty() && event.path.back() == '/') {
          open_[event.fd] = {-1, 0, event.path.substr(0, event.path.size() - 1)};
          break;
        }
        auto found = now_.find(event.path);
        int id;
        if (found == now_.end()) {
          inodes_.push_back({});
          id = (int)inodes_.size() - 1;
          now_[event.path] = id;
        } else {
          id = found->second;
          if (event.truncate) inodes_[id].now.clear();
        }
        open_[event.fd] = {id, 0, event.path};
        break;
      }
      case FileEvent::kWrite: {
        auto found = open_.find(event.fd);
        if (found == open_.end() || found->second.inode < 0) break;
        std::string &content = inodes_[found->second.inode].now;
        const size_t at = found->second.offset;
        if (content.size() < at + event.data.size()) content.resize(at + event.data.size(), '\0');
        content.replace(at, event.data.size(), event.data);
        found->second.offset += event.data.size();
        break;
      }
      case FileEvent::kTruncate: {
        auto found = open_.find(event.fd);
        if (found != open_.end() && found->second.inode >= 0) inodes_[found->second.inode].now.clear();
        break;
      }
      case FileEvent::kFsync: {
        auto found = open_.find(event.fd);
        if (found == open_.end()) break;
        if (found->second.inode >= 0) {
          inodes_[found->second.inode].synced = inodes_[found->second.inode].now;
          break;
        }
        // A directory: its names as they are now reach the disk.
        const std::string &dir = found->second.path;
        for (auto it = synced_.begin(); it != synced_.end();) {
          it = parent_of(it->first) == dir && now_.count(it->first) == 0 ? synced_.erase(it) : std::next(it);
        }
        for (const auto &name : now_) {
          if (parent_of(name.first) == dir) synced_[name.first] = name.second;
        }
        break;
      }
      case FileEvent::kRename: {
        auto found = now_.find(event.path);
        if (found == now_.end()) break;
        const int id = found->second;
        now_.erase(found);
        now_[event.target] = id;
        break;
      }
      case FileEvent::kUnlink:
        now_.erase(event.path);
        break;
      case FileEvent::kClose:
        open_.erase(event.fd);
        break;
    }
  }

  // What is at path now, as the running processes see it.
  std::string content(const std::string &path) const {
    auto found = now_.find(path);
    return found == now_.end() ? "" : inodes_[found->second].now;
  }

  // Each way the file name could come back after a cut now.
  std::vector<std::pair<bool, std::string>> variants(const std::string &name) const {
    std::set<int> ids;
    for (const auto *names : {&now_, &synced_}) {
      auto found = names->find(name);
      ids.insert(found == names->end() ? -1 : found->second);
    }
    std::set<std::pair<bool, std::string>> out;
    for (int id : ids) {
      if (id < 0) {
        out.insert({false, ""});
        continue;
      }
      const Inode &inode = inodes_[id];
      out.insert({true, inode.synced});
      if (inode.now == inode.synced) continue;
      out.insert({true, inode.now});
      for (size_t cut = 0; cut < inode.now.size(); cut += 512) out.insert({true, inode.now.substr(0, cut)});
      out.insert({true, std::string(inode.now.size(), '\0')});
    }
    return {out.begin(), out.end()};
  }

 private:
  struct Open {
    int inode;  // -1: a directory
    size_t offset;
    std::string path;
  };
  std::vector<Inode> inodes_;
  std::map<std::string, int> now_, synced_;
  std::map<int, Open> open_;
};

}  // namespace

std::vector<DiskImage> power_cut_images(const std::vector<FileEvent> &events, const DiskImage &initial,
                                        const std::set<std::string> &names,
                                        std::map<std::string, std::set<std::string>> *placed) {
  std::vector<DiskImage> images;
  ModelDisk disk(initial);
  for (size_t i = 0; i <= events.size(); ++i) {
    std::vector<DiskImage> here(1);
    for (const std::string &name : names) {
      std::vector<DiskImage> next;
      for (const auto &variant : disk.variants(name)) {
        for (DiskImage image : here) {
          if (variant.first) image[name] = variant.second;
          next.push_back(image);
        }
      }
      here.swap(next);
    }
    images.insert(images.end(), here.begin(), here.end());
    if (i == events.size()) break;
    const FileEvent &event = events[i];
    if (event.kind == FileEvent::kRename && names.count(event.target) != 0) {
      (*placed)[event.target].insert(disk.content(event.path));
    }
    disk.apply(event);
  }
  return images;
}

}  // namespace tarn_test
