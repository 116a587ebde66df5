// tarn-demo-watchdog -- the watchdog process of tarn-demo.
//
// The watchdog keeps a slot of its own in the heartbeat table (pid -1,
// type 6, a five-minute interval). The operations on that slot are internal
// to the library's heartbeat family and not exported by libtarnaux.so, so
// this program is linked with the library's objects; everything else of
// the demo uses the shared library.
//
//   tarn-demo-watchdog CMD_FD REPLY_FD     (started by tarn-demo only)
//
// On start it replies "init R" (proc_heartbeat_init, attaching to the
// service's table) and "add R" (add_wtdog_heartbeat); then, per command:
//   beat       "beat R"             update_wtdog_beat_tick
//   check N    "check R yes|no"     check_wtdog_beat_timeout(N): R, and
//                                   whether the last beat is N s old
//   upgrade    "upgrade R V TEXT"   tarn_upgrade_check: R, the verdict's
//                                   word and its reason
//   exit       "deinit R"           proc_heartbeat_deinit(false), then exit 0

#include <inttypes.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>

#include <string>

#include "demo_util.h"
#include "tarn_heartbeat_internal.h"
#include "tarn_upgrade.h"

namespace {

// Attaches to a table that exists already; the service has made it.
constexpr uint32_t kAttachExisting = 2;

std::string answer(const char *call, int32_t code) {
  return demo::format("%s %" PRId32, call, code);
}

std::string check(const std::string &threshold_text) {
  long threshold = 0;
  if (!demo::parse_int(threshold_text.c_str(), INT32_MIN, INT32_MAX, &threshold))
    return "check bad-threshold";
  bool timed_out = false;
  const int32_t ret = check_wtdog_beat_timeout((int32_t)threshold, &timed_out);
  return answer("check", ret) + (timed_out ? " yes" : " no");
}

std::string upgrade_check() {
  tarn_upgrade_verdict_t verdict;
  const int32_t ret = tarn_upgrade_check(&verdict);
  return answer("upgrade", ret) + " " + tarn_upgrade_verdict_text(verdict.verdict) + " " + verdict.reason;
}

}  // namespace

int main(int argc, char **argv) {
  long cmd_fd = -1, reply_fd = -1;
  if (argc != 3 || !demo::parse_int(argv[1], 0, INT_MAX, &cmd_fd) ||
      !demo::parse_int(argv[2], 0, INT_MAX, &reply_fd) || !demo::is_pipe(cmd_fd) ||
      !demo::is_pipe(reply_fd)) {
    fprintf(stderr, "tarn-demo-watchdog: started by tarn-demo only\n");
    return 2;
  }
  const int out = (int)reply_fd;

  const int32_t init = proc_heartbeat_init(kAttachExisting);
  if (!demo::write_line(out, answer("init", init)) || init != 0) return 1;
  if (!demo::write_line(out, answer("add", add_wtdog_heartbeat()))) return 1;

  std::string command;
  while (demo::read_line((int)cmd_fd, &command)) {
    std::string reply;
    if (command == "beat") {
      reply = answer("beat", update_wtdog_beat_tick());
    } else if (command.compare(0, 6, "check ") == 0) {
      reply = check(command.substr(6));
    } else if (command == "upgrade") {
      reply = upgrade_check();
    } else if (command == "exit") {
      demo::write_line(out, answer("deinit", proc_heartbeat_deinit(false)));
      return 0;
    } else {
      reply = "unknown " + command;
    }
    if (!demo::write_line(out, reply)) break;
  }
  // The demo has gone: detach as a well-behaved process would.
  fprintf(stderr, "tarn-demo-watchdog: the demo went away, leaving\n");
  proc_heartbeat_deinit(false);
  return 3;
}
