#include "local_user.h"

#include <grp.h>
#include <unistd.h>

#include "child_process.h"
#include "files.h"

namespace tarn_test {

namespace {

pid_t start_as(uid_t uid, gid_t gid, const std::function<int()> &body) {
  return fork_child([&] {
    if (setgroups(0, nullptr) != 0 || setgid(gid) != 0 || setuid(uid) != 0) return kCannotBecomeLocalUser;
    return body();
  });
}

}  // namespace

pid_t start_as_local_user(const std::function<int()> &body) { return start_as(kLocalUser, kLocalGroup, body); }

int as_user(uid_t uid, gid_t gid, const std::function<int()> &body) {
  const pid_t pid = start_as(uid, gid, body);
  return pid > 0 ? reap(pid) : -1;
}

int as_local_user(const std::function<int()> &body) { return as_user(kLocalUser, kLocalGroup, body); }

std::string agent_group_config(const std::string &group) { return "[security]\nagent_group = " + group + "\n"; }

int with_agent_group(const std::string &group, const std::function<int()> &body) {
  const BaseConfigFile config(agent_group_config(group));
  if (!config.ok()) return kCannotBecomeLocalUser;
  const pid_t pid = fork_child(body);
  return pid > 0 ? reap(pid) : -1;
}

}  // namespace tarn_test
