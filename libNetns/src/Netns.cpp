#include <KestoNetns/Netns.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <limits.h>
#include <sched.h>
#include <unistd.h>

extern "C" {
const char NETNS_RUN_DIR[] = "/run/netns";
const char* DEFAULT_NS = "default";
}

namespace {

// One failure text per thread: a thread that failed to switch namespaces
// reads its own reason, whatever other threads do meanwhile.
thread_local char traceBuffer[512];

// Formats the failure text; errno is left as the failed call set it.
__attribute__((format(printf, 1, 2))) void fail(const char* format, ...) {
  const int saved = errno;
  va_list args;
  va_start(args, format);
  std::vsnprintf(traceBuffer, sizeof traceBuffer, format, args);
  va_end(args);
  errno = saved;
}

bool validName(const char* name) {
  if (!name || !*name || std::strchr(name, '/'))
    return false;
  if (!std::strcmp(name, ".") || !std::strcmp(name, ".."))
    return false;
  return std::strlen(name) <= NAME_MAX;
}

} // namespace

extern "C" int setnsByName(const char* name, int nstype) {
  char reason[128];
  if (!validName(name)) {
    errno = EINVAL;
    fail("invalid namespace name '%s'", name ? name : "(null)");
    return -1;
  }
  char path[sizeof NETNS_RUN_DIR + NAME_MAX + 1];
  std::snprintf(path, sizeof path, "%s/%s", NETNS_RUN_DIR, name);
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    fail("open(%s) failed: %s", path, strerror_r(errno, reason, sizeof reason));
    return -1;
  }
  if (setns(fd, nstype) != 0) {
    const int error = errno;
    fail("setns(%s, 0x%x) failed: %s", path, static_cast<unsigned>(nstype), strerror_r(error, reason, sizeof reason));
    close(fd);
    errno = error;
    return -1;
  }
  close(fd);
  return 0;
}

extern "C" const char* netnsGetTracebuffer(void) { return traceBuffer; }
