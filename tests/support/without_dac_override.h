// Dropping the capabilities that let root ignore permission bits, for the
// lifetime of an object, so that a read-only directory stops the process
// as it stops an unprivileged one. Programs that it starts get them back
// (root's capabilities are worked out again at exec).
#ifndef TARN_TEST_WITHOUT_DAC_OVERRIDE_H
#define TARN_TEST_WITHOUT_DAC_OVERRIDE_H

#include <linux/capability.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace tarn_test {

class WithoutDacOverride {
 public:
  WithoutDacOverride() {
    header_.version = _LINUX_CAPABILITY_VERSION_3;
    header_.pid = 0;
    ok_ = syscall(SYS_capget, &header_, saved_) == 0;
    __user_cap_data_struct lowered[2];
    memcpy(lowered, saved_, sizeof(lowered));
    lowered[0].effective &= ~((1u << CAP_DAC_OVERRIDE) | (1u << CAP_DAC_READ_SEARCH));
    ok_ = ok_ && syscall(SYS_capset, &header_, lowered) == 0;
  }
  ~WithoutDacOverride() { syscall(SYS_capset, &header_, saved_); }
  WithoutDacOverride(const WithoutDacOverride &) = delete;
  WithoutDacOverride &operator=(const WithoutDacOverride &) = delete;
  bool ok() const { return ok_; }

 private:
  __user_cap_header_struct header_{};
  __user_cap_data_struct saved_[2] = {};
  bool ok_ = false;
};

}  // namespace tarn_test

#endif
