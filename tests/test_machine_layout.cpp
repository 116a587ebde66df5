// What this build's machine is, and the heartbeat segment's byte layout, as
// seen by the real libraries: nothing is interposed in this program. It runs
// natively and, for i686, aarch64 and mips64el, under qemu-user
// (scripts/cross-test), which collects the layout line printed here from
// every architecture and compares them.

#include <gtest/gtest.h>
#include <inttypes.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <tarnbase/tarn_platform.h>

#include "child_process.h"
#include "files.h"
#include "tarn_apphome.h"
#include "tarn_heartbeat.h"
#include "tarn_heartbeat_internal.h"

namespace {

// The machine this program was compiled for, from the compiler's own
// predefined macros.
struct Machine {
  const char *arch;
  int cpu;
  int width;
};

constexpr Machine kThisMachine =
#if defined(__x86_64__)
    {"x64", TARN_CPU_ARCH_X64, TARN_OS_PLATFORM_WIDTH_64};
#elif defined(__i386__)
    {"x86", TARN_CPU_ARCH_X86, TARN_OS_PLATFORM_WIDTH_32};
#elif defined(__aarch64__)
    {"arm64", TARN_CPU_ARCH_ARM64, TARN_OS_PLATFORM_WIDTH_64};
#elif defined(__mips64)
    {"mips64", TARN_CPU_ARCH_MIPS64, TARN_OS_PLATFORM_WIDTH_64};
#else
#error "no expected answers for this target"
#endif

TEST(MachineQueries, AnswerTheMachineThisBuildTargets) {
  ASSERT_NE(tarn_apphome_sys_arch_str(), nullptr);
  EXPECT_STREQ(tarn_apphome_sys_arch_str(), kThisMachine.arch);
  EXPECT_EQ(tarn_get_cpu_arch(), kThisMachine.cpu);
  tarn_os_platform_t platform;
  memset(&platform, 0, sizeof(platform));
  ASSERT_EQ(tarn_get_os_platform(&platform), 0);
  EXPECT_EQ(platform.width, kThisMachine.width);
  // Without a configuration file no machine is an x86 companion platform.
  EXPECT_EQ(platform.kind, TARN_OS_PLATFORM_LINUX);
  EXPECT_EQ(tarn_apphome_com_arch_str(), nullptr);
}

// The segment's layout as this build compiles it, in the one-line format
// that scripts/cross-test compares across architectures.
std::string compiled_layout() {
  const uint16_t probe = 1;
  uint8_t first_byte = 0;
  memcpy(&first_byte, &probe, 1);
  char line[512];
  snprintf(line, sizeof(line),
           "heartbeat segment layout: size %zu magic %zu proc_num %zu entries %zu slots %zu "
           "slot_size %zu pid %zu idx %zu interval %zu ptype %zu tick %zu byte_order %s "
           "side %zu journal %zu journal_size %zu identities %zu identity_size %zu start_time %zu "
           "pidfs_inode %zu boot_id %zu",
           sizeof(proc_heartbeat_segment_t), offsetof(proc_heartbeat_segment_t, magic),
           offsetof(proc_heartbeat_segment_t, proc_num), offsetof(proc_heartbeat_segment_t, entries),
           sizeof(proc_heartbeat_segment_t::entries) / sizeof(proc_heartbeat_info_t),
           sizeof(proc_heartbeat_info_t), offsetof(proc_heartbeat_info_t, pid),
           offsetof(proc_heartbeat_info_t, idx), offsetof(proc_heartbeat_info_t, interval),
           offsetof(proc_heartbeat_info_t, ptype), offsetof(proc_heartbeat_info_t, tick),
           first_byte == 1 ? "little" : "big", sizeof(proc_heartbeat_side_t),
           offsetof(proc_heartbeat_side_t, journal), sizeof(proc_heartbeat_journal_t),
           offsetof(proc_heartbeat_side_t, identity), sizeof(tarn_process_identity_t),
           offsetof(tarn_process_identity_t, start_time), offsetof(tarn_process_identity_t, pidfs_inode),
           offsetof(tarn_process_identity_t, boot_id));
  return line;
}

TEST(HeartbeatSegment, CompiledLayoutIsTheDocumentedOne) {
  const std::string layout = compiled_layout();
  printf("%s\n", layout.c_str());
  EXPECT_EQ(layout,
            "heartbeat segment layout: size 1544 magic 0 proc_num 4 entries 8 slots 64 "
            "slot_size 24 pid 0 idx 4 interval 8 ptype 12 tick 16 byte_order little "
            "side 2608 journal 8 journal_size 40 identities 48 identity_size 40 start_time 8 "
            "pidfs_inode 16 boot_id 24");
}

uint64_t little_endian(const std::string &bytes, size_t offset, size_t width) {
  uint64_t value = 0;
  for (size_t i = width; i-- > 0;) value = value << 8 | (uint8_t)bytes.at(offset + i);
  return value;
}

// The bytes that the library writes into the segment file sit where the
// documented layout puts them, whatever the compiler made of the structs.
TEST(HeartbeatSegment, WrittenBytesSitAtTheDocumentedOffsets) {
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  proc_heartbeat_info_t self;
  memset(&self, 0, sizeof(self));
  self.pid = (int32_t)getpid();
  self.ptype = 3;
  self.interval = 7;
  ASSERT_EQ(add_proc_heartbeat(&self), 0);
  ASSERT_EQ(update_proc_beat_tick(), 0);
  proc_heartbeat_info_t entries[PROC_HEARTBEAT_MAX_PROCS];
  ASSERT_EQ(get_all_proc_heartbeats(entries, PROC_HEARTBEAT_MAX_PROCS), 1);

  const std::string bytes = tarn_test::read_file("/dev/shm/" PROC_HEARTBEAT_SHM_NAME);
  ASSERT_EQ(bytes.size(), 1544u);
  EXPECT_EQ(little_endian(bytes, 0, 4), PROC_HEARTBEAT_MAGIC);
  EXPECT_EQ(little_endian(bytes, 4, 4), 1u);
  EXPECT_EQ(little_endian(bytes, 8, 4), (uint64_t)getpid());
  EXPECT_EQ(little_endian(bytes, 12, 4), 0u);
  EXPECT_EQ(little_endian(bytes, 16, 4), 7u);
  EXPECT_EQ(little_endian(bytes, 20, 4), 3u);
  EXPECT_NE(entries[0].tick, 0u);
  EXPECT_EQ(little_endian(bytes, 24, 8), entries[0].tick);
  // Every other slot is free: all zero bytes.
  EXPECT_EQ(bytes.find_first_not_of('\0', 32), std::string::npos);
  EXPECT_EQ(proc_heartbeat_deinit(true), 0);
}

#if defined(__x86_64__) || defined(__i386__)
// On x86 a process of the other word width runs on the same machine: the
// i686 peer beside the x86-64 build, the x86-64 peer beside the i686 one.
const std::string kOtherWidthPeer = sizeof(void *) == 8 ? TARN_PEER32_PATH : TARN_PEER64_PATH;

std::string entry_word(const proc_heartbeat_info_t &e) {
  char word[96];
  snprintf(word, sizeof(word), "%" PRId32 ":%" PRIu32 ":%" PRIu32 ":%" PRIu32 ":%" PRIu64, e.pid,
           e.idx, e.interval, e.ptype, e.tick);
  return word;
}

TEST(OtherWordWidth, ReadsTheTableThisProcessWritesAndWritesOneThisProcessReads) {
  if (kOtherWidthPeer.empty()) GTEST_SKIP() << "no peer of the other word width is built here";
  tarn_test::Peer peer(kOtherWidthPeer.c_str(), tarn_test::Peer::Stderr::kDiscard);
  ASSERT_TRUE(peer.ok());
  EXPECT_EQ(peer.ask("layout"), "ok 24 0 4 8 12 16 " + std::to_string(sizeof(void *) == 8 ? 32 : 64));

  // This process is the service: it creates the table and registers first.
  ASSERT_EQ(proc_heartbeat_init(0), 0);
  proc_heartbeat_info_t self;
  memset(&self, 0, sizeof(self));
  self.pid = (int32_t)getpid();
  self.ptype = PROC_HEARTBEAT_TYPE_SERVICE;
  self.interval = 11;
  ASSERT_EQ(add_proc_heartbeat(&self), 0);
  ASSERT_EQ(update_proc_beat_tick(), 0);
  proc_heartbeat_info_t entries[PROC_HEARTBEAT_MAX_PROCS];
  ASSERT_EQ(get_all_proc_heartbeats(entries, PROC_HEARTBEAT_MAX_PROCS), 1);
  const std::string mine = entry_word(entries[0]);
  EXPECT_EQ(mine, std::to_string(getpid()) + ":0:11:0:" + std::to_string(entries[0].tick));

  // The peer reads this process's entry, then writes its own.
  ASSERT_EQ(peer.ask("init 1"), "ok 0");
  EXPECT_EQ(peer.ask("all"), "ok 1 " + mine);
  ASSERT_EQ(peer.ask("add 4 9"), "ok 1");
  ASSERT_EQ(peer.ask("beat"), "ok 0");

  // This process reads the peer's entry exactly as the peer reads it.
  ASSERT_EQ(get_all_proc_heartbeats(entries, PROC_HEARTBEAT_MAX_PROCS), 2);
  EXPECT_EQ(entry_word(entries[0]), mine);
  EXPECT_EQ(entries[1].pid, (int32_t)peer.pid());
  EXPECT_EQ(entries[1].idx, 1u);
  EXPECT_EQ(entries[1].interval, 9u);
  EXPECT_EQ(entries[1].ptype, 4u);
  EXPECT_GE(entries[1].tick, entries[0].tick);
  EXPECT_EQ(peer.ask("all"), "ok 2 " + mine + " " + entry_word(entries[1]));

  // A removal by the peer is seen here.
  ASSERT_EQ(peer.ask("del"), "ok 0");
  EXPECT_EQ(get_all_proc_heartbeats(entries, PROC_HEARTBEAT_MAX_PROCS), 1);
  EXPECT_EQ(peer.ask("deinit 0"), "ok 0");
  EXPECT_EQ(peer.finish(), 0);
  EXPECT_EQ(proc_heartbeat_deinit(true), 0);
}
#endif

}  // namespace
