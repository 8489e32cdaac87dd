// The umask at 0 for the life of a scope, so that files and directories made
// inside get exactly the mode asked for. The umask is the process's: other
// threads see 0 meanwhile, which is why the scope is kept to the one call
// that creates.
#pragma once

#include <sys/stat.h>

namespace Kesto::Util {

class UmaskScope {
public:
  UmaskScope() noexcept : saved_(::umask(0)) {}
  ~UmaskScope() { ::umask(saved_); }
  UmaskScope(const UmaskScope&) = delete;
  UmaskScope& operator=(const UmaskScope&) = delete;

private:
  mode_t saved_;
};

} // namespace Kesto::Util
