// Objects in /dev/shm as tests arrange and inspect them: one planted as
// another user would have made it before the agent, and a one-line
// description of what stands at a path.
//
// Nothing here calls the base library, so every test program can link it.
#ifndef TARN_TEST_SHM_OBJECTS_H
#define TARN_TEST_SHM_OBJECTS_H

#include <sys/types.h>

#include <string>

namespace tarn_test {

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


}  // namespace tarn_test

#endif
