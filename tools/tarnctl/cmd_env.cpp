// env admin | space | uos: the checks the installer makes before it changes
// anything. Each answers "yes" (exit 0) or "no" (exit 1).

#include <errno.h>
#include <stdint.h>
#include <stdio.h>

#include <string>

#include <tarn_environment_check.h>
#include <tarnbase/tarn_device.h>

#include "tarnctl.h"

namespace tarnctl {
namespace {

int reply(const Invocation &inv, bool yes, const std::string &detail = "") {
  say(inv, "%s%s\n", yes ? "yes" : "no", detail.c_str());
  answer(inv, "answer", json_boolean(yes));
  return yes ? kExitOk : kExitNo;
}

// Parses BYTES: decimal digits, optionally followed by K, M, G or T (powers
// of 1024), above 0 and within 64 bits.
bool parse_bytes(std::string text, uint64_t *bytes) {
  static const std::string kUnits = "KMGT";
  unsigned shift = 0;
  const size_t unit = text.empty() ? std::string::npos : kUnits.find(text.back());
  if (unit != std::string::npos) {
    shift = 10 * (unsigned)(unit + 1);
    text.pop_back();
  }
  uint64_t value = 0;
  if (!parse_unsigned(text, UINT64_MAX >> shift, &value) || value == 0) return false;
  *bytes = value << shift;
  return true;
}

}  // namespace

int run_env_admin(const Invocation &inv) { return reply(inv, tarn_envc_is_admin() == 1); }

int run_env_space(const Invocation &inv) {
  const std::string &path = inv.args[0];
  uint64_t needed = 0;
  if (!parse_bytes(inv.args[1], &needed)) {
    return fail(inv, kExitUsage, "BYTES must be a number above 0, optionally followed by K, M, G or T, not \"" + inv.args[1] + "\"");
  }
  const int missing = path_error(path);
  if (missing != 0) return fail(inv, kExitMissing, path + ": " + error_text(missing));
  uint64_t available = 0;
  if (tarn_device_disk_space(path.c_str(), TARN_DEVICE_SPACE_AVAILABLE, &available) != 1) {
    return fail(inv, kExitMissing, "the free space of " + path + " cannot be read: " + error_text(errno));
  }
  const bool room = tarn_envc_path_free_space(path.c_str(), needed) == 1;
  answer(inv, "available", json_integer((json_int_t)available));
  answer(inv, "needed", json_integer((json_int_t)needed));
  return reply(inv, room, ": " + std::to_string(available) + " bytes available, " + std::to_string(needed) + " needed");
}

int run_env_uos(const Invocation &inv) {
  uint64_t minor = 0;
  if (!parse_unsigned(inv.args[0], INT32_MAX, &minor)) {
    return fail(inv, kExitUsage, "MINOR must be a decimal number from 0 to 2147483647, not \"" + inv.args[0] + "\"");
  }
  answer(inv, "minor", json_integer((json_int_t)minor));
  return reply(inv, is_uos_and_lower_version((int32_t)minor) == 1);
}

}  // namespace tarnctl
