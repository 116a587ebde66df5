// tarnctl_run.h -- starting tarnctl (or another program) as a child, with
// its standard output and error kept, and checking a --json answer against
// the schema docs/tarnctl.md gives for its subcommand.
#ifndef TARN_TEST_TARNCTL_RUN_H
#define TARN_TEST_TARNCTL_RUN_H

#include <functional>
#include <string>
#include <vector>

namespace tarn_test {

// What a finished program left behind.
struct Outcome {
  int status = -1;  // exit status, or tarn_test::killed_by(signal)
  std::string out;
  std::string err;
};

// Runs argv (the program is looked up in PATH when it has no '/') with its
// standard output and error in temporary files. prepare runs in the child
// before the program starts; when it returns false the child exits with 126.
// A program that cannot be started leaves "cannot run PROGRAM: REASON" on
// its standard error and exit status 127.
Outcome run_program(const std::vector<std::string> &argv, const std::function<bool()> &prepare = {});

// run_program() of the built tarnctl (TARNCTL_PATH) with args.
Outcome tarnctl(std::vector<std::string> args, const std::function<bool()> &prepare = {});

std::vector<std::string> lines_of(const std::string &text);
std::vector<std::string> words_of(const std::string &line);
// The outcome as text, for failure messages.
std::string dump(const Outcome &outcome);

// "" when json_text is a valid --json answer of subcommand ("pkg list") by
// the schema in docs/tarnctl.md; otherwise the validator's reasons.
std::string schema_problems(const std::string &subcommand, const std::string &json_text);

}  // namespace tarn_test

#endif
