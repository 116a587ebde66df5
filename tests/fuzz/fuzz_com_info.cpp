// The manifest loader: the input, signed as a protected manifest, through
// load_com_info, the digest lookup for each file it lists, and the version
// reader of package manifests.

#include <stdint.h>
#include <string.h>

#include <string>

#include <qiv_ejs/qiv_ejs.h>

#include "com_info.h"
#include "fuzz_support.h"
#include "version_mgr.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string manifest = tarn_fuzz::scratch() + "/manifest.ejs";
  if (qiv_ejs_sign_file(manifest.c_str(), data, size, QIV_EJS_BUILD_SECRET_KEY) != 0) tarn_fuzz::fail("the input cannot be signed");

  com_info_var info;
  memset(&info, 0, sizeof(info));
  if (load_com_info(manifest.c_str(), &info) == 0) {
    if (info.package == nullptr) tarn_fuzz::fail("a loaded record has no package name");
    print_arch_failed_info(&info);
    for (uint32_t i = 0; i < info.file_count; ++i) {
      const com_file &file = info.files[i];
      if (file.name == nullptr) continue;
      char digest[128];
      (void)tarn_get_component_file_sha256(manifest.c_str(), file.name, digest, sizeof(digest));
    }
  } else if (info.package != nullptr || info.files != nullptr || info.depends != nullptr) {
    tarn_fuzz::fail("a failed load leaves memory in the record");
  }
  free_com_info_var(&info);

  version_mgr_version version{};
  (void)version_mgr_get_packman_version_by_file(manifest.c_str(), &version);
  return 0;
}
