// A task that schedules itself again at every run while a shared budget of
// runs lasts: the chain of passes that the dispatch benchmarks measure.
// Several tasks may share one budget; the chain ends when it reaches 0.
#pragma once

#include <Kesto/Scheduler/Task.h>

namespace KestoSupport {

class ChainTask : public Kesto::Task {
public:
  ChainTask(Kesto::Ptr<Kesto::TaskScheduler> s, Kesto::TaskPriority p, const Kesto::String& name,
            Kesto::U64* left)
      : Task(std::move(s), p, name), left_(left) {}
  void taskExecute() override {
    if (*left_ != 0) {
      --*left_;
      scheduleTask();
    }
  }
  static void operator delete(void* p) { ::operator delete(p); }

private:
  Kesto::U64* left_;
};

} // namespace KestoSupport
