// tarnctl_run.cpp -- see tarnctl_run.h.
#include "tarnctl_run.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <memory>
#include <sstream>

#include "child_process.h"

namespace tarn_test {

namespace {

std::string read_stream(FILE *file) {
  std::string text;
  rewind(file);
  char buffer[4096];
  size_t got = 0;
  while ((got = fread(buffer, 1, sizeof(buffer), file)) > 0) text.append(buffer, got);
  return text;
}

}  // namespace

Outcome run_program(const std::vector<std::string> &argv, const std::function<bool()> &prepare) {
  std::unique_ptr<FILE, int (*)(FILE *)> out(tmpfile(), fclose);
  std::unique_ptr<FILE, int (*)(FILE *)> err(tmpfile(), fclose);
  Outcome outcome;
  if (!out || !err) return outcome;
  const pid_t pid = tarn_test::fork_flushed();
  if (pid == 0) {
    if (dup2(fileno(out.get()), STDOUT_FILENO) < 0 || dup2(fileno(err.get()), STDERR_FILENO) < 0) _exit(125);
    if (prepare && !prepare()) _exit(126);
    std::vector<char *> words;
    for (const std::string &word : argv) words.push_back(const_cast<char *>(word.c_str()));
    words.push_back(nullptr);
    execvp(words[0], words.data());
    fprintf(stderr, "cannot run %s: %s\n", words[0], strerror(errno));
    fflush(stderr);
    _exit(127);
  }
  outcome.status = tarn_test::reap(pid);
  outcome.out = read_stream(out.get());
  outcome.err = read_stream(err.get());
  return outcome;
}

Outcome tarnctl(std::vector<std::string> args, const std::function<bool()> &prepare) {
  args.insert(args.begin(), TARNCTL_PATH);
  return run_program(args, prepare);
}

std::vector<std::string> lines_of(const std::string &text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  std::string line;
  while (std::getline(stream, line)) lines.push_back(line);
  return lines;
}

std::vector<std::string> words_of(const std::string &line) {
  std::vector<std::string> words;
  std::istringstream stream(line);
  std::string word;
  while (stream >> word) words.push_back(word);
  return words;
}

std::string dump(const Outcome &outcome) {
  return "status " + std::to_string(outcome.status) + "\n--- stdout\n" + outcome.out + "--- stderr\n" + outcome.err;
}

std::string schema_problems(const std::string &subcommand, const std::string &json_text) {
  char answer_path[] = "/tmp/tarnctl-answer-XXXXXX";
  const int fd = mkstemp(answer_path);
  if (fd < 0) return std::string("cannot make a temporary file: ") + strerror(errno);
  const bool written = write(fd, json_text.data(), json_text.size()) == (ssize_t)json_text.size();
  close(fd);
  if (!written) {
    unlink(answer_path);
    return "cannot write the temporary file";
  }
  const std::string path = answer_path;
  const Outcome outcome = run_program({"/usr/bin/python3", TARNCTL_SCHEMA_CHECKER, TARNCTL_DOC, subcommand},
                                      [&path] { return freopen(path.c_str(), "r", stdin) != nullptr; });
  unlink(answer_path);
  return outcome.status == 0 ? "" : dump(outcome);
}

}  // namespace tarn_test
