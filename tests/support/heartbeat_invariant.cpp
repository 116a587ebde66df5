#include "heartbeat_invariant.h"

#include <fcntl.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <map>

#include <tarnbase/tarn_glock.h>

#include "log_checks.h"

namespace tarn_test {

namespace {

constexpr char kSegmentPath[] = "/dev/shm/" PROC_HEARTBEAT_SHM_NAME;
constexpr char kLockPath[] = "/dev/shm/" PROC_HEARTBEAT_SHM_NAME ".glock";
constexpr uint32_t kLockWaitMs = 1000;

bool occupied(const proc_heartbeat_info_t &entry) {
  return entry.pid > 0 || entry.ptype == PROC_HEARTBEAT_TYPE_WATCHDOG;
}

bool all_zero(const proc_heartbeat_info_t &entry) {
  static const proc_heartbeat_info_t zero = {};
  return memcmp(&entry, &zero, sizeof(zero)) == 0;
}

// A read-only shared mapping of a whole file of at least `size` bytes.
class ReadOnlyMapping {
 public:
  ReadOnlyMapping(const char *path, size_t size) : size_(size) {
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return;
    if (lseek(fd, 0, SEEK_END) >= (off_t)size) {
      void *base = mmap(nullptr, size, PROT_READ, MAP_SHARED, fd, 0);
      if (base != MAP_FAILED) base_ = base;
    }
    close(fd);
  }
  ~ReadOnlyMapping() {
    if (base_ != nullptr) munmap(base_, size_);
  }
  ReadOnlyMapping(const ReadOnlyMapping &) = delete;
  ReadOnlyMapping &operator=(const ReadOnlyMapping &) = delete;

  const void *base() const { return base_; }

 private:
  void *base_ = nullptr;
  size_t size_;
};

// The table's lock, taken through a handle of the checker's own.
class HeldTableLock {
 public:
  HeldTableLock() {
    if (tarn_glock_init(PROC_HEARTBEAT_SHM_NAME, &lock_) != 0) lock_ = nullptr;
    held_ = lock_ != nullptr && tarn_glock_acquire_timeout(lock_, kLockWaitMs) == 0;
  }
  ~HeldTableLock() {
    if (held_) tarn_glock_release(lock_);
    if (lock_ != nullptr) tarn_glock_destroy(lock_);
  }
  HeldTableLock(const HeldTableLock &) = delete;
  HeldTableLock &operator=(const HeldTableLock &) = delete;

  bool held() const { return held_; }

 private:
  tarn_glock_t *lock_ = nullptr;
  bool held_ = false;
};

}  // namespace

std::string read_heartbeat_table(proc_heartbeat_segment_t *table, TableRead how) {
  const ReadOnlyMapping segment(kSegmentPath, sizeof(*table));
  if (segment.base() == nullptr) return std::string("cannot map ") + kSegmentPath;
  if (how == TableRead::kUnderLock) {
    const HeldTableLock lock;
    if (!lock.held()) return "the table's lock was not had within 1000 ms";
    memcpy(table, segment.base(), sizeof(*table));
  } else {
    memcpy(table, segment.base(), sizeof(*table));
  }
  return "";
}

int heartbeat_occupied(const proc_heartbeat_segment_t &table) {
  int count = 0;
  for (const proc_heartbeat_info_t &entry : table.entries) count += occupied(entry) ? 1 : 0;
  return count;
}

std::string heartbeat_violations(const proc_heartbeat_segment_t &table) {
  std::string found;
  if (table.magic != 0 && table.magic != PROC_HEARTBEAT_MAGIC) {
    found += format("magic is %u\n", table.magic);
  }
  const int count = heartbeat_occupied(table);
  if (table.proc_num != count) {
    found += format("proc_num is %d but %d slots are occupied\n", table.proc_num, count);
  }
  std::map<int32_t, int> slot_of_pid;
  int watchdogs = 0;
  for (int slot = 0; slot < PROC_HEARTBEAT_MAX_PROCS; ++slot) {
    const proc_heartbeat_info_t &e = table.entries[slot];
    const std::string entry = format("slot %d {pid:%d idx:%u interval:%u ptype:%u}", slot, e.pid,
                                     e.idx, e.interval, e.ptype);
    if (!occupied(e)) {
      if (!all_zero(e)) found += entry + " is free but not zero\n";
      continue;
    }
    if (e.ptype == PROC_HEARTBEAT_TYPE_WATCHDOG && e.pid <= 0) {
      if (e.pid != -1) found += entry + " is a watchdog entry whose pid is not -1\n";
      if (++watchdogs == 2) found += entry + " is a second watchdog entry\n";
    }
    if (e.ptype != PROC_HEARTBEAT_TYPE_SERVICE && e.idx != (uint32_t)slot) {
      found += entry + " names another slot\n";
    }
    if (e.pid > 0) {
      const auto [it, fresh] = slot_of_pid.emplace(e.pid, slot);
      if (!fresh) found += entry + format(" repeats the pid of slot %d\n", it->second);
    }
  }
  return found;
}

std::string heartbeat_violations(TableRead how) {
  proc_heartbeat_segment_t table;
  const std::string error = read_heartbeat_table(&table, how);
  return error.empty() ? heartbeat_violations(table) : error + "\n";
}

proc_heartbeat_info_t make_info(int32_t pid, uint32_t ptype) {
  proc_heartbeat_info_t info;
  memset(&info, 0, sizeof(info));
  info.pid = pid;
  info.interval = 10;
  info.ptype = ptype;
  return info;
}

pid_t heartbeat_lock_holder() {
  // The lock's layout (tarn_glock.h): the owner word at 0, whose low half
  // holds the holder's slot number + 1 below bit 31, and from offset 64 one
  // 8-byte record per slot: claim id, then the claimer's pid.
  constexpr size_t kSlots = 1024, kSlotsOffset = 64, kRecordSize = 8, kPidOffset = 4;
  const ReadOnlyMapping lock(kLockPath, kSlotsOffset + kSlots * kRecordSize);
  if (lock.base() == nullptr) return -1;
  const unsigned char *base = static_cast<const unsigned char *>(lock.base());
  const uint64_t owner = __atomic_load_n(reinterpret_cast<const uint64_t *>(base), __ATOMIC_SEQ_CST);
  if (owner == 0) return 0;
  const uint32_t slot = ((uint32_t)owner & 0x7fffffffu) - 1;
  if (slot >= kSlots) return -1;
  return (pid_t)__atomic_load_n(
      reinterpret_cast<const int32_t *>(base + kSlotsOffset + slot * kRecordSize + kPidOffset),
      __ATOMIC_SEQ_CST);
}

}  // namespace tarn_test
