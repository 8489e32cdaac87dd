#include <Kesto/EventKesto.h>

#include <cstdio>

int main() {
  std::printf("libEventKesto %s\n", Kesto::eventKestoVersion());
  return 0;
}
