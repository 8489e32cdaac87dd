// kesto: looks inside running agents of libEventKesto through their
// endpoints. `kesto --help` lists the commands; Commands.h runs them.
#include "Commands.h"

#include <string>
#include <vector>

int main(int argc, char** argv) {
  return Kesto::Cmd::runKesto(std::vector<std::string>(argv + 1, argv + argc));
}
