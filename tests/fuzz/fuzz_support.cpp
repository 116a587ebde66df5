#include "fuzz_support.h"

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <tarnbase/tarn_log.h>

#include "sandbox.h"

namespace {

std::string g_scratch;

void drop_line(void *, uint32_t, const char *, size_t) {}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  if (tarn_sandbox_enter() != 0) {
    fprintf(stderr, "fuzz: cannot enter the sandbox\n");
    exit(1);
  }
  char directory[] = "/tmp/tarn_fuzz_XXXXXX";
  if (mkdtemp(directory) == nullptr) {
    perror("fuzz: mkdtemp");
    exit(1);
  }
  g_scratch = directory;
  tarn_log_register(drop_line, nullptr);
  return 0;
}

namespace tarn_fuzz {

const std::string &scratch() { return g_scratch; }

void write_file(const std::string &path, const uint8_t *data, size_t size) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) fail("cannot create an input file");
  size_t done = 0;
  while (done < size) {
    const ssize_t wrote = write(fd, data + done, size - done);
    if (wrote <= 0) fail("cannot write an input file");
    done += (size_t)wrote;
  }
  close(fd);
}

std::string read_file(const std::string &path) {
  std::string content;
  FILE *file = fopen(path.c_str(), "rbe");
  if (file == nullptr) return content;
  char buffer[4096];
  size_t got;
  while ((got = fread(buffer, 1, sizeof(buffer), file)) > 0) content.append(buffer, got);
  fclose(file);
  return content;
}

void fail(const char *what) {
  fprintf(stderr, "fuzz: %s\n", what);
  abort();
}

}  // namespace tarn_fuzz
