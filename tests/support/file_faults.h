// Injected failures of the base library's file operations, by link-time
// interposition: a test program that links file_faults.cpp defines
// tarn_flock_init, tarn_flock_acquire, tarn_flock_release,
// tarn_flock_destroy, tarn_ini_file_save_directio,
// tarn_file_add_user_full_ctrl and tarn_file_copy itself. Each passes the
// call on to the base library unless a failure was armed for its path; a
// failure returns the armed error and sets errno to it.
//
// Every lock and save call is also written down, in order, as
// "<operation> <path>" (operation: init, acquire, release, destroy, save),
// so that tests can check which locks were taken, in which order, and what
// was saved while they were held.
//
// The state is per process; a forked child starts with its parent's.
#ifndef TARN_TEST_FILE_FAULTS_H
#define TARN_TEST_FILE_FAULTS_H

#include <functional>
#include <string>
#include <vector>

namespace tarn_test {

// Each arms a failure of every later call on path until clear_file_faults.
void fail_flock_init(const std::string &lock_path, int error);
void fail_flock_acquire(const std::string &lock_path, int error);
void fail_save(const std::string &path, int error);
void fail_grant(const std::string &path, int error);
void fail_copy(const std::string &destination, int error);
// Runs action once, just before the next copy to destination is passed on
// to the base library (to change the source between a check and the copy).
void before_copy(const std::string &destination, const std::function<void()> &action);

std::vector<std::string> file_events();
void clear_file_events();

// Disarms every failure and clears the events.
void clear_file_faults();

}  // namespace tarn_test

#endif
