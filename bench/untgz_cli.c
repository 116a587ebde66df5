/* untgz_cli ARCHIVE DEST: untgz_file as a command, measured beside the
 * archivers' own commands. Exits with untgz_file's result. Its log lines go
 * to standard error, so that it writes nothing outside DEST. */
#include <stdio.h>

#include <tarnbase/tarn_log.h>

#include "untgz.h"

static void to_stderr(void *context, uint32_t level, const char *line, size_t length) {
  (void)context;
  (void)level;
  fwrite(line, 1, length, stderr);
}

int main(int argc, char **argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: untgz_cli ARCHIVE DEST\n");
    return 2;
  }
  tarn_log_register(to_stderr, NULL);
  return (int)untgz_file(argv[1], argv[2]);
}
