/* write_floor ARCHIVE DEST: the floor of writing what a tar-gzip archive
 * holds. It reads the gzip stream with gzread (the same 128 KB zlib buffer
 * as untgz_file) and creates each directory with mkdir and each regular
 * file with open, write and close below DEST, with no checks at all: no
 * name, link, mode, owner or path-escape checks, no fsync. Only ustar
 * names (prefix and name) and the entry kinds '0', '\0' and '5' are known;
 * other entries are skipped. */
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

static unsigned long long octal(const char *field, size_t width) {
  unsigned long long value = 0;
  for (size_t i = 0; i < width && field[i] >= '0' && field[i] <= '7'; ++i) value = value * 8 + (unsigned)(field[i] - '0');
  return value;
}

int main(int argc, char **argv) {
  static char data[128 * 1024];
  char header[512];
  char name[512];
  if (argc != 3) {
    fprintf(stderr, "usage: write_floor ARCHIVE DEST\n");
    return 2;
  }
  gzFile stream = gzopen(argv[1], "rb");
  const int dest = open(argv[2], O_RDONLY | O_DIRECTORY);
  if (stream == NULL || dest < 0) {
    perror("write_floor");
    return 1;
  }
  gzbuffer(stream, 128 * 1024);
  while (gzread(stream, header, sizeof(header)) == (int)sizeof(header) && header[0] != '\0') {
    unsigned long long size = octal(header + 124, 12);
    const char kind = header[156];
    if (header[345] != '\0') {
      snprintf(name, sizeof(name), "%.155s/%.100s", header + 345, header);
    } else {
      snprintf(name, sizeof(name), "%.100s", header);
    }
    const int fd = kind == '0' || kind == '\0' ? openat(dest, name, O_WRONLY | O_CREAT | O_TRUNC, 0644) : -1;
    if (kind == '5') mkdirat(dest, name, 0755);
    unsigned long long left = (size + 511) / 512 * 512;
    while (left > 0) {
      const unsigned chunk = left < sizeof(data) ? (unsigned)left : (unsigned)sizeof(data);
      if (gzread(stream, data, chunk) != (int)chunk) return 1;
      const unsigned long long payload = size < chunk ? size : chunk;
      if (fd >= 0 && payload > 0 && write(fd, data, (size_t)payload) != (ssize_t)payload) return 1;
      size -= payload;
      left -= chunk;
    }
    if (fd >= 0) close(fd);
  }
  gzclose(stream);
  close(dest);
  return 0;
}
