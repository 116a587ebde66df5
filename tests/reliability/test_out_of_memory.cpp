// Every place in the library where running out of memory ends the process:
// one table names each function and, in the order the function reaches
// them, every allocation it makes that has no error return. Each one is
// failed in turn in a forked child, which must log fatal "Out of memory" as
// its last line and exit with status 0. The line's [file:line] must be the
// function's own source file, at a line that handles running out of memory;
// within one function, two different allocations must name two different
// lines (and one allocation reached again in a loop the same line).
//
// A call without a failure first counts the function's allocations, so that
// an allocation added to a function without a row here fails the test.

#include <gtest/gtest.h>

#include <stdlib.h>

#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <ostream>
#include <regex>
#include <string>
#include <vector>

#include <tarnbase/tarn_mem.h>
#include <tarnbase/tarn_uuid.h>

#include "child_logs.h"
#include "child_process.h"
#include "com_info.h"
#include "container_faults.h"
#include "fakes.h"
#include "install_root.h"
#include "interpose.h"
#include "manifests.h"
#include "optimize_time.h"
#include "parameter_parsing.h"
#include "reset_test.h"
#include "tarn_apphome.h"
#include "tarn_product.h"
#include "tarn_product_internal.h"
#include "tarn_utils.h"

namespace {

bool g_uuid_fails = false;  // when set, every identifier creation fails

}  // namespace

extern "C" int tarn_uuid_create(tarn_uuid_t *uuid) {
  if (g_uuid_fails) return -1;
  return tarn_test::next_definition<int (*)(tarn_uuid_t *)>("tarn_uuid_create")(uuid);
}

namespace {

using tarn_test::ContainerOp;
using tarn_test::kHomeA;
using tarn_test::under_root;
using tarn_test::write_file;

// How an allocation is made to fail: the library's own allocations
// through fakes.h (nullopt), those inside the base library's containers
// through container_faults.h.
using Via = std::optional<ContainerOp>;

const Via kVias[] = {std::nullopt, ContainerOp::kXhashCreate, ContainerOp::kXhashInsert,
                     ContainerOp::kVectorCreate, ContainerOp::kVectorPushBack};

const char *via_name(Via via) {
  if (!via) return "library allocations";
  switch (*via) {
    case ContainerOp::kXhashCreate: return "tarn_xhash_create";
    case ContainerOp::kXhashInsert: return "tarn_xhash_insert";
    case ContainerOp::kVectorCreate: return "tarn_vector_create";
    case ContainerOp::kVectorPushBack: return "tarn_vector_push_back";
  }
  return "?";
}

unsigned calls_via(Via via) {
  return via ? tarn_test::container_calls(*via) : tarn_test::allocation_calls();
}

// Lets `succeeding` calls of the kind through and fails the next one.
void fail_via(Via via, unsigned succeeding) {
  if (via) {
    tarn_test::fail_container_after(*via, succeeding);
  } else {
    tarn_test::fail_allocation_after(succeeding);
  }
}

// One allocation of a function: what it allocates (the same words for the
// same allocation reached again) and how it is failed.
struct Site {
  Site(const char *what_, Via via_ = std::nullopt) : what(what_), via(via_) {}
  std::string what;
  Via via;
};

// One way of calling a function, and the allocations it makes in order.
struct Call {
  std::function<void()> arrange;  // in the test process, before every child
  std::function<void()> prepare;  // in the child, before its allocations count
  std::function<void()> call;
  std::vector<Site> sites;
};

struct Function {
  std::string name;
  std::string source;  // the file that its lines name
  std::vector<Call> calls;
};

void PrintTo(const Function &function, std::ostream *out) { *out << function.name; }

constexpr char kVersion[] = "3.1.4.159";
constexpr char kDigest[] = "9f86d081884c7d659a2feaa0c55ad015a3bf4f1b2b0b822cd15d6c15b0f00a08";

// The test's scratch directory, owned by the fixture: the children end
// through exit(), which runs the destructors of static objects, so none of
// them may own it.
std::string g_scratch;

std::string manifest_path() { return g_scratch + "/full.ejs"; }
std::string package_dir() { return g_scratch + "/package"; }

// Every array of a manifest: two architectures, one platform (and an entry
// that is not a string, which leaves an empty slot: the array is noted for
// freeing), one dependency and two files.
void seal_full_manifest() {
  const std::string json = std::string(R"({"package":"tarn_x","version":"2.1.0",)") +
                           R"("arch":["x86_64","aarch64"],"platform":["linux",7],)" +
                           R"("depends":["tarn_base"],)" +
                           R"("files":[{"name":"bin/x","sha256":")" + kDigest +
                           R"("},{"name":"lib/x.so","sha256":")" + kDigest + R"("}]})";
  ASSERT_TRUE(tarn_test::seal_manifest(manifest_path(), json));
}

// Two local packages' manifests.
void seal_local_manifests() {
  const std::string dir = package_dir() + "/config/component_info";
  ASSERT_TRUE(tarn_test::make_dirs(dir));
  for (const char *name : {"tarn_a", "tarn_b"}) {
    const std::string json = std::string(R"({"package":")") + name + R"(","version":"1.0.0"})";
    ASSERT_TRUE(tarn_test::seal_manifest(dir + "/" + name + ".ejs", json));
  }
}

// A service that reports kVersion and one operational app home of that
// version, for the reduction to find.
void arrange_reduction() {
  tarn_test::clear_install_root();
  const std::string service = std::string("#!/bin/sh\necho ") + kVersion + "\n";
  ASSERT_TRUE(write_file(tarn_test::kServicePath, service, 0755));
  tarn_test::make_apphome(kHomeA, true, true);
  const std::string dir = under_root(kHomeA) + "/config/component_info";
  ASSERT_TRUE(tarn_test::make_dirs(dir));
  for (const char *component : {"tarn_base", "tarn_sys", "tarn_service"}) {
    const std::string json = std::string(R"({"package":")") + component + R"(","version":")" +
                             kVersion + R"(","files":[]})";
    ASSERT_TRUE(tarn_test::seal_manifest(dir + "/" + component + ".ejs", json));
  }
}

// An app home whose install record gives product edr a path.
void arrange_install_record() {
  tarn_test::clear_install_root();
  ASSERT_TRUE(write_file(tarn_test::kRecordPath, tarn_test::record_text(kHomeA)));
  const std::string dir = under_root(kHomeA) + "/config/promotions_install";
  ASSERT_TRUE(tarn_test::make_dirs(dir));
  ASSERT_TRUE(write_file(dir + "/inskey.eni", "[edr]\ninstall_path=/opt/velmora/edr\n"));
}

argment_paras *g_handle = nullptr;  // execute_command's parsed command line, in the child

const std::vector<Function> &functions() {
  static const std::vector<Function> table = {
      {"tarnaux_optimize_time_init",
       "optimize_time.cpp",
       {{nullptr,
         nullptr,
         [] { tarnaux_optimize_time_init(); },
         {{"the running probes' table", ContainerOp::kXhashCreate},
          {"the stack", ContainerOp::kVectorCreate},
          {"the list", ContainerOp::kVectorCreate}}}}},
      {"tarnaux_optimize_time_start",
       "optimize_time.cpp",
       {{nullptr,
         [] { tarnaux_optimize_time_init(); },
         [] { tarnaux_optimize_time_start("probe"); },
         {{"the probe"},
          {"its name"},
          {"its place on the stack", ContainerOp::kVectorPushBack},
          {"its place in the list", ContainerOp::kVectorPushBack},
          {"its entry in the running probes' table", ContainerOp::kXhashInsert}}}}},
      {"load_com_info",
       "com_info.cpp",
       {{seal_full_manifest,
         nullptr,
         [] {
           com_info_var info;
           load_com_info(manifest_path().c_str(), &info);
           free_com_info_var(&info);
         },
         {{"package"},
          {"arch array"},
          {"arch string"},
          {"arch string"},
          {"platform array"},
          {"platform string"},
          {"depends array"},
          {"dependency name"},
          {"files array"},
          {"file name"},
          {"file digest"},
          {"file name"},
          {"file digest"},
          {"note of the arrays with an empty slot"}}}}},
      {"load_local_pack",
       "com_info.cpp",
       {{seal_local_manifests,
         nullptr,
         [] {
           com_list_var list = {0, nullptr, 0};
           load_local_pack(package_dir().c_str(), &list);
           free_com_list_var(&list);
         },
         {{"manifest path"},
          {"manifest path"},
          {"list array"},
          {"package name"},
          {"package name"}}}}},
      {"generate_new_name",
       "com_info.cpp",
       {{nullptr, nullptr, [] { tarn_free_(generate_new_name(nullptr)); }, {{"new identifier"}}},
        {nullptr,
         [] { g_uuid_fails = true; },
         [] { tarn_free_(generate_new_name(nullptr)); },
         {{"fixed identifier"}}}}},
      {"tarn_apphome_reduction_file",
       "tarn_apphome.cpp",
       {{arrange_reduction, nullptr, [] { tarn_apphome_reduction_file(); }, {{"found name"}}}}},
      {"tarn_product_get_install_path",
       "tarn_product.cpp",
       {{arrange_install_record,
         nullptr,
         [] { tarn_free_(tarn_product_get_install_path("edr")); },
         {{"install path"}}}}},
      {"is_product_installed",
       "tarn_product.cpp",
       {{arrange_install_record,
         nullptr,
         [] { is_product_installed("edr"); },
         {{"install path"}}}}},
      {"get_tarn_root_dir",
       "utils.cpp",
       {{nullptr, nullptr, [] { free(get_tarn_root_dir()); }, {{"root"}}}}},
      {"execute_command",
       "utils.cpp",
       {{nullptr,
         [] {
           char program[] = "prog";
           char option[] = "-a";
           char argument[] = "x";
           char *argv[] = {program, option, argument};
           g_handle = argment_paras_create(3, argv);
         },
         [] { execute_command("/bin/true", g_handle); },
         {{"command line"}}}}},
  };
  return table;
}

// The calls of each kind that the way's call makes, counted in a child.
std::map<std::string, unsigned> counted_calls(const Call &way, int *status) {
  tarn_test::Pipe counts;
  const tarn_test::ChildOutcome outcome = tarn_test::run_in_child([&way, &counts] {
    if (way.prepare) way.prepare();
    std::map<Via, unsigned> before;
    for (Via via : kVias) before[via] = calls_via(via);
    way.call();
    for (Via via : kVias) counts.write_int((int)(calls_via(via) - before[via]));
  });
  *status = outcome.exit_status;
  counts.close_write();
  std::map<std::string, unsigned> calls;
  for (Via via : kVias) {
    int value = -1;
    calls[via_name(via)] = counts.read_int(&value) ? (unsigned)value : ~0u;
  }
  return calls;
}

std::map<std::string, unsigned> expected_calls(const Call &way) {
  std::map<std::string, unsigned> calls;
  for (Via via : kVias) calls[via_name(via)] = 0;
  for (const Site &site : way.sites) ++calls[via_name(site.via)];
  return calls;
}

// The [file:line] that a whole fatal "Out of memory" line names; empty when
// the line is not one.
struct Place {
  std::string file;
  int line = 0;
};

Place place_of(const std::string &line) {
  static const std::regex fatal(
      R"(^\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}\] \[fatal\] \[pid:\d+\] \[tid:\d+\] \[kep\] )"
      R"(\[([^:\]]+):(\d+)\] Out of memory\n$)");
  std::smatch match;
  if (!std::regex_match(line, match, fatal)) return {};
  return {match[1].str(), std::stoi(match[2].str())};
}

// Line `number` of the library's source file `file`.
std::string source_line(const std::string &file, int number) {
  std::ifstream in(std::string(TARN_SOURCE_DIR) + "/libtarnaux/" + file);
  std::string text;
  for (int i = 0; i < number && std::getline(in, text); ++i) {
  }
  return in ? text : "<no line " + std::to_string(number) + " in " + file + ">";
}

class OutOfMemoryTest
    : public tarn_test::ResetTest<tarn_test::clear_container_faults, tarn_test::clear_install_root>,
      public ::testing::WithParamInterface<Function> {
 protected:
  void SetUp() override {
    ResetTest::SetUp();
    ASSERT_FALSE(scratch_.path().empty());
    g_scratch = scratch_.path();
  }

 private:
  tarn_test::ScratchDirectory scratch_{"oom_sites"};
};

TEST_P(OutOfMemoryTest, EachAllocationEndsTheProcessNamingItsOwnLine) {
  const Function &function = GetParam();
  std::map<std::string, int> line_of;  // what is allocated -> the line named
  for (size_t r = 0; r < function.calls.size(); ++r) {
    const Call &way = function.calls[r];
    SCOPED_TRACE("way " + std::to_string(r));
    if (way.arrange) way.arrange();
    int status = -1;
    EXPECT_EQ(counted_calls(way, &status), expected_calls(way)) << "the table misses allocations";
    EXPECT_EQ(status, 3) << "the call did not return without a failure";

    std::map<Via, unsigned> reached;  // the calls of each kind before the site
    for (const Site &site : way.sites) {
      SCOPED_TRACE(site.what);
      const unsigned index = reached[site.via]++;
      if (way.arrange) way.arrange();
      const tarn_test::ChildOutcome outcome = tarn_test::run_in_child([&way, &site, index] {
        if (way.prepare) way.prepare();
        fail_via(site.via, index);
        way.call();
      });
      ASSERT_TRUE(outcome.exited) << "signal " << outcome.signal;
      EXPECT_EQ(outcome.exit_status, 0);
      ASSERT_FALSE(outcome.lines.empty());
      const tarn_test::LogLine &last = outcome.lines.back();
      EXPECT_EQ(last.word, "fatal");
      EXPECT_EQ(last.number, 0u);
      EXPECT_EQ(last.message, "Out of memory\n");
      const Place place = place_of(last.line);
      ASSERT_EQ(place.file, function.source) << last.line;
      EXPECT_NE(source_line(place.file, place.line).find("OUT_OF_MEMORY"), std::string::npos)
          << place.file << ":" << place.line << " is not where memory runs out: "
          << source_line(place.file, place.line);
      const auto known = line_of.emplace(site.what, place.line);
      EXPECT_EQ(known.first->second, place.line) << "one allocation named two lines";
    }
  }
  // Different allocations name different lines.
  std::map<int, std::string> what_at;
  for (const auto &[what, line] : line_of) {
    const auto taken = what_at.emplace(line, what);
    EXPECT_TRUE(taken.second) << what << " and " << taken.first->second << " both name line "
                              << line;
  }
}

INSTANTIATE_TEST_SUITE_P(EveryFunction, OutOfMemoryTest, ::testing::ValuesIn(functions()),
                         [](const ::testing::TestParamInfo<Function> &info) {
                           return info.param.name;
                         });

}  // namespace
