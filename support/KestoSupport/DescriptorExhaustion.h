// Running out of descriptors on purpose, for the tests that check what the
// library does with none left. Meant for a forked child: the limit stays
// lowered for the rest of the process unless liftDescriptorLimit() is
// called.
#pragma once

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

namespace KestoTest {

// Whether a test may run with every descriptor in use. The sanitizers'
// runtime needs descriptors of its own: before it reports on memory it tests
// that the memory is readable through a pipe, and with no descriptor left
// that test fails and it reports an error where there is none. Such tests run
// in the plain build.
#ifdef KESTO_SANITIZED
constexpr bool descriptorExhaustionIsTestable = false;
#else
constexpr bool descriptorExhaustionIsTestable = true;
#endif
constexpr const char* descriptorExhaustionSkipReason =
    "the sanitizers' runtime needs descriptors of its own to check memory";

// The open descriptors of the process, found by asking each number: listing
// /proc/self/fd would itself need a descriptor, and there may be none left.
inline int descriptorCount() {
  int count = 0;
  for (int fd = 0; fd < 4096; ++fd)
    count += ::fcntl(fd, F_GETFD) != -1;
  return count;
}

// Lowers the soft RLIMIT_NOFILE to `limit` and takes every free slot below
// it with /dev/null, so that the next open fails with EMFILE. True when it
// does. The fillers stay open for as long as the test wants the process
// full.
inline bool exhaustDescriptorsAt(unsigned limit, std::vector<int>& fillers) {
  rlimit current{};
  ::getrlimit(RLIMIT_NOFILE, &current);
  current.rlim_cur = limit;
  if (::setrlimit(RLIMIT_NOFILE, &current) != 0)
    return false;
  for (int fd; (fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;)
    fillers.push_back(fd);
  return errno == EMFILE;
}

// True while the process is still full: an open fails with EMFILE.
inline bool stillOutOfDescriptors() {
  const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (fd >= 0) {
    ::close(fd);
    return false;
  }
  return errno == EMFILE;
}

inline void liftDescriptorLimit() {
  rlimit current{};
  ::getrlimit(RLIMIT_NOFILE, &current);
  current.rlim_cur = current.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &current);
}

} // namespace KestoTest
