#include "fault_calls.h"
#include "interpose.h"

#include <dlfcn.h>
#include <errno.h>
#include <execinfo.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <mutex>
#include <new>
#include <type_traits>

#define TARN_TEST_EXPORT __attribute__((visibility("default")))

// A 32-bit build with 64-bit file offsets (the libraries' own on such
// targets) has headers that give open, openat, fopen, mmap and ftruncate the
// symbols of their 64-bit-offset forms: the definitions below then take
// those symbols, the next definition must be looked up by the same one, and
// open64 and fopen64 are not defined a second time.
#if defined(__USE_FILE_OFFSET64) && __WORDSIZE == 32
#define TARN_OFFSET_SYMBOL(name) name "64"
#define TARN_SEPARATE_OFFSET64_FORMS 0
#else
#define TARN_OFFSET_SYMBOL(name) name
#define TARN_SEPARATE_OFFSET64_FORMS 1
#endif

namespace {

using tarn_test::Call;
using tarn_test::next_definition;

constexpr size_t kKinds = 10;

struct Armed {
  bool armed = false;
  unsigned index = 0;
  int error = 0;
};

struct State {
  std::array<unsigned, kKinds> counts{};
  std::array<Armed, kKinds> armed{};
  std::array<std::vector<std::string>, kKinds> targets;
  std::optional<tarn_test::FailedCall> failed;
};

// Read first by every interposer, also before main and after exit.
std::atomic<bool> g_counting{false};
// Set while this file's own code runs, so that its own calls (an allocation
// for a target's text) pass straight through.
thread_local bool t_inside = false;

std::mutex &state_mutex() {
  static std::mutex mutex;
  return mutex;
}

State &state() {
  static State *s = new State;  // never destroyed: calls may come after exit
  return *s;
}

class Inside {
 public:
  Inside() : was_(t_inside) { t_inside = true; }
  ~Inside() { t_inside = was_; }
  Inside(const Inside &) = delete;
  Inside &operator=(const Inside &) = delete;

 private:
  bool was_;
};

bool active() { return g_counting.load(std::memory_order_relaxed) && !t_inside; }

std::string text(const char *path) { return path != nullptr ? path : "<null>"; }

std::string path_of_fd(int fd) {
  char link[64];
  snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
  char target[4096];
  const ssize_t length = readlink(link, target, sizeof(target) - 1);
  if (length < 0) return "fd " + std::to_string(fd);
  return std::string(target, (size_t)length);
}

// Counts one call of kind with its target; returns the armed error when it
// is the call that must fail, else 0. Only called while active().
template <typename Target>
int count(Call kind, const Target &target) {
  Inside inside;
  std::lock_guard<std::mutex> guard(state_mutex());
  State &s = state();
  const size_t k = (size_t)kind;
  const unsigned index = s.counts[k]++;
  s.targets[k].push_back(target());
  Armed &armed = s.armed[k];
  if (!armed.armed || armed.index != index) return 0;
  armed.armed = false;
  s.failed = tarn_test::FailedCall{kind, index, armed.error, s.targets[k].back()};
  return armed.error;
}

int path_call(Call kind, const char *path) {
  if (!active()) return 0;
  return count(kind, [path] { return text(path); });
}

int fd_call(Call kind, int fd) {
  if (!active()) return 0;
  return count(kind, [fd] { return path_of_fd(fd); });
}

// ---------------------------------------------------------------------------
// Allocations: only those made for the base library's code count.

bool is_object(const char *file, const char *name) {
  const char *slash = strrchr(file, '/');
  return strstr(slash != nullptr ? slash + 1 : file, name) != nullptr;
}

// The file of this program, as dladdr names it.
const char *program_file() {
  static const char *file = [] {
    Dl_info info;
    return dladdr(reinterpret_cast<void *>(&program_file), &info) != 0 ? info.dli_fname : "";
  }();
  return file;
}

// Whether the code that asked for memory (the first caller below the
// replaced operator new that is not the C++ library's own code) is
// libtarnbase.so's or libqiv_ejs.so's.
bool asked_by_base_library() {
  Inside inside;
  void *frames[48];
  const int depth = backtrace(frames, 48);
  bool past_new = false;
  for (int i = 0; i < depth; ++i) {
    Dl_info info;
    if (dladdr(frames[i], &info) == 0 || info.dli_fname == nullptr) return false;
    // The replaced operator new is found by its exported name.
    const bool in_new = info.dli_sname != nullptr && strncmp(info.dli_sname, "_Zn", 3) == 0 &&
                        strcmp(info.dli_fname, program_file()) == 0;
    if (!past_new) {
      past_new = in_new;
      continue;
    }
    if (in_new || is_object(info.dli_fname, "libstdc++")) continue;
    return is_object(info.dli_fname, "libtarnbase") || is_object(info.dli_fname, "libqiv_ejs");
  }
  return false;
}

// Whether this allocation must fail.
bool allocation_fails() {
  if (!active() || !asked_by_base_library()) return false;
  return count(Call::kAlloc, [] { return std::string(); }) != 0;
}

template <typename Fn>
Fn next_new(const char *name) {
  Inside inside;
  return next_definition<Fn>(name);
}

}  // namespace

// ---------------------------------------------------------------------------
// The replaced global operator new. size_t mangles as "m" (unsigned long)
// on the 64-bit targets and as "j" (unsigned int) on 32-bit x86.

#define TARN_SIZE_MANGLE(prefix, suffix) (std::is_same<size_t, unsigned long>::value ? prefix "m" suffix : prefix "j" suffix)

TARN_TEST_EXPORT void *operator new(size_t size) {
  static const auto real = next_new<void *(*)(size_t)>(TARN_SIZE_MANGLE("_Znw", ""));
  if (allocation_fails()) throw std::bad_alloc();
  return real(size);
}

TARN_TEST_EXPORT void *operator new[](size_t size) {
  static const auto real = next_new<void *(*)(size_t)>(TARN_SIZE_MANGLE("_Zna", ""));
  if (allocation_fails()) throw std::bad_alloc();
  return real(size);
}

TARN_TEST_EXPORT void *operator new(size_t size, const std::nothrow_t &tag) noexcept {
  static const auto real = next_new<void *(*)(size_t, const std::nothrow_t &)>(TARN_SIZE_MANGLE("_Znw", "RKSt9nothrow_t"));
  if (allocation_fails()) return nullptr;
  return real(size, tag);
}

TARN_TEST_EXPORT void *operator new[](size_t size, const std::nothrow_t &tag) noexcept {
  static const auto real = next_new<void *(*)(size_t, const std::nothrow_t &)>(TARN_SIZE_MANGLE("_Zna", "RKSt9nothrow_t"));
  if (allocation_fails()) return nullptr;
  return real(size, tag);
}

// ---------------------------------------------------------------------------
// The libc calls.

namespace {

mode_t mode_argument(int flags, va_list args) {
  return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE ? (mode_t)va_arg(args, int) : 0;
}

int open_with(const char *name, const char *path, int flags, mode_t mode) {
  if (const int error = path_call(Call::kOpen, path)) {
    errno = error;
    return -1;
  }
  using Open = int (*)(const char *, int, ...);
  return next_definition<Open>(name)(path, flags, mode);
}

FILE *fopen_with(const char *name, const char *path, const char *mode) {
  if (const int error = path_call(Call::kOpen, path)) {
    errno = error;
    return nullptr;
  }
  return next_definition<FILE *(*)(const char *, const char *)>(name)(path, mode);
}

}  // namespace

extern "C" {

TARN_TEST_EXPORT int open(const char *path, int flags, ...) {
  va_list args;
  va_start(args, flags);
  const mode_t mode = mode_argument(flags, args);
  va_end(args);
  return open_with(TARN_OFFSET_SYMBOL("open"), path, flags, mode);
}

#if TARN_SEPARATE_OFFSET64_FORMS
TARN_TEST_EXPORT int open64(const char *path, int flags, ...) {
  va_list args;
  va_start(args, flags);
  const mode_t mode = mode_argument(flags, args);
  va_end(args);
  return open_with("open64", path, flags, mode);
}
#endif

TARN_TEST_EXPORT int openat(int dirfd, const char *path, int flags, ...) {
  va_list args;
  va_start(args, flags);
  const mode_t mode = mode_argument(flags, args);
  va_end(args);
  if (const int error = path_call(Call::kOpen, path)) {
    errno = error;
    return -1;
  }
  using Openat = int (*)(int, const char *, int, ...);
  static const auto real = next_definition<Openat>(TARN_OFFSET_SYMBOL("openat"));
  return real(dirfd, path, flags, mode);
}

TARN_TEST_EXPORT FILE *fopen(const char *path, const char *mode) {
  return fopen_with(TARN_OFFSET_SYMBOL("fopen"), path, mode);
}

#if TARN_SEPARATE_OFFSET64_FORMS
TARN_TEST_EXPORT FILE *fopen64(const char *path, const char *mode) {
  return fopen_with("fopen64", path, mode);
}
#endif

TARN_TEST_EXPORT ssize_t read(int fd, void *buffer, size_t size) {
  if (const int error = fd_call(Call::kRead, fd)) {
    errno = error;
    return -1;
  }
  static const auto real = next_definition<ssize_t (*)(int, void *, size_t)>("read");
  return real(fd, buffer, size);
}

TARN_TEST_EXPORT char *fgets(char *buffer, int size, FILE *stream) {
  if (const int error = fd_call(Call::kRead, stream != nullptr ? fileno(stream) : -1)) {
    // As a failed read of the stream leaves it: its error flag set.
    stream->_flags |= _IO_ERR_SEEN;
    errno = error;
    return nullptr;
  }
  static const auto real = next_definition<char *(*)(char *, int, FILE *)>("fgets");
  return real(buffer, size, stream);
}

TARN_TEST_EXPORT ssize_t write(int fd, const void *buffer, size_t size) {
  if (const int error = fd_call(Call::kWrite, fd)) {
    errno = error;
    return -1;
  }
  static const auto real = next_definition<ssize_t (*)(int, const void *, size_t)>("write");
  return real(fd, buffer, size);
}

TARN_TEST_EXPORT int fsync(int fd) {
  if (const int error = fd_call(Call::kFsync, fd)) {
    errno = error;
    return -1;
  }
  static const auto real = next_definition<int (*)(int)>("fsync");
  return real(fd);
}

TARN_TEST_EXPORT int rename(const char *from, const char *to) noexcept {
  if (const int error = path_call(Call::kRename, to)) {
    errno = error;
    return -1;
  }
  static const auto real = next_definition<int (*)(const char *, const char *)>("rename");
  return real(from, to);
}

TARN_TEST_EXPORT int link(const char *from, const char *to) noexcept {
  if (const int error = path_call(Call::kRename, to)) {
    errno = error;
    return -1;
  }
  static const auto real = next_definition<int (*)(const char *, const char *)>("link");
  return real(from, to);
}

TARN_TEST_EXPORT void *mmap(void *address, size_t length, int protection, int flags, int fd,
                            off_t offset) noexcept {
  if (fd >= 0) {
    if (const int error = fd_call(Call::kMmap, fd)) {
      errno = error;
      return MAP_FAILED;
    }
  }
  using Mmap = void *(*)(void *, size_t, int, int, int, off_t);
  static const auto real = next_definition<Mmap>(TARN_OFFSET_SYMBOL("mmap"));
  return real(address, length, protection, flags, fd, offset);
}

TARN_TEST_EXPORT int shm_open(const char *name, int flags, mode_t mode) {
  if (const int error = path_call(Call::kShmOpen, name)) {
    errno = error;
    return -1;
  }
  static const auto real = next_definition<int (*)(const char *, int, mode_t)>("shm_open");
  return real(name, flags, mode);
}

TARN_TEST_EXPORT int ftruncate(int fd, off_t length) noexcept {
  if (const int error = fd_call(Call::kFtruncate, fd)) {
    errno = error;
    return -1;
  }
  static const auto real = next_definition<int (*)(int, off_t)>(TARN_OFFSET_SYMBOL("ftruncate"));
  return real(fd, length);
}

TARN_TEST_EXPORT int flock(int fd, int operation) noexcept {
  if (const int error = fd_call(Call::kLock, fd)) {
    errno = error;
    return -1;
  }
  static const auto real = next_definition<int (*)(int, int)>("flock");
  return real(fd, operation);
}

}  // extern "C"

namespace tarn_test {

const std::vector<Call> &all_calls() {
  static const std::vector<Call> calls = {Call::kOpen,  Call::kRead,    Call::kWrite,     Call::kFsync,
                                          Call::kRename, Call::kMmap,   Call::kShmOpen,  Call::kFtruncate,
                                          Call::kLock,  Call::kAlloc};
  return calls;
}

const char *call_name(Call call) {
  switch (call) {
    case Call::kOpen: return "open";
    case Call::kRead: return "read";
    case Call::kWrite: return "write";
    case Call::kFsync: return "fsync";
    case Call::kRename: return "rename";
    case Call::kMmap: return "mmap";
    case Call::kShmOpen: return "shm_open";
    case Call::kFtruncate: return "ftruncate";
    case Call::kLock: return "lock";
    case Call::kAlloc: return "alloc";
  }
  return "?";
}

void start_counting() {
  {
    Inside inside;
    std::lock_guard<std::mutex> guard(state_mutex());
    State &s = state();
    s.counts.fill(0);
    s.armed.fill(Armed());
    for (auto &targets : s.targets) targets.clear();
    s.failed.reset();
  }
  g_counting.store(true);
}

void fail_call(Call call, unsigned index, int error) {
  Inside inside;
  std::lock_guard<std::mutex> guard(state_mutex());
  state().armed[(size_t)call] = Armed{true, index, error};
}

void stop_counting() {
  g_counting.store(false);
  Inside inside;
  std::lock_guard<std::mutex> guard(state_mutex());
  state().armed.fill(Armed());
}

unsigned counted(Call call) {
  Inside inside;
  std::lock_guard<std::mutex> guard(state_mutex());
  return state().counts[(size_t)call];
}

std::vector<std::string> counted_targets(Call call) {
  Inside inside;
  std::lock_guard<std::mutex> guard(state_mutex());
  return state().targets[(size_t)call];
}

std::optional<FailedCall> failed_call() {
  Inside inside;
  std::lock_guard<std::mutex> guard(state_mutex());
  return state().failed;
}

}  // namespace tarn_test
