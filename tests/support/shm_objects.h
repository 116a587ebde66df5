// Objects in /dev/shm as tests arrange and inspect them: one planted as
// another user would have made it before the agent, a one-line description
// of what stands at a path, and a child that runs with an agent group
// configured.
//
// Nothing here calls the base library, so every test program can link it.
#ifndef TARN_TEST_SHM_OBJECTS_H
#define TARN_TEST_SHM_OBJECTS_H

#include <sys/types.h>

#include <functional>
#include <string>

namespace tarn_test {

// The base library's configuration file (TARN_LOG_CONFIG_PATH).
constexpr char kBaseConfigPath[] = "/etc/velmora/tarnbase.conf";

// Makes a new regular object at path holding content, owned by uid and
// gid, with exactly the permission bits mode. Whatever was at path is
// removed first. False, with errno set, when a step failed.
bool plant_object(const std::string &path, const std::string &content, uid_t uid, gid_t gid,
                  mode_t mode);

// What stands at path, not following a link: "missing", "link",
// "other kind", or "regular <uid>:<gid> <mode, 4 octal digits> <size>".
std::string describe_object(const std::string &path);

// The inode number at path (not following a link), or 0.
ino_t inode_of(const std::string &path);

// Forks a child that writes kBaseConfigPath with "[security]\nagent_group =
// <group>\n", so that its first call of the base library reads it, and
// runs body; returns reap()'s answer (child_process.h). The file is removed
// again before this returns.
int with_agent_group(const std::string &group, const std::function<int()> &body);

}  // namespace tarn_test

#endif
