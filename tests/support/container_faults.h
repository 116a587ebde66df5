// Injected failures of the base library's containers, by link-time
// interposition: a test program that links container_faults.cpp defines
// tarn_xhash_create, tarn_xhash_insert, tarn_vector_create and
// tarn_vector_push_back itself. Each call is passed on to the base library
// and counted, unless a failure was armed for it: that call fails as the
// operation does when memory runs out inside it (null, or ENOMEM; errno
// ENOMEM), which the allocation faults of fakes.h cannot cause since the
// containers allocate inside libtarnbase.so.
//
// The state is per process; a forked child starts with its parent's.
#ifndef TARN_TEST_CONTAINER_FAULTS_H
#define TARN_TEST_CONTAINER_FAULTS_H

namespace tarn_test {

enum class ContainerOp { kXhashCreate, kXhashInsert, kVectorCreate, kVectorPushBack };

// The calls of the operation since the last clear_container_faults.
unsigned container_calls(ContainerOp operation);
// Lets the next `succeeding` calls of the operation through and makes the
// one after fail, once. One failure can be armed per operation.
void fail_container_after(ContainerOp operation, unsigned succeeding);
// Disarms every failure and restarts the counts.
void clear_container_faults();

}  // namespace tarn_test

#endif
