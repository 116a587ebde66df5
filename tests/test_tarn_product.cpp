// Tests of the installed products and components: the install record's
// reader, whether a product is installed (by what its recorded path is),
// whether a component's manifest is present, the repair of the product
// register from its backup, and whether a product is registered; each
// failure with its message, and running out of memory.
//
// The records are real files at the real paths in an app home below the
// install root (a fresh tmpfs in the test sandbox), with the doubled
// separator that the paths have. Lock and copy calls are written down by
// file_faults.h, which also injects their failures. Every test starts and
// ends with an empty install root.

#include <gtest/gtest.h>

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <tarnbase/tarn_file.h>
#include <tarnbase/tarn_mem.h>

#include "child_logs.h"
#include "child_process.h"
#include "fakes.h"
#include "file_faults.h"
#include "install_root.h"
#include "log_checks.h"
#include "tarn_product.h"
#include "tarn_product_internal.h"
#include "time_limit.h"

namespace {

using tarn_test::dump_logs;
using tarn_test::exists;
using tarn_test::format;
using tarn_test::kHomeA;
using tarn_test::kRecordPath;
using tarn_test::make_dirs;
using tarn_test::messages;
using tarn_test::read_file;
using tarn_test::record_text;
using tarn_test::under_root;
using tarn_test::write_file;

const std::string kAppHome = under_root(kHomeA);
const std::string kInskey = kAppHome + "//config/promotions_install/inskey.eni";
const std::string kInskeyLock = kInskey + ".lock";
const std::string kRegister = kAppHome + "//config/product_register.eni";
const std::string kRegisterLock = kRegister + ".lock";
const std::string kBackup = kAppHome + "//config/product_register_backup.eni";
const std::string kComponents = kAppHome + "//config/component_info/";
const std::string kTargets = under_root("targets");

const char kWholeRegister[] = "[product]\nedr=1\ncount=1\n";
const char kBackupText[] = "[product]\nedr=1\nfirewall=1\ncount=2\n";
const char kNoAppHome[] = "get_apphome_path_main failed\n";
// The mode that a restored register is given: decimal 777.
constexpr int kRestoredMode = 01411;

std::vector<std::string> lock_events(const std::string &lock) {
  return {"init " + lock, "acquire " + lock, "release " + lock, "destroy " + lock};
}

std::string missing_path_message(const char *product) {
  return format("read %s failed: missing section[%s] field[install_path]\n", kInskey.c_str(), product);
}

std::string not_recorded_message(const char *product) {
  return format("%s get_production_install_path failed!\n", product);
}

std::string unloadable_record_message() {
  return format("load ini file failed: %s\n", kInskey.c_str());
}

// Every captured line as its level word, a space and its message.
std::vector<std::string> leveled_lines() {
  std::vector<std::string> lines;
  for (const tarn_test::LogLine &line : tarn_test::logs()) lines.push_back(line.word + " " + line.message);
  return lines;
}

// The events of copies only.
std::vector<std::string> copies() {
  std::vector<std::string> found;
  for (const std::string &event : tarn_test::file_events()) {
    if (event.rfind("copy ", 0) == 0) found.push_back(event);
  }
  return found;
}

// A socket file at path, bound by a socket that is closed again (the file
// stays).
bool make_socket_file(const std::string &path) {
  const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  if (fd < 0) return false;
  struct sockaddr_un address;
  memset(&address, 0, sizeof(address));
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) return false;
  memcpy(address.sun_path, path.c_str(), path.size());
  const bool bound = bind(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof(address)) == 0;
  close(fd);
  struct stat st;
  return bound && lstat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode);
}

using Copy = std::unique_ptr<char, decltype(&tarn_free_)>;

Copy install_path(const char *product) { return Copy(tarn_product_get_install_path(product), tarn_free_); }

class ProductTest : public ::testing::Test {
 protected:
  void SetUp() override {
    reset();
    ASSERT_TRUE(write_file(kRecordPath, record_text(kHomeA)));
    ASSERT_TRUE(make_dirs(kAppHome + "/config/promotions_install"));
    ASSERT_TRUE(make_dirs(kComponents));
    ASSERT_TRUE(make_dirs(kTargets));
  }
  void TearDown() override { reset(); }

  static void reset() {
    tarn_test::reset_fakes();
    tarn_test::clear_file_faults();
    tarn_test::clear_install_root();
  }

  // Records path as the install path of product edr.
  static void record_install_path(const std::string &path) {
    ASSERT_TRUE(write_file(kInskey, "[edr]\ninstall_path=" + path + "\n\n[other]\ninstall_path=/opt\n"));
  }

  static void remove_app_home_record() { ASSERT_EQ(0, unlink(kRecordPath)); }
};

// ---------------------------------------------------------------------------
// The install record's reader.

TEST_F(ProductTest, InstallPathIsACopyOfTheRecordedValueReadUnderTheLock) {
  record_install_path("/opt/velmora/edr");
  const unsigned before = tarn_test::allocation_calls();
  Copy path = install_path("edr");
  ASSERT_NE(nullptr, path);
  EXPECT_STREQ("/opt/velmora/edr", path.get());
  EXPECT_EQ(before + 1, tarn_test::allocation_calls());
  EXPECT_EQ(lock_events(kInskeyLock), tarn_test::file_events());
  EXPECT_FALSE(tarn_test::lock_is_held(kInskeyLock));
  EXPECT_NO_LINES();
}

TEST_F(ProductTest, InstallPathOfAProductWithoutTheKeyIsNull) {
  record_install_path("/opt/velmora/edr");
  EXPECT_EQ(nullptr, install_path("firewall"));
  EXPECT_EQ(std::vector<std::string>{missing_path_message("firewall")}, messages("warn"));
  EXPECT_EQ(lock_events(kInskeyLock), tarn_test::file_events());
}

TEST_F(ProductTest, InstallPathOfAMissingRecordIsNullAndNamesTheMissingField) {
  // The reader goes on past the failed load and finds no value in it.
  EXPECT_EQ(nullptr, install_path("edr"));
  EXPECT_EQ((std::vector<std::string>{"warn " + unloadable_record_message(),
                                      "warn " + missing_path_message("edr")}),
            leveled_lines());
  EXPECT_EQ(lock_events(kInskeyLock), tarn_test::file_events());
  EXPECT_FALSE(tarn_test::lock_is_held(kInskeyLock));
}

TEST_F(ProductTest, InstallPathOfAMalformedRecordIsNullAndNamesTheMissingField) {
  ASSERT_TRUE(write_file(kInskey, "[edr\ninstall_path=/opt/velmora/edr\n"));
  EXPECT_EQ(nullptr, install_path("edr"));
  EXPECT_EQ((std::vector<std::string>{"warn " + unloadable_record_message(),
                                      "warn " + missing_path_message("edr")}),
            leveled_lines());
  EXPECT_EQ(lock_events(kInskeyLock), tarn_test::file_events());
}

TEST_F(ProductTest, AnInstallRecordThatIsNotARegularFileIsRefusedAtOnce) {
  for (const tarn_test::NotAFile kind : tarn_test::kNotAFiles) {
    SCOPED_TRACE(tarn_test::describe(kind));
    tarn_test::clear_logs();
    tarn_test::clear_file_events();
    ASSERT_TRUE(tarn_test::make_not_a_file(kInskey, kind));
    EXPECT_EQ(0, tarn_test::within_time_limit(
                     std::string("is_product_installed with an install record that is ") + tarn_test::describe(kind),
                     [&] { return is_product_installed("edr"); }));
    EXPECT_EQ((std::vector<std::string>{"warn " + unloadable_record_message(), "warn " + missing_path_message("edr"),
                                        "warn " + not_recorded_message("edr")}),
              leveled_lines());
    EXPECT_EQ(lock_events(kInskeyLock), tarn_test::file_events());
    EXPECT_TRUE(tarn_test::is_not_a_file(kInskey, kind));
  }
}

TEST_F(ProductTest, InstallPathWithoutAnAppHomeIsNull) {
  record_install_path("/opt/velmora/edr");
  remove_app_home_record();
  EXPECT_EQ(nullptr, install_path("edr"));
  EXPECT_EQ(std::vector<std::string>{kNoAppHome}, messages("warn"));
  EXPECT_TRUE(tarn_test::file_events().empty());
}

TEST_F(ProductTest, InstallPathWhoseLockCannotBeTakenIsNull) {
  record_install_path("/opt/velmora/edr");
  const std::string message = format("flock file failed %s\n", kInskeyLock.c_str());
  tarn_test::fail_flock_init(kInskeyLock, EACCES);
  EXPECT_EQ(nullptr, install_path("edr"));
  EXPECT_EQ(std::vector<std::string>{message}, messages("warn"));
  EXPECT_EQ(std::vector<std::string>{"init " + kInskeyLock}, tarn_test::file_events());

  tarn_test::clear_file_faults();
  tarn_test::clear_logs();
  tarn_test::fail_flock_acquire(kInskeyLock, EDEADLK);
  EXPECT_EQ(nullptr, install_path("edr"));
  EXPECT_EQ(std::vector<std::string>{message}, messages("warn"));
  EXPECT_EQ(lock_events(kInskeyLock), tarn_test::file_events());
}

TEST_F(ProductTest, InstallPathWaitsForTheRecordsLock) {
  record_install_path("/opt/velmora/edr");
  tarn_test::ForeignLock holder(kInskeyLock);
  ASSERT_TRUE(holder.held());
  const tarn_test::LockedCall call = tarn_test::call_behind_lock(holder, [] { return is_product_installed("edr"); });
  ASSERT_TRUE(call.started);
  EXPECT_TRUE(call.waited) << "the reader did not wait for the lock";
  ASSERT_TRUE(call.answered);
  EXPECT_EQ(0, call.value);
  EXPECT_EQ(0, call.status);
}

TEST_F(ProductTest, InstallPathThatCannotBeCopiedEndsTheProcess) {
  record_install_path(kTargets);
  for (const bool through_query : {false, true}) {
    const tarn_test::ChildOutcome outcome = tarn_test::run_in_child([through_query] {
      tarn_test::fail_allocation_after(0);
      if (through_query) {
        is_product_installed("edr");
      } else {
        tarn_product_get_install_path("edr");
      }
    });
    EXPECT_TRUE(outcome.exited) << through_query;
    EXPECT_EQ(0, outcome.exit_status) << through_query;
    ASSERT_FALSE(outcome.lines.empty()) << through_query;
    EXPECT_EQ("fatal", outcome.lines.back().word);
    EXPECT_EQ("Out of memory\n", outcome.lines.back().message);
  }
}

// ---------------------------------------------------------------------------
// Whether a product is installed.

TEST_F(ProductTest, AProductWhosePathIsADirectoryOrARegularFileIsInstalled) {
  record_install_path(kTargets);
  EXPECT_EQ(1, is_product_installed("edr"));
  ASSERT_TRUE(write_file(kTargets + "/edr.bin", "x"));
  record_install_path(kTargets + "/edr.bin");
  EXPECT_EQ(1, is_product_installed("edr"));
  EXPECT_NO_LINES();
}

TEST_F(ProductTest, AProductWhosePathIsASymbolicLinkToADirectoryIsInstalled) {
  ASSERT_EQ(0, symlink(kTargets.c_str(), under_root("link_to_dir").c_str()));
  record_install_path(under_root("link_to_dir"));
  EXPECT_EQ(1, is_product_installed("edr"));
  ASSERT_TRUE(write_file(kTargets + "/edr.bin", "x"));
  ASSERT_EQ(0, symlink((kTargets + "/edr.bin").c_str(), under_root("link_to_file").c_str()));
  record_install_path(under_root("link_to_file"));
  EXPECT_EQ(1, is_product_installed("edr"));
  EXPECT_NO_LINES();
}

TEST_F(ProductTest, AProductWhosePathIsASocketIsNotInstalled) {
  ASSERT_TRUE(make_socket_file(kTargets + "/edr.sock"));
  record_install_path(kTargets + "/edr.sock");
  EXPECT_EQ(0, is_product_installed("edr"));
  EXPECT_NO_LINES();
}

TEST_F(ProductTest, AProductWhosePathIsADeviceOrAPipeIsNotInstalled) {
  struct stat st;
  ASSERT_EQ(0, stat("/dev/null", &st));
  ASSERT_TRUE(S_ISCHR(st.st_mode));
  record_install_path("/dev/null");
  EXPECT_EQ(0, is_product_installed("edr"));
  ASSERT_EQ(0, mkfifo((kTargets + "/edr.fifo").c_str(), 0600));
  record_install_path(kTargets + "/edr.fifo");
  EXPECT_EQ(0, is_product_installed("edr"));
  EXPECT_NO_LINES();
}

TEST_F(ProductTest, AProductWhosePathIsMissingIsNotInstalled) {
  record_install_path(kTargets + "/gone");
  EXPECT_EQ(0, is_product_installed("edr"));
  ASSERT_EQ(0, symlink((kTargets + "/gone").c_str(), under_root("dangling").c_str()));
  record_install_path(under_root("dangling"));
  EXPECT_EQ(0, is_product_installed("edr"));
  EXPECT_NO_LINES();
}

TEST_F(ProductTest, AProductWithoutARecordedPathIsNotInstalled) {
  record_install_path(kTargets);
  EXPECT_EQ(0, is_product_installed("firewall"));
  EXPECT_EQ((std::vector<std::string>{missing_path_message("firewall"), not_recorded_message("firewall")}),
            messages("warn"));
}

TEST_F(ProductTest, NoProductIsInstalledWithoutAnInstallRecord) {
  EXPECT_EQ(0, is_product_installed("edr"));
  EXPECT_EQ((std::vector<std::string>{"warn " + unloadable_record_message(),
                                      "warn " + missing_path_message("edr"),
                                      "warn " + not_recorded_message("edr")}),
            leveled_lines());
  EXPECT_EQ(lock_events(kInskeyLock), tarn_test::file_events());
}

TEST_F(ProductTest, NoProductIsInstalledWithoutAnAppHome) {
  record_install_path(kTargets);
  remove_app_home_record();
  EXPECT_EQ(0, is_product_installed("edr"));
  EXPECT_EQ((std::vector<std::string>{kNoAppHome, not_recorded_message("edr")}), messages("warn"));
}

// ---------------------------------------------------------------------------
// Whether a component is installed.

TEST_F(ProductTest, AComponentIsInstalledWhenItsManifestIsInTheManifestDirectory) {
  ASSERT_TRUE(write_file(kComponents + "foo.ejs", "sealed"));
  ASSERT_TRUE(write_file(kComponents + "bar.ejs", "sealed"));
  EXPECT_NE(0, is_component_installed("foo"));
  EXPECT_EQ(1, is_component_installed("bar"));
  EXPECT_NO_LINES();
}

TEST_F(ProductTest, OnlyTheExactManifestNameCounts) {
  for (const char *name : {"foo.ejs.bak", "FOO.ejs", "foo", "foo.EJS", "xfoo.ejs", "foo.ejsx"}) {
    ASSERT_TRUE(write_file(kComponents + name, "sealed"));
  }
  EXPECT_EQ(0, is_component_installed("foo"));
  EXPECT_EQ(0, is_component_installed("fo"));
  EXPECT_EQ(0, is_component_installed(""));
  EXPECT_EQ(1, is_component_installed("FOO"));
  EXPECT_EQ(1, is_component_installed("xfoo"));
  EXPECT_NO_LINES();
}

TEST_F(ProductTest, AManifestCountsByWhatItIsNotByItsName) {
  ASSERT_TRUE(make_dirs(kComponents + "dir.ejs"));
  ASSERT_TRUE(make_socket_file(kComponents + "sock.ejs"));
  ASSERT_TRUE(write_file(kTargets + "/real.ejs", "sealed"));
  ASSERT_EQ(0, symlink((kTargets + "/real.ejs").c_str(), (kComponents + "linked.ejs").c_str()));
  EXPECT_EQ(0, is_component_installed("dir"));
  EXPECT_EQ(0, is_component_installed("sock"));
  EXPECT_EQ(1, is_component_installed("linked"));
}

TEST_F(ProductTest, NoComponentIsInstalledWithoutItsDirectoryOrAnAppHome) {
  ASSERT_TRUE(write_file(kComponents + "foo.ejs", "sealed"));
  ASSERT_TRUE(write_file(kRecordPath, record_text(tarn_test::kHomeB)));
  EXPECT_EQ(0, is_component_installed("foo"));
  remove_app_home_record();
  EXPECT_EQ(0, is_component_installed("foo"));
  // Only the directory helper's own debug line; nothing of this function.
  EXPECT_TRUE(messages("warn").empty()) << dump_logs();
  EXPECT_TRUE(messages("error").empty()) << dump_logs();
  EXPECT_TRUE(messages("info").empty()) << dump_logs();
}

TEST_F(ProductTest, ANullComponentIsNotInstalled) {
  EXPECT_EQ(0, is_component_installed(nullptr));
  EXPECT_EQ(std::vector<std::string>{"check is_component_installed failed: empty component_name!\n"},
            messages("warn"));
}

// ---------------------------------------------------------------------------
// Repairing the register from its backup.

TEST_F(ProductTest, AWholeRegisterIsLeftAlone) {
  ASSERT_TRUE(write_file(kRegister, kWholeRegister, 0640));
  ASSERT_TRUE(write_file(kBackup, kBackupText));
  struct stat before;
  ASSERT_EQ(0, stat(kRegister.c_str(), &before));
  EXPECT_EQ(0, check_and_reset_pro_reg_by_backup(kRegister.c_str()));
  struct stat after;
  ASSERT_EQ(0, stat(kRegister.c_str(), &after));
  EXPECT_EQ(kWholeRegister, read_file(kRegister));
  EXPECT_EQ(before.st_ino, after.st_ino);
  EXPECT_EQ(0640, (int)(after.st_mode & 07777));
  EXPECT_TRUE(copies().empty());
  EXPECT_EQ(std::vector<std::string>{format("ready to check [%s]\n", kRegister.c_str())}, messages("info"));
  EXPECT_TRUE(messages("warn").empty()) << dump_logs();
}

TEST_F(ProductTest, ARegisterWithoutCountIsReplacedByTheBackupWithModeDecimal777) {
  ASSERT_TRUE(write_file(kRegister, "[product]\nedr=1\n"));
  ASSERT_TRUE(write_file(kBackup, kBackupText));
  EXPECT_EQ(0, check_and_reset_pro_reg_by_backup(kRegister.c_str()));
  EXPECT_EQ(kBackupText, read_file(kRegister));
  struct stat st;
  ASSERT_EQ(0, stat(kRegister.c_str(), &st));
  EXPECT_EQ(kRestoredMode, (int)(st.st_mode & 07777));
  EXPECT_EQ(777, (int)(st.st_mode & 07777));
  EXPECT_EQ(std::vector<std::string>{"copy " + kRegister}, copies());
  EXPECT_EQ((std::vector<std::string>{format("ready to check [%s]\n", kRegister.c_str()),
                                      "reset backup product_register successed\n"}),
            messages("info"));
  EXPECT_TRUE(messages("warn").empty()) << dump_logs();
  EXPECT_EQ(kBackupText, read_file(kBackup));
}

TEST_F(ProductTest, ARegisterWithoutTheProductEntryIsReplaced) {
  ASSERT_TRUE(write_file(kRegister, "[products]\nedr=1\ncount=1\n"));
  ASSERT_TRUE(write_file(kBackup, kBackupText));
  EXPECT_EQ(0, check_and_reset_pro_reg_by_backup(kRegister.c_str()));
  EXPECT_EQ(kBackupText, read_file(kRegister));
}

TEST_F(ProductTest, EntryNamesMustMatchWholeNotAsPrefixes) {
  ASSERT_TRUE(write_file(kBackup, kBackupText));
  for (const char *text : {"[product]\nedr=1\ncounter=1\n", "[product]\nedr=1\ncoun=1\n",
                           "[produc]\ncount=1\n", "[Product]\ncount=1\n", "[product]\nCOUNT=1\n"}) {
    ASSERT_TRUE(write_file(kRegister, text));
    tarn_test::clear_file_events();
    EXPECT_EQ(0, check_and_reset_pro_reg_by_backup(kRegister.c_str())) << text;
    EXPECT_EQ(kBackupText, read_file(kRegister)) << text;
    EXPECT_EQ(std::vector<std::string>{"copy " + kRegister}, copies()) << text;
  }
}

TEST_F(ProductTest, SectionsAndKeysAlikeCountAsEntries) {
  // "count" as a section and "product" as a key are seen all the same.
  const char text[] = "[count]\nproduct=1\n";
  ASSERT_TRUE(write_file(kRegister, text));
  ASSERT_TRUE(write_file(kBackup, kBackupText));
  EXPECT_EQ(0, check_and_reset_pro_reg_by_backup(kRegister.c_str()));
  EXPECT_EQ(text, read_file(kRegister));
  EXPECT_TRUE(copies().empty());
}

TEST_F(ProductTest, AMissingRegisterIsRestoredFromTheBackup) {
  ASSERT_TRUE(write_file(kBackup, kBackupText));
  EXPECT_EQ(0, check_and_reset_pro_reg_by_backup(kRegister.c_str()));
  EXPECT_EQ(kBackupText, read_file(kRegister));
  EXPECT_EQ(kRestoredMode, tarn_test::file_mode(kRegister));
  EXPECT_EQ(std::vector<std::string>{format("file does't exist [%s]\n", kRegister.c_str())}, messages("warn"));
  EXPECT_EQ(std::vector<std::string>{"reset backup product_register successed\n"}, messages("info"));
}

TEST_F(ProductTest, ARegisterThatDoesNotLoadIsRestoredFromTheBackup) {
  ASSERT_TRUE(write_file(kRegister, "[product]\nno equals sign here\n"));
  ASSERT_TRUE(write_file(kBackup, kBackupText));
  EXPECT_EQ(0, check_and_reset_pro_reg_by_backup(kRegister.c_str()));
  EXPECT_EQ(kBackupText, read_file(kRegister));
  EXPECT_EQ(std::vector<std::string>{format("load [%s] error!\n", kRegister.c_str())}, messages("warn"));
  EXPECT_EQ(std::vector<std::string>{"reset backup product_register successed\n"}, messages("info"));
}

TEST_F(ProductTest, ARegisterOrBackupThatIsNotARegularFileIsRefusedAtOnce) {
  for (const tarn_test::NotAFile kind : tarn_test::kNotAFiles) {
    SCOPED_TRACE(tarn_test::describe(kind));
    const std::string what = std::string("is_product_register with a register that is ") + tarn_test::describe(kind);
    // Without a backup: not registered.
    tarn_test::clear_logs();
    ASSERT_TRUE(tarn_test::make_not_a_file(kRegister, kind));
    EXPECT_EQ(0, tarn_test::within_time_limit(what, [&] { return is_product_register("edr"); }));
    EXPECT_EQ((std::vector<std::string>{
                  format("product_register backup file is no exists, path is %s\n", kBackup.c_str()),
                  format("tarn_ini_file_load failed path[%s]\n", kRegister.c_str())}),
              messages("warn"));
    EXPECT_TRUE(tarn_test::is_not_a_file(kRegister, kind));
    // With a whole backup: replaced by it, as a register that does not load.
    tarn_test::clear_logs();
    ASSERT_TRUE(write_file(kBackup, kBackupText));
    EXPECT_EQ(1, tarn_test::within_time_limit(what + " and a backup", [&] { return is_product_register("firewall"); }));
    EXPECT_EQ(std::vector<std::string>{format("load [%s] error!\n", kRegister.c_str())}, messages("warn"));
    EXPECT_EQ(std::vector<std::string>{"reset backup product_register successed\n"}, messages("info"));
    EXPECT_EQ(kBackupText, read_file(kRegister));
    // A backup that is not a regular file: the register is read as it is.
    tarn_test::clear_logs();
    ASSERT_TRUE(tarn_test::make_not_a_file(kBackup, kind));
    EXPECT_EQ(1, tarn_test::within_time_limit(
                     std::string("is_product_register with a backup that is ") + tarn_test::describe(kind),
                     [&] { return is_product_register("firewall"); }));
    EXPECT_EQ(std::vector<std::string>{format("product_register backup file is failed, path is %s\n",
                                              kBackup.c_str())},
              messages("warn"));
    EXPECT_EQ(kBackupText, read_file(kRegister));
    EXPECT_TRUE(tarn_test::is_not_a_file(kBackup, kind));
    ASSERT_EQ(0, unlink(kBackup.c_str()));
  }
}

TEST_F(ProductTest, WithoutABackupTheRegisterIsLeftAsItIs) {
  const char incomplete[] = "[product]\nedr=1\n";
  ASSERT_TRUE(write_file(kRegister, incomplete));
  EXPECT_EQ(-1, check_and_reset_pro_reg_by_backup(kRegister.c_str()));
  EXPECT_EQ(std::vector<std::string>{format("product_register backup file is no exists, path is %s\n",
                                            kBackup.c_str())},
            messages("warn"));
  EXPECT_TRUE(messages("info").empty()) << dump_logs();
  EXPECT_EQ(incomplete, read_file(kRegister));
  EXPECT_TRUE(copies().empty());
}

TEST_F(ProductTest, ABackupThatDoesNotLoadLeavesTheRegisterAsItIs) {
  const char incomplete[] = "[product]\nedr=1\n";
  ASSERT_TRUE(write_file(kRegister, incomplete));
  ASSERT_TRUE(write_file(kBackup, "[product\n"));
  EXPECT_EQ(-1, check_and_reset_pro_reg_by_backup(kRegister.c_str()));
  EXPECT_EQ(std::vector<std::string>{format("product_register backup file is failed, path is %s\n",
                                            kBackup.c_str())},
            messages("warn"));
  EXPECT_EQ(incomplete, read_file(kRegister));
  EXPECT_TRUE(copies().empty());
}

TEST_F(ProductTest, AFailedCopyReturnsItsErrorAndLeavesTheRegister) {
  const char incomplete[] = "[product]\nedr=1\n";
  ASSERT_TRUE(write_file(kRegister, incomplete, 0644));
  ASSERT_TRUE(write_file(kBackup, kBackupText));
  tarn_test::fail_copy(kRegister, EIO);
  EXPECT_EQ(EIO, check_and_reset_pro_reg_by_backup(kRegister.c_str()));
  EXPECT_EQ(std::vector<std::string>{format("tarn_file_copy is failed, backup path is %s, inskey path is %s, "
                                            "errcode is %d\n",
                                            kBackup.c_str(), kRegister.c_str(), EIO)},
            messages("warn"));
  EXPECT_EQ(std::vector<std::string>{format("ready to check [%s]\n", kRegister.c_str())}, messages("info"));
  EXPECT_EQ(incomplete, read_file(kRegister));
  EXPECT_EQ(0644, tarn_test::file_mode(kRegister));
}

// The backup loads as a regular file and is then swapped, before the copy,
// for a FIFO (which would block the copy until the time limit ends it) or a
// link to /dev/zero (which would be copied until the file size limit ends
// the child; a link at the source is refused as a link, ELOOP): the copy
// refuses it at once and the restore returns the copy's error.
TEST_F(ProductTest, ABackupSwappedForAFifoOrADeviceBeforeTheCopyIsNotCopied) {
  const char incomplete[] = "[product]\nedr=1\n";
  for (const auto &[make_other, error] : std::vector<std::pair<std::function<int()>, int>>{
           {[] { return mkfifo(kBackup.c_str(), 0644); }, EFTYPE},
           {[] { return symlink("/dev/zero", kBackup.c_str()); }, ELOOP}}) {
    ASSERT_TRUE(write_file(kRegister, incomplete, 0644));
    ASSERT_TRUE(unlink(kBackup.c_str()) == 0 || errno == ENOENT);
    ASSERT_TRUE(write_file(kBackup, kBackupText));
    tarn_test::before_copy(kRegister, [&] {
      if (unlink(kBackup.c_str()) != 0 || make_other() != 0) abort();
    });
    const tarn_test::ChildOutcome outcome = tarn_test::run_in_child_with_time_limit(10, [] {
      if (!tarn_test::limit_file_size(64 * 1024)) return 2;
      return check_and_reset_pro_reg_by_backup(kRegister.c_str());
    });
    EXPECT_TRUE(outcome.exited) << "signal " << outcome.signal;
    EXPECT_EQ(error, outcome.exit_status);
    std::vector<std::string> lines;
    for (const tarn_test::LogLine &line : outcome.lines) lines.push_back(line.word + ": " + line.message);
    EXPECT_EQ((std::vector<std::string>{
                  "info: " + format("ready to check [%s]\n", kRegister.c_str()),
                  "warn: " + format("tarn_file_copy is failed, backup path is %s, inskey path is %s, "
                                    "errcode is %d\n",
                                    kBackup.c_str(), kRegister.c_str(), error)}),
              lines);
    EXPECT_EQ(incomplete, read_file(kRegister));
    EXPECT_EQ(0644, tarn_test::file_mode(kRegister));
  }
}

TEST_F(ProductTest, TheBackupIsBesideTheRegisterWhereverItIs) {
  const std::string dir = under_root("elsewhere");
  ASSERT_TRUE(make_dirs(dir));
  ASSERT_TRUE(write_file(dir + "/product_register_backup.eni", kBackupText));
  EXPECT_EQ(0, check_and_reset_pro_reg_by_backup((dir + "/any_name.eni").c_str()));
  EXPECT_EQ(kBackupText, read_file(dir + "/any_name.eni"));
  EXPECT_EQ(std::vector<std::string>{format("file does't exist [%s]\n", (dir + "/any_name.eni").c_str())},
            messages("warn"));
}

TEST_F(ProductTest, RepairOfANullPathIsMinusOne) {
  EXPECT_EQ(-1, check_and_reset_pro_reg_by_backup(nullptr));
  EXPECT_NO_LINES();
}

// ---------------------------------------------------------------------------
// Whether a product is registered.

TEST_F(ProductTest, AProductIsRegisteredWhenItsValueIsAboveZero) {
  ASSERT_TRUE(write_file(kRegister, "[product]\nedr=1\nfirewall=0\nscanner=-2\nbig=42\nword=yes\n"
                                    "half=1.5\ncount=5\n\n[other]\nelsewhere=1\n"));
  ASSERT_TRUE(write_file(kBackup, kBackupText));
  EXPECT_EQ(1, is_product_register("edr"));
  EXPECT_EQ(1, is_product_register("big"));
  EXPECT_EQ(0, is_product_register("firewall"));
  EXPECT_EQ(0, is_product_register("scanner"));
  EXPECT_EQ(0, is_product_register("word"));
  EXPECT_EQ(0, is_product_register("half"));
  EXPECT_EQ(0, is_product_register("missing"));
  EXPECT_EQ(0, is_product_register("elsewhere"));
  EXPECT_EQ(0, is_product_register("EDR"));
  EXPECT_TRUE(messages("warn").empty()) << dump_logs();
  EXPECT_TRUE(copies().empty());
}

TEST_F(ProductTest, RegisterIsReadUnderItsLockAfterTheRepair) {
  ASSERT_TRUE(write_file(kRegister, "[product]\nedr=1\n"));
  ASSERT_TRUE(write_file(kBackup, kBackupText));
  EXPECT_EQ(1, is_product_register("firewall"));
  EXPECT_EQ((std::vector<std::string>{"init " + kRegisterLock, "acquire " + kRegisterLock, "copy " + kRegister,
                                      "release " + kRegisterLock, "destroy " + kRegisterLock}),
            tarn_test::file_events());
  EXPECT_EQ(kRestoredMode, tarn_test::file_mode(kRegister));
  EXPECT_LOGGED("info", "reset backup product_register successed\n");
  EXPECT_FALSE(tarn_test::lock_is_held(kRegisterLock));
}

TEST_F(ProductTest, RegisterWaitsForTheRegistersLock) {
  ASSERT_TRUE(write_file(kRegister, kWholeRegister));
  ASSERT_TRUE(write_file(kBackup, kBackupText));
  tarn_test::ForeignLock holder(kRegisterLock);
  ASSERT_TRUE(holder.held());
  const tarn_test::LockedCall call = tarn_test::call_behind_lock(holder, [] { return is_product_register("edr"); });
  ASSERT_TRUE(call.started);
  EXPECT_TRUE(call.waited) << "the query did not wait for the lock";
  ASSERT_TRUE(call.answered);
  EXPECT_EQ(1, call.value);
  EXPECT_EQ(0, call.status);
}

TEST_F(ProductTest, RegisterWithoutRegisterOrBackupIsZero) {
  EXPECT_EQ(0, is_product_register("edr"));
  EXPECT_EQ((std::vector<std::string>{
                format("product_register backup file is no exists, path is %s\n", kBackup.c_str()),
                format("tarn_ini_file_load failed path[%s]\n", kRegister.c_str())}),
            messages("warn"));
  EXPECT_EQ(lock_events(kRegisterLock), tarn_test::file_events());
}

TEST_F(ProductTest, RegisterOfAnIncompleteRegisterWithoutABackupReadsItAsItIs) {
  ASSERT_TRUE(write_file(kRegister, "[product]\nedr=1\n"));
  EXPECT_EQ(1, is_product_register("edr"));
  EXPECT_EQ(std::vector<std::string>{format("product_register backup file is no exists, path is %s\n",
                                            kBackup.c_str())},
            messages("warn"));
}

TEST_F(ProductTest, RegisterOfANullProductIsZero) {
  EXPECT_EQ(0, is_product_register(nullptr));
  EXPECT_EQ(std::vector<std::string>{"check is_product_register failed: invalid parameter\n"}, messages("warn"));
  EXPECT_TRUE(tarn_test::file_events().empty());
}

TEST_F(ProductTest, RegisterWithoutAnAppHomeIsZero) {
  remove_app_home_record();
  EXPECT_EQ(0, is_product_register("edr"));
  EXPECT_EQ(std::vector<std::string>{kNoAppHome}, messages("warn"));
  EXPECT_TRUE(tarn_test::file_events().empty());
}

TEST_F(ProductTest, RegisterWhoseLockCannotBeTakenIsZero) {
  ASSERT_TRUE(write_file(kRegister, "[product]\nedr=1\n"));
  ASSERT_TRUE(write_file(kBackup, kBackupText));
  const std::string message = format("flock file failed %s\n", kRegisterLock.c_str());
  tarn_test::fail_flock_init(kRegisterLock, EACCES);
  EXPECT_EQ(0, is_product_register("edr"));
  EXPECT_EQ(std::vector<std::string>{message}, messages("warn"));
  EXPECT_EQ(std::vector<std::string>{"init " + kRegisterLock}, tarn_test::file_events());

  tarn_test::clear_file_faults();
  tarn_test::clear_logs();
  tarn_test::fail_flock_acquire(kRegisterLock, EDEADLK);
  EXPECT_EQ(0, is_product_register("edr"));
  EXPECT_EQ(std::vector<std::string>{message}, messages("warn"));
  EXPECT_EQ(lock_events(kRegisterLock), tarn_test::file_events());
  // Without the lock nothing was repaired.
  EXPECT_EQ("[product]\nedr=1\n", read_file(kRegister));
}

}  // namespace
