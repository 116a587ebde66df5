// Tests of the command-line parser: the grammar and what it refuses, the
// table order of the options, the queries and their bad input, printing,
// freeing, and every allocation failure.

#include <gtest/gtest.h>

#include <string.h>

#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include <tarnbase/tarn_mem.h>
#include <tarnbase/tarn_vector.h>
#include <tarnbase/tarn_xhash.h>

#include "argv_words.h"
#include "container_faults.h"
#include "fakes.h"
#include "log_checks.h"
#include "parameter_parsing.h"
#include "reset_test.h"

namespace {

using tarn_test::Argv;
using tarn_test::ContainerOp;
using tarn_test::dump_logs;
using tarn_test::messages;
using Strings = std::vector<std::string>;

struct FreeHandle {
  void operator()(argment_paras *handle) const { argment_paras_free_args(handle); }
};
using Handle = std::unique_ptr<argment_paras, FreeHandle>;

Handle parse(std::initializer_list<const char *> words) {
  Argv args(words);
  return Handle(argment_paras_create(args.argc(), args.argv()));
}

// The options in table order, read with argment_paras_get_option_pos_at.
Strings options_of(const argment_paras *handle) {
  Strings options;
  for (int32_t i = 0;; ++i) {
    const char *option = argment_paras_get_option_pos_at(handle, i);
    if (option == nullptr) return options;
    options.push_back(option);
  }
}

// The option's arguments, read through its vector.
Strings arguments_of(const argment_paras *handle, const char *option) {
  Strings arguments;
  const tarn_vector_t *list = argment_paras_get_option_args(handle, option);
  for (size_t i = 0; i < tarn_vector_size(list); ++i) {
    arguments.push_back(static_cast<const char *>(tarn_vector_pos_at(list, i)));
  }
  return arguments;
}

const Strings kInvalidInput = {"Invalid input\n"};

class ParameterParsingTest : public tarn_test::ResetTest<tarn_test::clear_container_faults> {
 protected:
  // Expects the lines logged since the last call to be exactly these warn
  // messages, and clears them.
  static void expect_warnings(const Strings &expected) {
    EXPECT_EQ(messages("warn"), expected) << dump_logs();
    EXPECT_EQ(tarn_test::logs().size(), expected.size()) << dump_logs();
    tarn_test::clear_logs();
  }
};

// ---------------------------------------------------------------------------
// The grammar.

TEST_F(ParameterParsingTest, OptionsCollectTheArgumentsThatFollowThem) {
  Handle handle = parse({"prog", "-a", "x", "y", "-b"});
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(argment_paras_get_args_count(handle.get()), 4u);
  EXPECT_EQ(argment_paras_get_option_count(handle.get()), 2u);
  EXPECT_EQ(options_of(handle.get()), (Strings{"-a", "-b"}));
  EXPECT_EQ(arguments_of(handle.get(), "-a"), (Strings{"x", "y"}));
  EXPECT_EQ(argment_paras_get_option_args_count(handle.get(), "-a"), 2u);
  ASSERT_NE(argment_paras_get_option_args(handle.get(), "-b"), nullptr);
  EXPECT_EQ(tarn_vector_size(argment_paras_get_option_args(handle.get(), "-b")), 0u);
  EXPECT_EQ(argment_paras_get_option_args_count(handle.get(), "-b"), 0u);
  EXPECT_EQ(argment_paras_option_is_exist(handle.get(), "-a"), 1);
  EXPECT_EQ(argment_paras_option_is_exist(handle.get(), "-b"), 1);
  EXPECT_EQ(argment_paras_option_is_exist(handle.get(), "-c"), 0);
  EXPECT_NO_LINES();
}

TEST_F(ParameterParsingTest, ARepeatedOptionKeepsOneEntryWithAllItsArguments) {
  Handle handle = parse({"prog", "-a", "x", "-a", "y"});
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(argment_paras_get_option_count(handle.get()), 1u);
  EXPECT_EQ(argment_paras_get_args_count(handle.get()), 4u);
  EXPECT_EQ(arguments_of(handle.get(), "-a"), (Strings{"x", "y"}));
  EXPECT_NO_LINES();
}

TEST_F(ParameterParsingTest, TableOrderIsFirstAppearanceNotTheOrderOfTheWords) {
  Handle handle = parse({"prog", "-b", "1", "-a", "2", "-b", "3", "-c"});
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(options_of(handle.get()), (Strings{"-b", "-a", "-c"}));
  EXPECT_EQ(options_of(handle.get()), (Strings{"-b", "-a", "-c"}));  // stable between walks
  EXPECT_EQ(arguments_of(handle.get(), "-b"), (Strings{"1", "3"}));
  EXPECT_EQ(arguments_of(handle.get(), "-a"), (Strings{"2"}));
  EXPECT_EQ(argment_paras_get_option_pos_at(handle.get(), 3), nullptr);
  EXPECT_EQ(argment_paras_get_option_pos_at(handle.get(), 100), nullptr);
  EXPECT_NO_LINES();
}

TEST_F(ParameterParsingTest, ADoubleDashIsAnOptionLikeAnyOther) {
  Handle handle = parse({"prog", "--", "x"});
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(options_of(handle.get()), (Strings{"--"}));
  EXPECT_EQ(arguments_of(handle.get(), "--"), (Strings{"x"}));
  EXPECT_NO_LINES();
}

TEST_F(ParameterParsingTest, ArgumentsAndOptionsAreCopiesOfTheWords) {
  Argv args({"prog", "-a", "value"});
  Handle handle(argment_paras_create(args.argc(), args.argv()));
  ASSERT_NE(handle, nullptr);
  EXPECT_NE(argment_paras_get_option_arg_pos_at(handle.get(), "-a", 0), args.argv()[2]);
  EXPECT_NE(argment_paras_get_option_pos_at(handle.get(), 0), args.argv()[1]);
  args.argv()[1][1] = 'z';
  strcpy(args.argv()[2], "other");
  EXPECT_EQ(options_of(handle.get()), (Strings{"-a"}));
  EXPECT_EQ(arguments_of(handle.get(), "-a"), (Strings{"value"}));
  EXPECT_NO_LINES();
}

// ---------------------------------------------------------------------------
// Refused command lines.

TEST_F(ParameterParsingTest, AnArgumentBeforeTheFirstOptionIsRefused) {
  EXPECT_EQ(parse({"prog", "x", "-a"}), nullptr);
  expect_warnings({"There is an illegal command line present\n"});
}

TEST_F(ParameterParsingTest, DashWordsThatAreNotTwoCharactersAreRefusedSilently) {
  EXPECT_EQ(parse({"prog", "-ab"}), nullptr);
  EXPECT_EQ(parse({"prog", "-"}), nullptr);
  EXPECT_EQ(parse({"prog", "-a", "x", "-bc", "y"}), nullptr);
  EXPECT_EQ(parse({"prog", "-a", "x", "---"}), nullptr);
  EXPECT_NO_LINES();
}

TEST_F(ParameterParsingTest, TheProgramNameAloneIsInvalidInput) {
  EXPECT_EQ(parse({"prog"}), nullptr);
  expect_warnings(kInvalidInput);
  Argv args({"prog", "-a"});
  EXPECT_EQ(argment_paras_create(0, args.argv()), nullptr);
  EXPECT_EQ(argment_paras_create(-1, args.argv()), nullptr);
  EXPECT_EQ(argment_paras_create(2, nullptr), nullptr);
  expect_warnings({"Invalid input\n", "Invalid input\n", "Invalid input\n"});
}

TEST_F(ParameterParsingTest, ANullWordIsRefusedWithItsIndex) {
  EXPECT_EQ(parse({"prog", "-a", "x", nullptr, "y"}), nullptr);
  expect_warnings({"Invalid argument at index 3\n"});
  EXPECT_EQ(parse({"prog", nullptr}), nullptr);
  expect_warnings({"Invalid argument at index 1\n"});
}

// ---------------------------------------------------------------------------
// Queries.

TEST_F(ParameterParsingTest, OnlyTwoCharacterTextsCanMatch) {
  Handle handle = parse({"prog", "-a", "x"});
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(argment_paras_option_is_exist(handle.get(), "-ab"), 0);
  EXPECT_EQ(argment_paras_option_is_exist(handle.get(), "-"), 0);
  EXPECT_EQ(argment_paras_option_is_exist(handle.get(), "a"), 0);
  EXPECT_EQ(argment_paras_get_option_args(handle.get(), "-ab"), nullptr);
  EXPECT_EQ(argment_paras_get_option_args_count(handle.get(), "-ab"), 0u);
  EXPECT_EQ(argment_paras_get_option_arg_pos_at(handle.get(), "-ab", 0), nullptr);
  EXPECT_EQ(argment_paras_get_option_arg_pos_at(handle.get(), "a", 0), nullptr);
  EXPECT_NO_LINES();
}

TEST_F(ParameterParsingTest, AMissingOptionIsAnsweredWithoutAMessage) {
  Handle handle = parse({"prog", "-a", "x"});
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(argment_paras_option_is_exist(handle.get(), "-z"), 0);
  EXPECT_EQ(argment_paras_get_option_args(handle.get(), "-z"), nullptr);
  EXPECT_EQ(argment_paras_get_option_args_count(handle.get(), "-z"), 0u);
  EXPECT_EQ(argment_paras_get_option_arg_pos_at(handle.get(), "-z", 0), nullptr);
  EXPECT_NO_LINES();
}

TEST_F(ParameterParsingTest, OptionTextsWithoutTheirDashAreBadInputForTheArgumentLists) {
  Handle handle = parse({"prog", "-a", "x"});
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(argment_paras_get_option_args_count(handle.get(), "a"), 0u);
  expect_warnings(kInvalidInput);
  EXPECT_EQ(argment_paras_get_option_args(handle.get(), "a"), nullptr);
  expect_warnings(kInvalidInput);
  EXPECT_EQ(argment_paras_get_option_args_count(handle.get(), ""), 0u);
  expect_warnings(kInvalidInput);
}

TEST_F(ParameterParsingTest, ArgumentsAreReadByIndexWithinTheirNumber) {
  Handle handle = parse({"prog", "-a", "x", "y"});
  ASSERT_NE(handle, nullptr);
  EXPECT_STREQ(argment_paras_get_option_arg_pos_at(handle.get(), "-a", 0), "x");
  EXPECT_STREQ(argment_paras_get_option_arg_pos_at(handle.get(), "-a", 1), "y");
  EXPECT_EQ(argment_paras_get_option_arg_pos_at(handle.get(), "-a", 2), nullptr);  // the size
  EXPECT_EQ(argment_paras_get_option_arg_pos_at(handle.get(), "-a", 3), nullptr);
  EXPECT_EQ(argment_paras_get_option_arg_pos_at(handle.get(), "-a", -1), nullptr);
  EXPECT_NO_LINES();
}

TEST_F(ParameterParsingTest, ANegativeOptionIndexIsBadInput) {
  Handle handle = parse({"prog", "-a"});
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(argment_paras_get_option_pos_at(handle.get(), -1), nullptr);
  expect_warnings(kInvalidInput);
  EXPECT_EQ(argment_paras_get_option_pos_at(handle.get(), 1), nullptr);
  EXPECT_NO_LINES();
}

// Every query, with a handle that may be bad and an option text that may be
// null: each call must log "Invalid input" once and answer 0 or null.
void expect_every_query_refuses(const argment_paras *handle, const char *option) {
  EXPECT_EQ(argment_paras_option_is_exist(handle, option), 0);
  EXPECT_EQ(argment_paras_get_option_args(handle, option), nullptr);
  EXPECT_EQ(argment_paras_get_option_args_count(handle, option), 0u);
  EXPECT_EQ(argment_paras_get_option_arg_pos_at(handle, option, 0), nullptr);
  EXPECT_EQ(messages("warn"), Strings(4, "Invalid input\n")) << dump_logs();
  EXPECT_EQ(tarn_test::logs().size(), 4u) << dump_logs();
  tarn_test::clear_logs();
}

void expect_every_handle_query_refuses(const argment_paras *handle) {
  expect_every_query_refuses(handle, "-a");
  EXPECT_EQ(argment_paras_get_option_count(handle), 0u);
  EXPECT_EQ(argment_paras_get_option_pos_at(handle, 0), nullptr);
  EXPECT_EQ(argment_paras_get_args_count(handle), 0u);
  argment_paras_print(handle);
  EXPECT_EQ(messages("warn"), Strings(4, "Invalid input\n")) << dump_logs();
  EXPECT_EQ(tarn_test::logs().size(), 4u) << dump_logs();
  tarn_test::clear_logs();
}

TEST_F(ParameterParsingTest, ANullHandleIsBadInputForEveryQuery) {
  expect_every_handle_query_refuses(nullptr);
}

TEST_F(ParameterParsingTest, AHandleWithoutATableIsBadInputForEveryQuery) {
  argment_paras tableless = {nullptr, 3};
  expect_every_handle_query_refuses(&tableless);
}

TEST_F(ParameterParsingTest, ANullOptionTextIsBadInput) {
  Handle handle = parse({"prog", "-a", "x"});
  ASSERT_NE(handle, nullptr);
  expect_every_query_refuses(handle.get(), nullptr);
}

// ---------------------------------------------------------------------------
// Printing and freeing.

TEST_F(ParameterParsingTest, PrintLogsEveryOptionAndArgumentInTableOrder) {
  Handle handle = parse({"prog", "-b", "1", "-a", "-b", "two words"});
  ASSERT_NE(handle, nullptr);
  argment_paras_print(handle.get());
  EXPECT_EQ(messages("info"), (Strings{"option[-b]\n", "parameters[0][1]\n",
                                       "parameters[1][two words]\n", "option[-a]\n"}));
  EXPECT_EQ(tarn_test::logs().size(), 4u) << dump_logs();
}

TEST_F(ParameterParsingTest, FreeingANullHandleOrOneWithoutATableOnlyLogs) {
  argment_paras_free_args(nullptr);
  expect_warnings(kInvalidInput);
  // Not freed: the block stays the caller's, who frees it afterwards.
  argment_paras *tableless = static_cast<argment_paras *>(tarn_zero_malloc_(sizeof(argment_paras)));
  ASSERT_NE(tableless, nullptr);
  tableless->args_count = 7;
  argment_paras_free_args(tableless);
  expect_warnings(kInvalidInput);
  EXPECT_EQ(tableless->args_count, 7u);
  tarn_free_(tableless);
}

TEST_F(ParameterParsingTest, FreeingAnEntryWithoutAListLogsInvalidInput) {
  Argv args({"prog", "-a", "x"});
  argment_paras *handle = argment_paras_create(args.argc(), args.argv());
  ASSERT_NE(handle, nullptr);
  ASSERT_EQ(tarn_xhash_insert(handle->options, "-z", 3, nullptr), 0);
  argment_paras_free_args(handle);
  expect_warnings(kInvalidInput);
}

// ---------------------------------------------------------------------------
// Allocation failures: the partial handle is freed (the sanitizer build
// checks for leaks) and null is returned after one warn line. The handle
// and the argument copies are allocated by the parser itself, and fail
// through fail_allocation_after; the table and the lists are made inside
// libtarnbase.so, whose own allocations the fakes do not reach, so their
// operations fail through container_faults.h.

Handle parse_failing_after(unsigned succeeding, std::initializer_list<const char *> words) {
  tarn_test::reset_fakes();
  tarn_test::fail_allocation_after(succeeding);
  return parse(words);
}

Handle parse_failing(ContainerOp operation, std::initializer_list<const char *> words) {
  tarn_test::clear_container_faults();
  tarn_test::fail_container_after(operation, 0);
  Handle handle = parse(words);
  EXPECT_EQ(tarn_test::container_calls(operation), 1u);
  tarn_test::clear_container_faults();
  return handle;
}

TEST_F(ParameterParsingTest, AHandleThatCannotBeAllocatedIsFailToMalloc) {
  EXPECT_EQ(parse_failing_after(0, {"prog", "-a", "x"}), nullptr);
  expect_warnings({"Fail to malloc\n"});
}

TEST_F(ParameterParsingTest, ATableThatCannotBeCreatedIsFailToCreateHash) {
  EXPECT_EQ(parse_failing(ContainerOp::kXhashCreate, {"prog", "-a", "x"}), nullptr);
  expect_warnings({"Fail to create hash\n"});
  EXPECT_EQ(tarn_test::allocation_calls(), 1u);  // the handle; no argument was copied
}

TEST_F(ParameterParsingTest, AnArgumentThatCannotBeCopiedIsFailedToStrdup) {
  // The handle is the first allocation, then one copy per argument.
  EXPECT_EQ(parse_failing_after(1, {"prog", "-a", "x"}), nullptr);
  expect_warnings({"Failed to strdup\n"});
  EXPECT_EQ(parse_failing_after(3, {"prog", "-a", "x", "-b", "y", "z"}), nullptr);
  expect_warnings({"Failed to strdup\n"});
  EXPECT_EQ(tarn_test::allocation_calls(), 4u);
}

TEST_F(ParameterParsingTest, AnArgumentListThatCannotBeMadeOrEnteredIsFailToMalloc) {
  EXPECT_EQ(parse_failing(ContainerOp::kVectorCreate, {"prog", "-a", "x"}), nullptr);
  expect_warnings({"Fail to malloc\n"});
  EXPECT_EQ(parse_failing(ContainerOp::kXhashInsert, {"prog", "-a", "x"}), nullptr);
  expect_warnings({"Fail to malloc\n"});
}

TEST_F(ParameterParsingTest, AnArgumentThatCannotBeAppendedIsFailToMalloc) {
  EXPECT_EQ(parse_failing(ContainerOp::kVectorPushBack, {"prog", "-a", "x"}), nullptr);
  expect_warnings({"Fail to malloc\n"});
}

TEST_F(ParameterParsingTest, EveryAllocationFailureFreesThePartialHandle) {
  const std::initializer_list<const char *> words = {"prog", "-a", "x", "y", "-b", "-a", "w"};
  tarn_test::reset_fakes();
  ASSERT_NE(parse(words), nullptr);
  const unsigned total = tarn_test::allocation_calls();
  EXPECT_EQ(total, 4u);  // the handle and three copies
  for (unsigned n = 0; n < total; ++n) {
    EXPECT_EQ(parse_failing_after(n, words), nullptr) << n;
    expect_warnings({n == 0 ? "Fail to malloc\n" : "Failed to strdup\n"});
  }
}

}  // namespace
