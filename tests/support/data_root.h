// The data root (the system log directory that tarn_log_dir reports, below
// which the agent keeps its backup trees), controlled by link-time
// interposition: a test program that links data_root.cpp defines
// tarn_log_dir itself. It answers with the real configuration until a test
// sets a data root of its own.
//
// The state is per process; a forked child starts with its parent's.
#ifndef TARN_TEST_DATA_ROOT_H
#define TARN_TEST_DATA_ROOT_H

#include <string>

namespace tarn_test {

// tarn_log_dir reports root from now on; an empty root means that there is
// none (tarn_log_dir returns 0).
void set_data_root(const std::string &root);
// Back to the real configuration.
void use_real_data_root();

}  // namespace tarn_test

#endif
