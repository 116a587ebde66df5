// The version parser on the input as a string. A version that parses must
// print and parse back to the same numbers, and compare equal to itself.

#include <stdint.h>
#include <string.h>

#include <string>

#include "fuzz_support.h"
#include "version_mgr.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string text(reinterpret_cast<const char *>(data), size);  // cut at the first zero byte
  version_mgr_version version{};
  if (version_mgr_parser_version(text.c_str(), &version) != 0) return 0;

  char printed[64];
  version_mgr_version_tostring(&version, printed, sizeof(printed));
  version_mgr_version again{};
  if (version_mgr_parser_version(printed, &again) != 0) tarn_fuzz::fail("a printed version does not parse");
  if (memcmp(&again, &version, sizeof(version)) != 0) tarn_fuzz::fail("a printed version parses differently");
  if (version_mgr_compare_version(version, again) != 0) tarn_fuzz::fail("a version differs from itself");

  version_mgr_version copy{};
  version_mgr_version_copy(&version, &copy);
  if (memcmp(&copy, &version, sizeof(version)) != 0) tarn_fuzz::fail("a copied version differs");
  return 0;
}
