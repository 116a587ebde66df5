#include "local_user.h"

#include <grp.h>
#include <unistd.h>

#include "child_process.h"

namespace tarn_test {

namespace {

pid_t start_as(uid_t uid, gid_t gid, const std::function<int()> &body) {
  return fork_child([&] {
    if (setgroups(0, nullptr) != 0 || setgid(gid) != 0 || setuid(uid) != 0) {
      return kCannotBecomeLocalUser;
    }
    return body();
  });
}

}  // namespace

pid_t start_as_local_user(const std::function<int()> &body) {
  return start_as(kLocalUser, kLocalGroup, body);
}

int as_user(uid_t uid, gid_t gid, const std::function<int()> &body) {
  const pid_t pid = start_as(uid, gid, body);
  return pid > 0 ? reap(pid) : -1;
}

int as_local_user(const std::function<int()> &body) {
  return as_user(kLocalUser, kLocalGroup, body);
}

}  // namespace tarn_test
