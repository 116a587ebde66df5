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

std::string text_of(const version_mgr_version &version) {
  char text[64] = {0};
  version_mgr_version_tostring(&version, text, sizeof(text));
  return text;
}

void answer_fields(const Invocation &inv, const version_mgr_version &version) {
  answer(inv, "major", json_integer(version.major));
  answer(inv, "minor", json_integer(version.minor));
  answer(inv, "patch", json_integer(version.patch));
}

// A against B field by field, each as the unsigned number it is: the
// difference of the first field that differs, 0 when none does. The
// library's own comparison subtracts in 32 bits and gets the sign wrong for
// fields 2^31 or more apart (4294967295.0.0 against 0.0.0).
int64_t compare(const version_mgr_version &first, const version_mgr_version &second) {
  if (first.major != second.major) return (int64_t)first.major - (int64_t)second.major;
  if (first.minor != second.minor) return (int64_t)first.minor - (int64_t)second.minor;
  return (int64_t)first.patch - (int64_t)second.patch;
}

// A RELATION of "version compare A RELATION B" and when it holds, by the
// difference of A and B.
struct Relation {
  const char *name;
  bool (*holds)(int64_t difference);
};
const Relation kRelations[] = {
    {"lt", [](int64_t d) { return d < 0; }}, {"le", [](int64_t d) { return d <= 0; }},
    {"eq", [](int64_t d) { return d == 0; }}, {"ne", [](int64_t d) { return d != 0; }},
    {"ge", [](int64_t d) { return d >= 0; }}, {"gt", [](int64_t d) { return d > 0; }},
};

}  // namespace

int run_version_parse(const Invocation &inv) {
  version_mgr_version version = {0, 0, 0};
  const int code = parse(inv, inv.args[0], &version);
  if (code != kExitOk) return code;
  say(inv, "%s\n", text_of(version).c_str());
  answer(inv, "version", json_string(text_of(version).c_str()));
  answer_fields(inv, version);
  return kExitOk;
}

int run_version_compare(const Invocation &inv) {
  const bool relation_given = inv.args.size() == 3;
  const std::string &relation = relation_given ? inv.args[1] : "";
  const Relation *tested = nullptr;
  for (const Relation &known : kRelations) {
    if (relation == known.name) tested = &known;
  }
  if (relation_given && tested == nullptr) {
    return fail(inv, kExitUsage, "RELATION must be lt, le, eq, ne, ge or gt, not \"" + relation + "\"");
  }
  version_mgr_version first = {0, 0, 0};
  version_mgr_version second = {0, 0, 0};
  int code = parse(inv, inv.args[0], &first);
  if (code == kExitOk) code = parse(inv, inv.args.back(), &second);
  if (code != kExitOk) return code;
  const int64_t difference = compare(first, second);
  const char *order = difference < 0 ? "<" : difference > 0 ? ">" : "=";
  answer(inv, "order", json_string(order));
  answer(inv, "difference", json_integer(difference));
  if (tested != nullptr) {
    const bool holds = tested->holds(difference);
    answer(inv, "relation", json_string(tested->name));
    answer(inv, "holds", json_boolean(holds));
    return holds ? kExitOk : kExitNo;
  }
  say(inv, "%s %lld\n", order, (long long)difference);
  return kExitOk;
}

int run_version_print(const Invocation &inv) {
  uint64_t numbers[3] = {0, 0, 0};
  for (size_t i = 0; i < 3; ++i) {
    if (!parse_unsigned(inv.args[i], UINT32_MAX, &numbers[i])) {
      return fail(inv, kExitUsage, "each number must be decimal, from 0 to 4294967295, not \"" + inv.args[i] + "\"");
    }
  }
  const version_mgr_version version = {(uint32_t)numbers[0], (uint32_t)numbers[1], (uint32_t)numbers[2]};
  say(inv, "%s\n", text_of(version).c_str());
  answer(inv, "version", json_string(text_of(version).c_str()));
  return kExitOk;
}

}  // namespace tarnctl
