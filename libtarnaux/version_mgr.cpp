// Dotted version strings ("3.2.17"): parsing, printing, comparing and
// copying version records, and reading a package's version from its
// protected manifest.

#include "version_mgr.h"

#include <errno.h>
#include <stdlib.h>

#include <qiv_ejs/qiv_ejs.h>
#include <tarnbase/tarn_str.h>

#include "com_info_internal.h"
#include "log_frame.h"

namespace {

constexpr uint32_t kVersionPieces = 3;

// The pieces of a split string, freed with their array.
class SplitPieces {
 public:
  SplitPieces(const char *text, const char *separator)
      : pieces_(tarn_str_split(text, separator, &count_)) {}
  ~SplitPieces() { tarn_str_split_free(pieces_, count_); }
  SplitPieces(const SplitPieces &) = delete;
  SplitPieces &operator=(const SplitPieces &) = delete;

  bool ok() const { return pieces_ != nullptr; }
  uint32_t count() const { return count_; }
  const char *operator[](uint32_t index) const { return pieces_[index]; }

 private:
  uint32_t count_ = 0;
  char **pieces_;
};

}  // namespace

extern "C" {

TARNAUX_API uint32_t version_mgr_parser_version(const char *version, version_mgr_version *out) {
  if (version == nullptr || out == nullptr) return 1;
  const SplitPieces pieces(version, ".");
  if (!pieces.ok() || pieces.count() < kVersionPieces) return 1;

  // Gathered apart so that a failing piece leaves the caller's record as
  // it was.
  uint32_t values[kVersionPieces] = {0, 0, 0};
  for (uint32_t i = 0; i < kVersionPieces; ++i) {
    const char *piece = pieces[i];
    if (piece[0] < '0' || piece[0] > '9') return 1;
    // strtoull rather than strtoul so that a piece wider than 32 bits keeps
    // its low 32 bits also where long has only 32 bits.
    values[i] = (uint32_t)strtoull(piece, nullptr, 10);
  }
  out->major = values[0];
  out->minor = values[1];
  out->patch = values[2];
  return 0;
}

TARNAUX_API intptr_t version_mgr_version_tostring(const version_mgr_version *version, char *buf,
                                                  uint32_t len) {
  if (version == nullptr || buf == nullptr || len == 0) return (intptr_t)buf;
  return tarn_str_snprintf(buf, len, "%u.%u.%u", version->major, version->minor, version->patch);
}

TARNAUX_API int32_t version_mgr_compare_version(version_mgr_version first,
                                                version_mgr_version second) {
  // Unsigned wrap-around differences read as signed: only the sign counts.
  if (first.major != second.major) return (int32_t)(first.major - second.major);
  if (first.minor != second.minor) return (int32_t)(first.minor - second.minor);
  return (int32_t)(first.patch - second.patch);
}

TARNAUX_API void version_mgr_version_copy(const version_mgr_version *source,
                                          version_mgr_version *destination) {
  if (source == nullptr || destination == nullptr) return;
  destination->major = source->major;
  destination->minor = source->minor;
  destination->patch = source->patch;
}

TARNAUX_API uint32_t version_mgr_get_packman_version_by_file(const char *path,
                                                             version_mgr_version *out) {
  if (path == nullptr || out == nullptr) return 1;
  const JsonTree tree(qiv_json_load_file_ejs(path));
  if (!tree) {
    const int error = errno;
    LOG(warn, "load ejs failed, path is %s, errcode:0x%x\n", path, (unsigned)error);
    return 1;
  }
  const char *version = qiv_json_string_value_ejs(qiv_json_object_get_ejs(tree.get(), "version"));
  if (version == nullptr) {
    LOG(warn, "get package version failed, ejs file is %s\n", path);
    return 1;
  }
  if (version_mgr_parser_version(version, out) != 0) {
    LOG(warn, "version string is invalid, %s\n", version);
    return 1;
  }
  return 0;
}

}  // extern "C"
