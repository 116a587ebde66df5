#include "local_user.h"

#include <grp.h>
#include <unistd.h>

#include "child_process.h"

namespace tarn_test {

pid_t start_as_local_user(const std::function<int()> &body) {
  return fork_child([&] {
    if (setgroups(0, nullptr) != 0 || setgid(kLocalGroup) != 0 || setuid(kLocalUser) != 0) {
      return kCannotBecomeLocalUser;
    }
    return body();
  });
}

int as_local_user(const std::function<int()> &body) {
  const pid_t pid = start_as_local_user(body);
  return pid > 0 ? reap(pid) : -1;
}

}  // namespace tarn_test
