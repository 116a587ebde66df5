/* com_info_internal.h -- internals of the component manifest family, shared
 * with the version reader and the tests. Not exported.
 */
#ifndef TARNAUX_COM_INFO_INTERNAL_H
#define TARNAUX_COM_INFO_INTERNAL_H

#include <stddef.h>
#include <stdint.h>

#include <memory>

#include <qiv_ejs/qiv_ejs.h>

#include "com_info.h"

/* A manifest's JSON tree, deleted with its owner. */
struct JsonTreeDelete {
  void operator()(json_t *tree) const { qiv_json_delete_ejs(tree); }
};
using JsonTree = std::unique_ptr<json_t, JsonTreeDelete>;

/* The loader of a manifest's "platform_version" requirement. It stores
 * nothing, on purpose: the requirement is accepted in any shape and has no
 * effect on the record. Returns 0 when info is not null, 1 otherwise. */
int32_t load_plat_support_info(const json_t *value, com_info_var *info);

/* The package name that an archive path gives (get_basename of a copy of
 * archive made in buf, which holds len bytes): a pointer into buf, or null
 * when there is none or it is empty, "." or "..": the unpack cache
 * "<dest>/<name>" must never name the destination itself or its parent,
 * since it is removed after a failed unpack. */
const char *archive_package_name(const char *archive, char *buf, size_t len);

/* The directory "<dest>/<package name>" that unpacking an archive into dest
 * fills (its unpack cache), noted before the unpack. After a failed unpack,
 * remove() takes away what the unpack itself made, so that a retry starts
 * clean, and never a directory that was there before: an archive named
 * after a live directory (the app home, say) must not remove it. */
class UnpackCache {
 public:
  /* Takes the package name of archive (archive_package_name) and notes,
   * with lstat, whether anything stood at "<dest>/<name>". */
  UnpackCache(const char *archive, const char *dest);
  UnpackCache(const UnpackCache &) = delete;
  UnpackCache &operator=(const UnpackCache &) = delete;

  /* The package name, or null when the archive path gives none. */
  const char *name() const { return name_; }

  /* Nothing without a package name. Otherwise, when nothing stood at the
   * path before and a real directory (not a link) stands there now, logs at
   * info "remove unpack cache dir [%s]" with the path and removes it with
   * everything in it (a failure is not reported); when it is not the
   * unpack's own, logs at info "unpack cache dir [%s] was there before the
   * unpack, kept" and leaves it. */
  void remove() const;

 private:
  char copy_[1024];
  char path_[1024];
  const char *name_ = nullptr;
  bool existed_ = true;
};

#endif
