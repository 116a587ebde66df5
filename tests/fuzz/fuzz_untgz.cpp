// untgz_file on an archive written from the input. The input may be gzip
// data or, since zlib reads a stream without a gzip header as it stands,
// tar blocks themselves. After each run: nothing beside the destination
// changed, and nothing in it keeps a set-user-ID or set-group-ID bit; then
// the destination is removed.

#include <dirent.h>
#include <ftw.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>
#include <string>

#include "fuzz_support.h"
#include "untgz.h"

namespace {

const char kSentinelText[] = "sentinel";

// Checks one entry of the destination, then removes it (children first).
int check_and_remove(const char *path, const struct stat *st, int type, struct FTW *) {
  if (type != FTW_SL && (st->st_mode & (S_ISUID | S_ISGID)) != 0) {
    tarn_fuzz::fail("an extracted entry keeps a set-ID bit");
  }
  // Directories without permissions are entered by root all the same.
  if (type == FTW_DP) return rmdir(path) == 0 ? 0 : -1;
  return unlink(path) == 0 ? 0 : -1;
}

std::set<std::string> names_in(const std::string &directory) {
  std::set<std::string> names;
  if (DIR *stream = opendir(directory.c_str())) {
    while (const dirent *entry = readdir(stream)) names.insert(entry->d_name);
    closedir(stream);
  }
  return names;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string &scratch = tarn_fuzz::scratch();
  const std::string archive = scratch + "/in.tgz";
  const std::string sentinel = scratch + "/sentinel.txt";
  const std::string dest = scratch + "/out";
  tarn_fuzz::write_file(archive, data, size);
  tarn_fuzz::write_file(sentinel, reinterpret_cast<const uint8_t *>(kSentinelText), sizeof(kSentinelText) - 1);

  const int32_t result = untgz_file(archive.c_str(), dest.c_str());
  if (result != 0 && result != 1) tarn_fuzz::fail("untgz_file returned neither 0 nor 1");

  if (names_in(scratch) != std::set<std::string>{".", "..", "in.tgz", "sentinel.txt", "out"}) {
    tarn_fuzz::fail("something appeared beside the destination");
  }
  if (tarn_fuzz::read_file(sentinel) != kSentinelText) tarn_fuzz::fail("the sentinel file changed");
  if (nftw(dest.c_str(), check_and_remove, 16, FTW_DEPTH | FTW_PHYS) != 0) {
    tarn_fuzz::fail("the destination cannot be removed");
  }
  return 0;
}
