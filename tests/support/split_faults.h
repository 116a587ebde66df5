// Injected failures of the base library's string splitter, by link-time
// interposition: a test program that links split_faults.cpp defines
// tarn_str_split itself. It passes each call on to the base library and
// counts it, unless a failure was armed for it: that call returns null with
// errno ENOMEM, as the splitter does when memory runs out inside it (its own
// allocations cannot be failed from outside the base library).
//
// The state is per process; a forked child starts with its parent's.
#ifndef TARN_TEST_SPLIT_FAULTS_H
#define TARN_TEST_SPLIT_FAULTS_H

namespace tarn_test {

// The calls of tarn_str_split since the last clear_split_faults.
unsigned split_calls();
// Lets the next `succeeding` calls through and makes the one after fail,
// once.
void fail_split_after(unsigned succeeding);
// Disarms the failure and restarts the count.
void clear_split_faults();

}  // namespace tarn_test

#endif
