/* gzread_floor ARCHIVE: the decompression floor of tar-gzip extraction. It
 * only reads the whole gzip stream through zlib's gzread into a 128 KB
 * buffer and writes nothing. Prints the decompressed size. */
#include <stdio.h>
#include <zlib.h>

int main(int argc, char **argv) {
  static unsigned char buffer[128 * 1024];
  if (argc != 2) {
    fprintf(stderr, "usage: gzread_floor ARCHIVE\n");
    return 2;
  }
  gzFile stream = gzopen(argv[1], "rb");
  if (stream == NULL) {
    perror(argv[1]);
    return 1;
  }
  unsigned long long total = 0;
  int got;
  while ((got = gzread(stream, buffer, sizeof(buffer))) > 0) total += (unsigned long long)got;
  const int failed = got < 0 || gzclose(stream) != Z_OK;
  printf("%llu\n", total);
  return failed;
}
