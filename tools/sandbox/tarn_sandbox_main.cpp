// tarn-sandbox COMMAND [ARG...]: runs a command inside a private sandbox
// (see sandbox.h) and exits with its status.

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "sandbox.h"

int main(int argc, char **argv) {
  if (argc < 2 || strcmp(argv[1], "--help") == 0) {
    fprintf(stderr, "usage: tarn-sandbox COMMAND [ARG...]\n");
    return argc < 2 ? 2 : 0;
  }
  if (tarn_sandbox_enter() != 0) return 125;
  execvp(argv[1], argv + 1);
  fprintf(stderr, "tarn-sandbox: cannot run %s: %s\n", argv[1], strerror(errno));
  return 127;
}
