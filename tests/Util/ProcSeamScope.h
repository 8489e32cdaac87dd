// The tests' hold on the seam into the readers of /proc (Util/ProcSeam.h):
// for one scope, a root that stands for "/proc" and a hook called at the
// points of a walk over the processes; both are cleared when the scope
// ends, so the next test reads the real /proc. The variable the library
// looks for, kestoUtilProcSeam, is defined in FakeProcTest.cpp.
#pragma once

#include "Util/ProcSeam.h"

#include <functional>
#include <string>

namespace KestoTest {

class ProcSeamScope {
public:
  using Hook = std::function<void(Kesto::Util::ProcWalkPoint, const char* entry)>;

  ProcSeamScope() = default;
  ~ProcSeamScope() { kestoUtilProcSeam = Kesto::Util::ProcSeam{}; }
  ProcSeamScope(const ProcSeamScope&) = delete;
  ProcSeamScope& operator=(const ProcSeamScope&) = delete;

  void rootIs(const std::string& root) {
    root_ = root;
    kestoUtilProcSeam.procRoot = root_.c_str();
  }
  void hookIs(Hook hook) {
    hook_ = std::move(hook);
    kestoUtilProcSeam.onWalk = &call;
    kestoUtilProcSeam.context = this;
  }

private:
  static void call(Kesto::Util::ProcWalkPoint point, const char* entry, void* context) {
    static_cast<ProcSeamScope*>(context)->hook_(point, entry);
  }

  std::string root_;
  Hook hook_;
};

} // namespace KestoTest
