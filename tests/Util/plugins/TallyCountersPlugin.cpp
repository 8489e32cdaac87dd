// libTallyCountersPlugin.so: a counters plugin for the tests. It keeps each
// counter in a word of its own, whatever storage the caller offers, and
// writes every call it gets on standard output, so that the loader's caller
// can tell which operation was reached through which slot.
#include <Kesto/Util/Counters.h>

#include <cstdio>
#include <map>
#include <string>

namespace {

class TallyCountersPlugin final : public Kesto::CountersPlugin {
public:
  const char* name() const override { return "TallyCountersPlugin"; }

  void counters(const char* name) override { std::printf("tally: counters %s\n", name); }

  unsigned long* counter(const char* name, unsigned long* storage) override {
    std::printf("tally: counter %s %s\n", name, storage ? "with storage" : "without storage");
    return &words_[name];
  }

private:
  std::map<std::string, unsigned long> words_;
};

TallyCountersPlugin plugin;

struct Registration {
  Registration() { Kesto::Platform::registerPlugin(&plugin); }
} registration;

} // namespace
