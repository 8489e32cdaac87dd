// Named network namespaces for tests, made the way `ip netns add` makes
// them: a file under /run/netns on which a namespace is bind-mounted. Each
// object removes its name (unmount, unlink) when it goes, also when the test
// fails, and the namespace goes with its last user.
//
// Making one needs CAP_SYS_ADMIN; netnsPrivilegeMissing() says why a
// process cannot, and the tests skip with that reason.
#pragma once

#include <KestoNetns/Netns.h>
#include <KestoSupport/Capabilities.h>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <thread>

namespace KestoTest {

// The inode of the namespace a path stands for (a /proc/.../ns/net link or
// a name under /run/netns), or 0.
inline ino_t nsInode(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

inline ino_t threadNetNsInode() { return nsInode("/proc/thread-self/ns/net"); }

// "" if this process may make and name network namespaces, else why not.
inline std::string netnsPrivilegeMissing() {
  if (!hasEffectiveCapability(capSysAdmin))
    return "making network namespaces needs CAP_SYS_ADMIN, which this process lacks";
  if (::mkdir(NETNS_RUN_DIR, 0755) != 0 && errno != EEXIST)
    return fmt::format("cannot create {}: {}", NETNS_RUN_DIR, std::strerror(errno));
  return "";
}

// Serialises the changes to /run/netns of concurrent test processes. The
// first `ip netns add` of a system bind-mounts the directory on itself; a
// name being mounted by another test at that moment would be copied into
// the new mount and could no longer be removed. iproute2's ip takes the
// same lock, an exclusive flock() of the directory, for its changes (so it
// must not be held around a run of ip); the bind mount keeps the inode.
class NetnsDirLock {
public:
  NetnsDirLock() : fd_(::open(NETNS_RUN_DIR, O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    if (fd_ >= 0)
      ::flock(fd_, LOCK_EX);
  }
  ~NetnsDirLock() {
    if (fd_ >= 0)
      ::close(fd_);
  }
  NetnsDirLock(const NetnsDirLock&) = delete;
  NetnsDirLock& operator=(const NetnsDirLock&) = delete;

private:
  int fd_;
};

// Skips the test, with the reason, where namespaces cannot be made.
#define SKIP_WITHOUT_NETNS_PRIVILEGE()                                                                      \
  do {                                                                                                      \
    const std::string missing = KestoTest::netnsPrivilegeMissing();                                         \
    if (!missing.empty())                                                                                   \
      GTEST_SKIP() << missing;                                                                              \
  } while (0)

// A name no other test process uses.
inline std::string uniqueNetnsName(const char* what) {
  static std::atomic<int> counter{0};
  return fmt::format("kesto-test-{}-{}-{}", what, ::getpid(), counter++);
}

class NamedNetns {
public:
  // A new, empty network namespace under `name`; null (and a test failure)
  // if it cannot be made.
  static std::unique_ptr<NamedNetns> create(const std::string& name) { return make(name, true); }

  // The calling thread's present network namespace, named `name` too (as
  // `ip netns attach` does).
  static std::unique_ptr<NamedNetns> attachCurrent(const std::string& name) { return make(name, false); }

  ~NamedNetns() {
    NetnsDirLock lock;
    ::umount2(path_.c_str(), MNT_DETACH);
    ::unlink(path_.c_str());
  }
  NamedNetns(const NamedNetns&) = delete;
  NamedNetns& operator=(const NamedNetns&) = delete;

  const std::string& name() const { return name_; }
  const std::string& path() const { return path_; }
  ino_t inode() const { return inode_; }

private:
  explicit NamedNetns(const std::string& name) : name_(name), path_(std::string(NETNS_RUN_DIR) + "/" + name) {}

  static std::unique_ptr<NamedNetns> make(const std::string& name, bool fresh) {
    NetnsDirLock lock;
    std::unique_ptr<NamedNetns> ns(new NamedNetns(name));
    std::string error;
    const auto bind = [&] {
      if (fresh && ::unshare(CLONE_NEWNET) != 0) {
        error = fmt::format("unshare: {}", std::strerror(errno));
        return;
      }
      const int fd = ::open(ns->path_.c_str(), O_RDONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0444);
      if (fd < 0) {
        error = fmt::format("create {}: {}", ns->path_, std::strerror(errno));
        return;
      }
      ::close(fd);
      if (::mount("/proc/thread-self/ns/net", ns->path_.c_str(), "none", MS_BIND, nullptr) != 0)
        error = fmt::format("bind mount on {}: {}", ns->path_, std::strerror(errno));
    };
    if (fresh)
      std::thread(bind).join(); // the new namespace outlives the thread by its mount
    else
      bind();
    ns->inode_ = nsInode(ns->path_);
    if (!error.empty() || ns->inode_ == 0) {
      ADD_FAILURE() << "cannot name network namespace " << name << ": " << error;
      return nullptr;
    }
    return ns;
  }

  std::string name_;
  std::string path_;
  ino_t inode_ = 0;
};

// Points DEFAULT_NS at another name for the life of the object.
class DefaultNsScope {
public:
  explicit DefaultNsScope(std::string name) : name_(std::move(name)), saved_(DEFAULT_NS) { DEFAULT_NS = name_.c_str(); }
  ~DefaultNsScope() { DEFAULT_NS = saved_; }
  DefaultNsScope(const DefaultNsScope&) = delete;
  DefaultNsScope& operator=(const DefaultNsScope&) = delete;

private:
  std::string name_;
  const char* saved_;
};

} // namespace KestoTest
