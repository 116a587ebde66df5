// The local attacker: a forked child that gives up root for the
// unprivileged user 65534 (nobody, group nogroup, no supplementary groups)
// before it runs its body, as an ordinary user logged in beside the agent.
//
// Nothing here calls the base library, so every test program can link it.
#ifndef TARN_TEST_LOCAL_USER_H
#define TARN_TEST_LOCAL_USER_H

#include <sys/types.h>

#include <functional>
#include <string>

namespace tarn_test {

constexpr uid_t kLocalUser = 65534;
constexpr gid_t kLocalGroup = 65534;

// What as_local_user returns when the child could not become the user.
constexpr int kCannotBecomeLocalUser = 125;

// Forks a child that becomes the local user and returns body's result as its
// exit status; returns reap()'s answer (child_process.h).
int as_local_user(const std::function<int()> &body);

// Starts the same child without waiting for it: its pid, or -1.
pid_t start_as_local_user(const std::function<int()> &body);

// as_local_user for another user: uid and gid, no supplementary group.
int as_user(uid_t uid, gid_t gid, const std::function<int()> &body);

// The configuration text that names group as the agent group.
std::string agent_group_config(const std::string &group);

// Forks a child that runs body under a configuration naming group as the
// agent group (BaseConfigFile, files.h, removed again before this returns);
// returns reap()'s answer, or kCannotBecomeLocalUser when the file could
// not be written.
int with_agent_group(const std::string &group, const std::function<int()> &body);

}  // namespace tarn_test

#endif
