// Tests of the timing probes: nesting and its indentation, the report's
// order, restarts, ends of names that are not running, out-of-order ends,
// long names, the info filter, calls outside init and finit, and every
// place where memory can run out.
//
// The probes' containers are process-wide and are not made again after
// finit, so every scenario runs in a forked child between init and finit;
// its log lines come back to the test. The clock is the controlled tick of
// fakes.h, so durations are exact.

#include <gtest/gtest.h>

#include <stdint.h>
#include <stdlib.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "child_logs.h"
#include "container_faults.h"
#include "fakes.h"
#include "log_checks.h"
#include "optimize_time.h"
#include "reset_test.h"

namespace {

using tarn_test::ChildOutcome;
using tarn_test::ContainerOp;
using tarn_test::format;
using Strings = std::vector<std::string>;

// The report line of one probe: indent, name and duration as logged.
std::string line_of(const std::string &indented_name, long elapsed_ms) {
  return format("------------------ %s [%ldms] ------------------\n", indented_name.c_str(),
                elapsed_ms);
}

std::string text_of(const ChildOutcome &outcome) {
  std::string text;
  for (const tarn_test::LogLine &line : outcome.lines) text += "  " + line.line;
  return text.empty() ? "  (no lines)" : text;
}

class OptimizeTimeTest : public tarn_test::ResetTest<tarn_test::clear_container_faults> {
 protected:
  // Runs scenario in a child between init and finit (so that the
  // sanitizer build also checks that finit frees every probe).
  static ChildOutcome run_probes(const std::function<void()> &scenario) {
    return tarn_test::run_in_child([&] {
      tarnaux_optimize_time_init();
      scenario();
      tarnaux_optimize_time_finit();
    });
  }

  // Expects the child to have returned normally after logging exactly these
  // info lines, in order.
  static void expect_report(const ChildOutcome &outcome, const Strings &expected) {
    EXPECT_TRUE(outcome.exited);
    EXPECT_EQ(outcome.exit_status, 3) << "the scenario did not return normally";
    Strings infos;
    for (const tarn_test::LogLine &line : outcome.lines) {
      EXPECT_EQ(line.word, "info") << line.line;
      infos.push_back(line.message);
    }
    EXPECT_EQ(infos, expected) << text_of(outcome);
  }

  // Expects the child to have ended through exit(0) right after the fatal
  // "Out of memory" line, having logged nothing else.
  static void expect_out_of_memory(const ChildOutcome &outcome) {
    EXPECT_TRUE(outcome.exited);
    EXPECT_EQ(outcome.exit_status, 0);
    ASSERT_EQ(outcome.lines.size(), 1u) << text_of(outcome);
    EXPECT_EQ(outcome.lines.back().word, "fatal");
    EXPECT_EQ(outcome.lines.back().message, "Out of memory\n");
  }
};

// ---------------------------------------------------------------------------
// Nesting and the report.

TEST_F(OptimizeTimeTest, NestedProbesPrintIndentedLinesWithTheirOwnDurations) {
  expect_report(run_probes([] {
                  tarn_test::set_tick(1000);
                  tarnaux_optimize_time_start("A");
                  tarn_test::advance_tick(10);
                  tarnaux_optimize_time_start("B");
                  tarn_test::advance_tick(25);
                  tarnaux_optimize_time_end("B");
                  tarn_test::advance_tick(5);
                  tarnaux_optimize_time_end("A");
                  tarnaux_optimize_time_print_all();
                }),
                {line_of("A", 40), line_of("    B", 25)});
}

TEST_F(OptimizeTimeTest, TheReportFollowsCreationOrderWithFourSpacesPerLevel) {
  // A holds B (which holds C) and then D; E comes after A ended.
  expect_report(run_probes([] {
                  tarn_test::set_tick(500);
                  tarnaux_optimize_time_start("A");
                  tarnaux_optimize_time_start("B");
                  tarn_test::advance_tick(1);
                  tarnaux_optimize_time_start("C");
                  tarn_test::advance_tick(2);
                  tarnaux_optimize_time_end("C");
                  tarnaux_optimize_time_end("B");
                  tarnaux_optimize_time_start("D");
                  tarn_test::advance_tick(4);
                  tarnaux_optimize_time_end("D");
                  tarnaux_optimize_time_end("A");
                  tarnaux_optimize_time_start("E");
                  tarn_test::advance_tick(8);
                  tarnaux_optimize_time_end("E");
                  tarnaux_optimize_time_print_all();
                }),
                {line_of("A", 7), line_of("    B", 3), line_of("        C", 2), line_of("    D", 4),
                 line_of("E", 8)});
}

TEST_F(OptimizeTimeTest, ARunningProbePrintsZeroAndPrintingTwiceRepeatsTheReport) {
  expect_report(run_probes([] {
                  tarn_test::set_tick(100);
                  tarnaux_optimize_time_start("outer");
                  tarnaux_optimize_time_start("inner");
                  tarn_test::advance_tick(30);
                  tarnaux_optimize_time_end("inner");
                  tarnaux_optimize_time_print_all();
                  tarnaux_optimize_time_print_all();
                }),
                {line_of("outer", 0), line_of("    inner", 30), line_of("outer", 0),
                 line_of("    inner", 30)});
}

TEST_F(OptimizeTimeTest, PrintingWithoutProbesLogsNothing) {
  expect_report(run_probes([] { tarnaux_optimize_time_print_all(); }), {});
}

TEST_F(OptimizeTimeTest, PrintingWithInfoFilteredOutWritesNothing) {
  expect_report(run_probes([] {
                  tarn_test::set_tick(10);
                  tarnaux_optimize_time_start("A");
                  tarn_test::advance_tick(3);
                  tarnaux_optimize_time_end("A");
                  tarn_test::set_log_level(1);  // warn: info lines are filtered out
                  tarnaux_optimize_time_print_all();
                  tarn_test::set_log_level(2);  // info passes again: the probe is still there
                  tarnaux_optimize_time_print_all();
                }),
                {line_of("A", 3)});
}

// ---------------------------------------------------------------------------
// Ends and restarts.

TEST_F(OptimizeTimeTest, EndOfANameNeverStartedDoesNothing) {
  // Had the unknown end popped A off the stack, B would not be nested.
  expect_report(run_probes([] {
                  tarn_test::set_tick(200);
                  tarnaux_optimize_time_end("never");
                  tarnaux_optimize_time_start("A");
                  tarn_test::advance_tick(6);
                  tarnaux_optimize_time_end("never");
                  tarnaux_optimize_time_start("B");
                  tarn_test::advance_tick(1);
                  tarnaux_optimize_time_end("B");
                  tarnaux_optimize_time_end("A");
                  tarnaux_optimize_time_print_all();
                }),
                {line_of("A", 7), line_of("    B", 1)});
}

TEST_F(OptimizeTimeTest, ASecondEndOfTheSameNameDoesNothing) {
  expect_report(run_probes([] {
                  tarn_test::set_tick(300);
                  tarnaux_optimize_time_start("A");
                  tarnaux_optimize_time_start("B");
                  tarn_test::advance_tick(9);
                  tarnaux_optimize_time_end("B");
                  tarn_test::advance_tick(50);
                  tarnaux_optimize_time_end("B");  // B keeps 9ms, A stays on the stack
                  tarnaux_optimize_time_start("C");
                  tarnaux_optimize_time_end("C");
                  tarnaux_optimize_time_end("A");
                  tarnaux_optimize_time_print_all();
                }),
                {line_of("A", 59), line_of("    B", 9), line_of("    C", 0)});
}

TEST_F(OptimizeTimeTest, ARestartedProbeMeasuresFromItsSecondStart) {
  expect_report(run_probes([] {
                  tarn_test::set_tick(100);
                  tarnaux_optimize_time_start("A");
                  tarn_test::advance_tick(50);
                  tarnaux_optimize_time_start("A");
                  tarn_test::advance_tick(20);
                  tarnaux_optimize_time_end("A");
                  tarnaux_optimize_time_print_all();
                }),
                {line_of("A", 20)});
}

TEST_F(OptimizeTimeTest, ARestartKeepsThePlaceAndDepthAndAddsNoLine) {
  // Restarting A while B runs makes no new probe, and leaves A below B on
  // the stack: ending A then pops B, so C is created at depth 1.
  expect_report(run_probes([] {
                  tarn_test::set_tick(1000);
                  tarnaux_optimize_time_start("A");
                  tarnaux_optimize_time_start("B");
                  tarn_test::advance_tick(10);
                  tarnaux_optimize_time_start("A");
                  tarn_test::advance_tick(5);
                  tarnaux_optimize_time_end("A");
                  tarnaux_optimize_time_start("C");
                  tarnaux_optimize_time_end("C");
                  tarnaux_optimize_time_end("B");
                  tarnaux_optimize_time_print_all();
                }),
                {line_of("A", 5), line_of("    B", 15), line_of("    C", 0)});
}

TEST_F(OptimizeTimeTest, ANameStartedAgainAfterItsEndGetsANewLine) {
  expect_report(run_probes([] {
                  tarn_test::set_tick(10);
                  tarnaux_optimize_time_start("step");
                  tarn_test::advance_tick(10);
                  tarnaux_optimize_time_end("step");
                  tarnaux_optimize_time_start("step");
                  tarn_test::advance_tick(30);
                  tarnaux_optimize_time_end("step");
                  tarnaux_optimize_time_print_all();
                }),
                {line_of("step", 10), line_of("step", 30)});
}

TEST_F(OptimizeTimeTest, EndingOutOfOrderOnlyShiftsTheDepthOfLaterProbes) {
  // Ending A pops B (the top); A leaves the stack only when B ends.
  expect_report(run_probes([] {
                  tarn_test::set_tick(400);
                  tarnaux_optimize_time_start("A");
                  tarnaux_optimize_time_start("B");
                  tarn_test::advance_tick(2);
                  tarnaux_optimize_time_end("A");
                  tarnaux_optimize_time_start("C");
                  tarn_test::advance_tick(3);
                  tarnaux_optimize_time_end("B");
                  tarnaux_optimize_time_end("C");
                  tarnaux_optimize_time_start("D");
                  tarnaux_optimize_time_end("D");
                  tarnaux_optimize_time_print_all();
                }),
                {line_of("A", 2), line_of("    B", 5), line_of("    C", 3), line_of("D", 0)});
}

// ---------------------------------------------------------------------------
// Names and indentation.

TEST_F(OptimizeTimeTest, TheReportKeepsTheFirst1024CharactersButTheWholeNameIdentifies) {
  const std::string shared(1024, 'n');
  const std::string first = shared + "-first";
  const std::string second = shared + "-second";
  expect_report(run_probes([&] {
                  tarn_test::set_tick(70);
                  tarnaux_optimize_time_start(first.c_str());
                  tarnaux_optimize_time_start(second.c_str());
                  tarn_test::advance_tick(4);
                  tarnaux_optimize_time_end(second.c_str());
                  tarn_test::advance_tick(1);
                  tarnaux_optimize_time_end(first.c_str());
                  tarnaux_optimize_time_end(shared.c_str());  // a third name: not running
                  tarnaux_optimize_time_print_all();
                }),
                {line_of(shared, 5), line_of("    " + shared, 4)});
}

TEST_F(OptimizeTimeTest, TheIndentIsCutTo1023Spaces) {
  // 257 nested probes: depth 256 would take 1024 spaces.
  constexpr int kDeepest = 256;
  Strings expected;
  for (int depth = 0; depth <= kDeepest; ++depth) {
    const size_t width = std::min<size_t>((size_t)depth * 4, 1023);
    expected.push_back(line_of(std::string(width, ' ') + std::to_string(depth), 0));
  }
  expect_report(run_probes([] {
                  tarn_test::set_tick(1);
                  for (int depth = 0; depth <= kDeepest; ++depth) {
                    tarnaux_optimize_time_start(std::to_string(depth).c_str());
                  }
                  for (int depth = kDeepest; depth >= 0; --depth) {
                    tarnaux_optimize_time_end(std::to_string(depth).c_str());
                  }
                  tarnaux_optimize_time_print_all();
                }),
                expected);
}

// ---------------------------------------------------------------------------
// Calls outside the probes' life.

TEST_F(OptimizeTimeTest, NullNamesDoNothing) {
  expect_report(run_probes([] {
                  tarn_test::set_tick(5);
                  tarnaux_optimize_time_start(nullptr);
                  tarnaux_optimize_time_start("A");
                  tarnaux_optimize_time_end(nullptr);
                  tarn_test::advance_tick(2);
                  tarnaux_optimize_time_end("A");
                  tarnaux_optimize_time_print_all();
                }),
                {line_of("A", 2)});
}

TEST_F(OptimizeTimeTest, CallsBeforeInitDoNothing) {
  const ChildOutcome outcome = tarn_test::run_in_child([] {
    tarn_test::set_tick(5);
    tarnaux_optimize_time_start("early");
    tarnaux_optimize_time_end("early");
    tarnaux_optimize_time_print_all();
    tarnaux_optimize_time_init();
    tarnaux_optimize_time_print_all();  // "early" left no probe behind
    tarnaux_optimize_time_start("late");
    tarnaux_optimize_time_print_all();
    tarnaux_optimize_time_finit();
  });
  expect_report(outcome, {line_of("late", 0)});
}

TEST_F(OptimizeTimeTest, FinitWithoutInitDoesNothing) {
  expect_report(tarn_test::run_in_child([] { tarnaux_optimize_time_finit(); }), {});
}

TEST_F(OptimizeTimeTest, ASecondInitKeepsTheProbes) {
  expect_report(run_probes([] {
                  tarn_test::set_tick(5);
                  tarnaux_optimize_time_start("A");
                  tarnaux_optimize_time_init();
                  tarn_test::advance_tick(12);
                  tarnaux_optimize_time_end("A");
                  tarnaux_optimize_time_print_all();
                }),
                {line_of("A", 12)});
}

// ---------------------------------------------------------------------------
// Memory exhaustion: the fatal line and exit(0).

TEST_F(OptimizeTimeTest, AStartAllocatesTheRecordAndTheNameCopy) {
  // The child's exit status is the number of allocations of two starts of
  // one name: a restart allocates nothing.
  const ChildOutcome outcome = tarn_test::run_in_child([] {
    tarnaux_optimize_time_init();
    tarn_test::reset_fakes();
    tarnaux_optimize_time_start("A");
    tarnaux_optimize_time_start("A");
    const unsigned calls = tarn_test::allocation_calls();
    tarnaux_optimize_time_finit();
    exit((int)calls);
  });
  EXPECT_TRUE(outcome.exited);
  EXPECT_EQ(outcome.exit_status, 2);
  EXPECT_TRUE(outcome.lines.empty()) << text_of(outcome);
}

struct ContainerFault {
  ContainerOp operation;
  unsigned succeeding;
};

TEST_F(OptimizeTimeTest, InitOutOfMemoryForEachContainerEndsTheProcess) {
  // The table, then the stack, then the list.
  const ContainerFault faults[] = {{ContainerOp::kXhashCreate, 0},
                                   {ContainerOp::kVectorCreate, 0},
                                   {ContainerOp::kVectorCreate, 1}};
  for (const ContainerFault &fault : faults) {
    SCOPED_TRACE((int)fault.operation * 10 + (int)fault.succeeding);
    expect_out_of_memory(tarn_test::run_in_child([&] {
      tarn_test::fail_container_after(fault.operation, fault.succeeding);
      tarnaux_optimize_time_init();
    }));
  }
}

TEST_F(OptimizeTimeTest, StartOutOfMemoryForTheRecordOrTheNameEndsTheProcess) {
  for (unsigned succeeding = 0; succeeding < 2; ++succeeding) {
    SCOPED_TRACE(succeeding);
    expect_out_of_memory(run_probes([&] {
      tarn_test::fail_allocation_after(succeeding);
      tarnaux_optimize_time_start("A");
    }));
  }
}

TEST_F(OptimizeTimeTest, StartOutOfMemoryInTheStackTheListOrTheTableEndsTheProcess) {
  // The stack is pushed first, then the list, then the table is filled.
  const ContainerFault faults[] = {{ContainerOp::kVectorPushBack, 0},
                                   {ContainerOp::kVectorPushBack, 1},
                                   {ContainerOp::kXhashInsert, 0}};
  for (const ContainerFault &fault : faults) {
    SCOPED_TRACE((int)fault.operation * 10 + (int)fault.succeeding);
    expect_out_of_memory(run_probes([&] {
      tarnaux_optimize_time_start("outer");
      tarn_test::fail_container_after(fault.operation, fault.succeeding);
      tarnaux_optimize_time_start("inner");
    }));
  }
}

}  // namespace
