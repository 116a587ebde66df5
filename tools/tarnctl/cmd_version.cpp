// version parse | compare | print: dotted version strings.

#include <stdint.h>
#include <stdio.h>

#include <string>

#include <version_mgr.h>

#include "tarnctl.h"

namespace tarnctl {
namespace {

// Parses text into *version. Returns 0 or kExitBadData after the error line.
int parse(const Invocation &inv, const std::string &text, version_mgr_version *version) {
  if (version_mgr_parser_version(text.c_str(), version) == 0) return kExitOk;
  return fail(inv, kExitBadData, "bad version string \"" + text + "\" (expected MAJOR.MINOR.PATCH, each beginning with a digit)");
}

void print(const version_mgr_version &version) {
  char text[64] = {0};
  version_mgr_version_tostring(&version, text, sizeof(text));
  printf("%s\n", text);
}

}  // namespace

int run_version_parse(const Invocation &inv) {
  version_mgr_version version = {0, 0, 0};
  const int code = parse(inv, inv.args[0], &version);
  if (code == kExitOk) print(version);
  return code;
}

int run_version_compare(const Invocation &inv) {
  version_mgr_version first = {0, 0, 0};
  version_mgr_version second = {0, 0, 0};
  int code = parse(inv, inv.args[0], &first);
  if (code == kExitOk) code = parse(inv, inv.args[1], &second);
  if (code != kExitOk) return code;
  const int32_t value = version_mgr_compare_version(first, second);
  printf("%s %d\n", value < 0 ? "<" : value > 0 ? ">" : "=", (int)value);
  return kExitOk;
}

int run_version_print(const Invocation &inv) {
  uint64_t numbers[3] = {0, 0, 0};
  for (size_t i = 0; i < 3; ++i) {
    if (!parse_unsigned(inv.args[i], UINT32_MAX, &numbers[i])) {
      return fail(inv, kExitUsage, "each number must be decimal, from 0 to 4294967295, not \"" + inv.args[i] + "\"");
    }
  }
  print(version_mgr_version{(uint32_t)numbers[0], (uint32_t)numbers[1], (uint32_t)numbers[2]});
  return kExitOk;
}

}  // namespace tarnctl
