// An outside program: uses the public API through the umbrella header only.
#include <Kesto/EventKesto.h>

#include <cstdio>

int main() {
  Kesto::Debuggable debug(Kesto::String("Consumer"), false);
  KESTO_TRACE(debug, 3, "", "hello from outside {}", 42);
  KESTO_TRACE(debug, 4, "", "level 4 is off and never printed");
  Kesto::String name = Kesto::String::dedup("a name long enough to be interned");
  std::printf("consumer %s\n", name.isDedup() ? "ok" : "broken");
  return 0;
}
