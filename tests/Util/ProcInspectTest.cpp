// Process inspection against the real /proc: forked children that hold a
// known name, command line, unix socket or lock, children that are gone,
// and children that exit while a walk reads /proc. Every child waits on a
// pipe, so the parent knows when it is ready and decides when it ends.
#include "ProcSeamScope.h"
#include "UtilTestSupport.h"

#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <typeinfo>
#include <vector>

using namespace KestoTest;
namespace Util = Kesto::Util;
using Kesto::String;
using Kesto::U32;

namespace {

using Lines = std::vector<std::string>;

std::string line(unsigned level, const char* function, const std::string& text) {
  return utilLine("UtilTest", level, function, text);
}

bool contains(const Lines& lines, const std::string& wanted) {
  return std::find(lines.begin(), lines.end(), wanted) != lines.end();
}

// A forked child that runs `setup`, tells the parent it is ready, and then
// waits until the parent ends it (or exits at once when `setup` fails).
class Child {
public:
  template <typename Setup>
  explicit Child(Setup&& setup) {
    int ready[2];
    int hold[2];
    if (::pipe(ready) != 0 || ::pipe(hold) != 0)
      ADD_FAILURE() << "pipe failed";
    std::fflush(nullptr);
    pid_ = ::fork();
    if (pid_ == 0) {
      ::alarm(60);
      ::close(ready[0]);
      ::close(hold[1]);
      const char ok = setup() ? 'y' : 'n';
      if (::write(ready[1], &ok, 1) != 1)
        ::_exit(2);
      char byte;
      while (::read(hold[0], &byte, 1) > 0) {
      }
      ::_exit(0);
    }
    ::close(ready[1]);
    ::close(hold[0]);
    hold_ = hold[1];
    char ok = 'n';
    ready_ = ::read(ready[0], &ok, 1) == 1 && ok == 'y';
    ::close(ready[0]);
  }
  ~Child() { end(); }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t pid() const { return pid_; }
  bool ready() const { return ready_; }
  // Lets the child exit, without waiting for it.
  void release() {
    if (hold_ >= 0)
      ::close(hold_);
    hold_ = -1;
  }
  // Lets the child exit and reaps it: its pid is then gone from /proc.
  void end() {
    release();
    if (pid_ > 0) {
      int status;
      ::waitpid(pid_, &status, 0);
      pid_ = -1;
    }
  }

private:
  pid_t pid_ = -1;
  int hold_ = -1;
  bool ready_ = false;
};

// The pid of a process that has certainly gone: a child, reaped.
pid_t deadPid() {
  Child child([] { return true; });
  const pid_t pid = child.pid();
  child.end();
  return pid;
}

// A unix socket bound to `name`; abstract when `abstract` (the name then
// has a NUL in front and no file).
int boundSocket(const std::string& name, bool abstract) {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::size_t offset = abstract ? 1 : 0;
  std::memcpy(address.sun_path + offset, name.data(), name.size());
  const socklen_t length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + offset + name.size());
  if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), length) != 0 || ::listen(fd, 1) != 0) {
    if (fd >= 0)
      ::close(fd);
    return -1;
  }
  return fd;
}

// A name that no other run of the tests uses at the same time.
std::string uniqueName(const char* what) {
  static int counter = 0;
  return fmt::format("kesto-proc-{}-{}-{}", what, ::getpid(), ++counter);
}

std::string realPath(const std::string& path) {
  char buffer[PATH_MAX];
  return ::realpath(path.c_str(), buffer) ? std::string(buffer) : path;
}

class ProcInspect : public ::testing::Test {
protected:
  void SetUp() override { descriptors = openDescriptorCount(); }
  // Every scan closes what it opened.
  void TearDown() override { EXPECT_EQ(descriptors, openDescriptorCount()); }

  ScratchDir dir;
  Kesto::Ptr<Kesto::Platform::DebugHandler> handler = testHandler();
  int descriptors = 0;
};

} // namespace

// --- readProcTitle ------------------------------------------------------------------------------

TEST_F(ProcInspect, TitleIsTheKernelNameOfTheProcess) {
  Child child([] { return ::prctl(PR_SET_NAME, "kesto child", 0, 0, 0) == 0; });
  ASSERT_TRUE(child.ready());
  TraceCapture trace({1, 5}, *handler);
  EXPECT_EQ("kesto child", Util::readProcTitle(*handler, child.pid(), false));
  EXPECT_EQ((Lines{line(5, "readProcTitle", "success - title:kesto child")}), trace.lines());
}

TEST_F(ProcInspect, TitleOfPidZeroIsTheCallersOwn) {
  const std::string comm = readFile("/proc/self/comm");
  ASSERT_FALSE(comm.empty());
  EXPECT_EQ(comm.substr(0, comm.size() - 1), Util::readProcTitle(*handler, 0, true));
  EXPECT_EQ(comm.substr(0, comm.size() - 1), Util::readProcTitle(0, true));
}

TEST_F(ProcInspect, TitleOfDeadProcessIsEmptyAndTracedAtLevelFiveWhenQuiet) {
  const pid_t pid = deadPid();
  const std::string text = fmt::format("error - Couldn't access status file:/proc/{}/status stream state:4", pid);
  {
    TraceCapture trace({1, 5}, *handler);
    EXPECT_EQ("", Util::readProcTitle(*handler, pid, true));
    EXPECT_EQ((Lines{line(5, "readProcTitle", text)}), trace.lines());
  }
  {
    TraceCapture trace({1, 5}, *handler);
    EXPECT_EQ("", Util::readProcTitle(*handler, pid, false));
    EXPECT_EQ((Lines{line(1, "readProcTitle", text)}), trace.lines());
  }
}

// --- readProcStartTime --------------------------------------------------------------------------

TEST_F(ProcInspect, StartTimeIsFieldTwentyTwoOfStat) {
  Child child([] { return true; });
  ASSERT_TRUE(child.ready());
  const std::string own = std::string(Util::readProcStartTime(*handler, 0).view());
  const std::string childs = std::string(Util::readProcStartTime(*handler, child.pid()).view());
  ASSERT_FALSE(own.empty());
  ASSERT_FALSE(childs.empty());
  EXPECT_EQ(std::string::npos, own.find_first_not_of("0123456789"));
  EXPECT_EQ(std::string::npos, childs.find_first_not_of("0123456789"));
  // The child started after this process; the default form reads the same.
  EXPECT_LE(std::stoull(own), std::stoull(childs));
  EXPECT_EQ(own, std::string(Util::readProcStartTime(0).view()));
  // Field 22 counted in the plain way, which holds for a name without blanks.
  std::istringstream stat(readFile(fmt::format("/proc/{}/stat", child.pid())));
  std::string field;
  for (int i = 0; i < 22; ++i)
    stat >> field;
  EXPECT_EQ(field, childs);
}

TEST_F(ProcInspect, StartTimeSurvivesParenthesesAndBlanksInTheName) {
  Child child([] { return ::prctl(PR_SET_NAME, "a) b (c", 0, 0, 0) == 0; });
  ASSERT_TRUE(child.ready());
  ASSERT_EQ("a) b (c", Util::readProcTitle(*handler, child.pid(), false));
  // Knowing the name, the fields behind it can be counted without a search.
  const std::string stat = readFile(fmt::format("/proc/{}/stat", child.pid()));
  const std::string prefix = fmt::format("{} (a) b (c) ", child.pid());
  ASSERT_EQ(0u, stat.find(prefix)) << stat;
  std::istringstream fields(stat.substr(prefix.size()));
  std::string startTime;
  for (int i = 0; i < 20; ++i)
    fields >> startTime;
  TraceCapture trace({1, 5}, *handler);
  const String found = Util::readProcStartTime(*handler, child.pid());
  EXPECT_EQ(startTime, found);
  EXPECT_EQ((Lines{line(5, "readProcStartTime",
                        fmt::format("success - pid:{} start time:{}", child.pid(), startTime))}),
            trace.lines());
}

TEST_F(ProcInspect, StartTimeOfDeadProcessIsEmptyAndTracedAtLevelFive) {
  const pid_t pid = deadPid();
  TraceCapture trace({1, 5}, *handler);
  EXPECT_EQ("", Util::readProcStartTime(*handler, pid));
  EXPECT_EQ((Lines{line(5, "readProcStartTime",
                        fmt::format("error - Couldn't access stat file:/proc/{}/stat stream state:4", pid))}),
            trace.lines());
}

// --- readPidCmdline -----------------------------------------------------------------------------

TEST_F(ProcInspect, CmdlineIsTheFirstArgumentOnly) {
  // The child executes a shell under the name "a", with more arguments;
  // the close-on-exec pipe reports the exec, the shell waits on its input.
  int execd[2];
  ASSERT_EQ(0, ::pipe2(execd, O_CLOEXEC));
  int input[2];
  ASSERT_EQ(0, ::pipe(input));
  std::fflush(nullptr);
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::close(execd[0]);
    ::close(input[1]);
    ::dup2(input[0], 0);
    ::execl("/bin/sh", "a", "-c", "read line", static_cast<char*>(nullptr));
    ::_exit(127);
  }
  ::close(execd[1]);
  ::close(input[0]);
  char byte;
  ASSERT_EQ(0, ::read(execd[0], &byte, 1));
  ::close(execd[0]);
  EXPECT_EQ("a", Util::readPidCmdline(*handler, pid));
  EXPECT_EQ("a", std::string(readFile(fmt::format("/proc/{}/cmdline", pid)).c_str()));
  ::close(input[1]);
  int status;
  ::waitpid(pid, &status, 0);
  EXPECT_TRUE(exitedWith(status, 0) || exitedWith(status, 1)) << status;
}

TEST_F(ProcInspect, CmdlineOfKernelThreadIsEmpty) {
  // kthreadd, pid 2, is a kernel thread wherever the kernel's pids are seen.
  if (Util::readProcTitle(*handler, 2, true) != "kthreadd")
    GTEST_SKIP() << "no kernel thread is visible in this pid namespace";
  EXPECT_EQ("", Util::readPidCmdline(*handler, 2));
}

TEST_F(ProcInspect, CmdlineOfZombieAndOfMissingProcessIsEmpty) {
  Child child([] { return true; });
  ASSERT_TRUE(child.ready());
  ASSERT_NE("", Util::readPidCmdline(*handler, child.pid()));
  // Exited, not yet reaped: a zombie has no command line left.
  child.release();
  siginfo_t info{};
  ASSERT_EQ(0, ::waitid(P_PID, static_cast<id_t>(child.pid()), &info, WEXITED | WNOWAIT));
  EXPECT_EQ("", Util::readPidCmdline(*handler, child.pid()));
  const pid_t pid = child.pid();
  child.end();
  EXPECT_EQ("", Util::readPidCmdline(*handler, pid));
}

// --- readSocketPid ------------------------------------------------------------------------------

TEST_F(ProcInspect, SocketPidFindsTheChildHoldingAnAbstractSocket) {
  const std::string name = uniqueName("abstract");
  Child child([&] { return boundSocket(name, true) >= 0; });
  ASSERT_TRUE(child.ready());
  TraceCapture trace({1, 5}, *handler);
  EXPECT_EQ(static_cast<U32>(child.pid()), Util::readSocketPid(*handler, name));
  const Lines lines = trace.lines();
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(line(5, "readSocketPid", "searching for socket name:" + name), lines.front());
  EXPECT_EQ(line(5, "readProcFd", fmt::format("found owner pid:{}", child.pid())), lines.back());
}

TEST_F(ProcInspect, SocketPidFindsTheChildHoldingASocketFile) {
  const std::string path = dir / uniqueName("file");
  Child child([&] { return boundSocket(path, false) >= 0; });
  ASSERT_TRUE(child.ready());
  EXPECT_EQ(static_cast<U32>(child.pid()), Util::readSocketPid(*handler, path));
}

TEST_F(ProcInspect, SocketPidFindsTheCallingProcess) {
  const std::string name = uniqueName("own");
  const int fd = boundSocket(name, true);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(static_cast<U32>(::getpid()), Util::readSocketPid(*handler, name));
  ::close(fd);
}

TEST_F(ProcInspect, SocketPidOfUnknownNameIsZero) {
  const std::string name = uniqueName("nowhere");
  TraceCapture trace({1, 5}, *handler);
  EXPECT_EQ(0u, Util::readSocketPid(*handler, name));
  EXPECT_EQ((Lines{line(5, "readSocketPid", "searching for socket name:" + name),
                   line(5, "readSocketPid", "unable to find inode")}),
            trace.lines());
}

TEST_F(ProcInspect, SocketPidOfSocketWhoseHolderExitedIsZero) {
  const std::string name = uniqueName("gone");
  Child child([&] { return boundSocket(name, true) >= 0; });
  ASSERT_TRUE(child.ready());
  ASSERT_EQ(static_cast<U32>(child.pid()), Util::readSocketPid(*handler, name));
  child.end();
  EXPECT_EQ(0u, Util::readSocketPid(*handler, name));
}

TEST_F(ProcInspect, WalksCopeWithChildrenThatExitDuringTheScan) {
  const std::string name = uniqueName("survivor");
  const std::string lockDir = dir / "run";
  Child holder([&] {
    // Kept locked until the child exits.
    auto* lock = new Kesto::FileLock(*testHandler(), lockDir.c_str(), "walk.lock");
    return boundSocket(name, true) >= 0 && lock->lock(false);
  });
  ASSERT_TRUE(holder.ready());
  const std::string lockFile = realPath(lockDir + "/walk.lock");
  for (int round = 0; round < 20; ++round) {
    // Children with descriptors of their own, let go just before the walks
    // start and reaped after them: each is read alive, as a zombie, or not
    // at all, and its entries vanish between the listing and the reading.
    std::vector<std::unique_ptr<Child>> transient;
    for (int i = 0; i < 8; ++i) {
      transient.push_back(std::make_unique<Child>([&] { return boundSocket(uniqueName("transient"), true) >= 0; }));
      ASSERT_TRUE(transient.back()->ready());
    }
    for (auto& child : transient)
      child->release();
    EXPECT_EQ(static_cast<U32>(holder.pid()), Util::readSocketPid(*handler, name));
    EXPECT_EQ(static_cast<U32>(holder.pid()), Util::readLockPid(*handler, lockFile));
    transient.clear();
  }
}

// --- processes that vanish at a known point of a walk ------------------------------------------------

// The race above lets children exit while the walks read /proc, but where
// each one vanishes is luck. Here it is forced: two children share one
// descriptor (inherited from this process, which then closes its own), and
// the walk's hook kills and reaps whichever of them the walk meets first,
// at the point given. The walk must pass over the one that vanished, with
// the trace of that point, and find the other, whatever their order in
// /proc.
class VanishingSharer {
public:
  VanishingSharer(ProcSeamScope& seam, Kesto::Util::ProcWalkPoint point, int sharedFd)
      : a_([] { return true; }), b_([] { return true; }) {
    EXPECT_TRUE(a_.ready());
    EXPECT_TRUE(b_.ready());
    ::close(sharedFd);
    seam.hookIs([this, point](Kesto::Util::ProcWalkPoint at, const char* entry) {
      const pid_t pid = static_cast<pid_t>(std::strtol(entry, nullptr, 10));
      if (at != point || victim_ != 0 || (pid != a_.pid() && pid != b_.pid()))
        return;
      ::kill(pid, SIGKILL);
      int status;
      ::waitpid(pid, &status, 0);
      victim_ = pid;
    });
  }

  pid_t victim() const { return victim_; }
  pid_t survivor() const { return victim_ == a_.pid() ? b_.pid() : victim_ == b_.pid() ? a_.pid() : 0; }

private:
  Child a_;
  Child b_;
  pid_t victim_ = 0;
};

// An open-file-description lock on `path`, or -1.
int lockedDescriptor(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDWR | O_CREAT, 0600);
  struct flock whole {};
  whole.l_type = F_WRLCK;
  if (fd >= 0 && ::fcntl(fd, F_OFD_SETLK, &whole) == 0)
    return fd;
  if (fd >= 0)
    ::close(fd);
  return -1;
}

TEST_F(ProcInspect, SocketPidPassesOverAProcessGoneBetweenListingAndOpeningItsDescriptors) {
  const std::string name = uniqueName("vanish-listed");
  const int fd = boundSocket(name, true);
  ASSERT_GE(fd, 0);
  ProcSeamScope seam;
  VanishingSharer sharer(seam, Kesto::Util::ProcWalkPoint::processListed, fd);
  TraceCapture trace({1, 5, 9}, *handler);
  const U32 found = Util::readSocketPid(*handler, name);
  ASSERT_NE(0, sharer.victim());
  EXPECT_EQ(static_cast<U32>(sharer.survivor()), found);
  // Listed, then not there to open: the open's level 9 trace, and not one
  // of its descriptors read.
  EXPECT_EQ((Lines{fmt::format("UtilTest 9 DirNode::openDir() failed to open /proc/{}/fd errno: 2", sharer.victim())}),
            trace.linesWith(fmt::format("failed to open /proc/{}/fd", sharer.victim())));
  EXPECT_EQ(0u, trace.linesWith(fmt::format("/proc/{}/fd/", sharer.victim())).size()) << trace.text();
}

// Each "reading entry" of the victim's descriptors in `lines` followed at
// once by the stat failure `failure(path)`; the number of such pairs.
template <typename Failure>
int statFailuresAfterReading(const Lines& lines, pid_t victim, Failure&& failure) {
  const std::string prefix = fmt::format("/proc/{}/fd/", victim);
  int pairs = 0;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    const std::size_t at = lines[i].find("reading entry " + prefix);
    if (at == std::string::npos)
      continue;
    const std::string path = lines[i].substr(at + std::strlen("reading entry "));
    EXPECT_LT(i + 1, lines.size());
    if (i + 1 < lines.size() && lines[i + 1] == failure(path))
      ++pairs;
    else
      ADD_FAILURE() << "no stat failure after: " << lines[i];
  }
  return pairs;
}

TEST_F(ProcInspect, SocketPidPassesOverAProcessGoneBeforeItsDescriptorsAreStated) {
  const std::string name = uniqueName("vanish-fd");
  const int fd = boundSocket(name, true);
  ASSERT_GE(fd, 0);
  ProcSeamScope seam;
  VanishingSharer sharer(seam, Kesto::Util::ProcWalkPoint::descriptorListed, fd);
  TraceCapture trace({1, 9}, *handler);
  const U32 found = Util::readSocketPid(*handler, name);
  ASSERT_NE(0, sharer.victim());
  EXPECT_EQ(static_cast<U32>(sharer.survivor()), found);
  // The descriptors were listed in one read, and their links went with the
  // process: every stat fails, at level 1, and the walk goes on.
  EXPECT_LE(1, statFailuresAfterReading(trace.lines(), sharer.victim(), [](const std::string&) {
              return line(1, "next", "stat failed:No such file or directory");
            }));
}

TEST_F(ProcInspect, LockPidPassesOverAProcessGoneAfterItsDescriptorsWereOpened) {
  const std::string path = realPath(dir.path()) + "/vanish.lock";
  const int fd = lockedDescriptor(path);
  ASSERT_GE(fd, 0);
  ProcSeamScope seam;
  VanishingSharer sharer(seam, Kesto::Util::ProcWalkPoint::descriptorsOpened, fd);
  TraceCapture trace({0, 1, 5, 9}, *handler);
  const U32 found = Util::readLockPid(*handler, path);
  ASSERT_NE(0, sharer.victim());
  EXPECT_EQ(static_cast<U32>(sharer.survivor()), found);
  // Opened, then gone before the first read: the kernel fails the read
  // with ENOENT, which readdir gives as the end of the directory. One read,
  // no descriptor, nothing thrown.
  const std::string fds = fmt::format("/proc/{}/fd", sharer.victim());
  EXPECT_EQ(0u, trace.linesWith("failed to open " + fds).size()) << trace.text();
  EXPECT_EQ((Lines{"UtilTest 9 DirNode::readEntry() path: " + fds}),
            trace.linesWith("DirNode::readEntry() path: " + fds));
  EXPECT_EQ(0u, trace.linesWith(fds + "/").size()) << trace.text();
  EXPECT_EQ(0u, trace.linesWith("UtilTest 0 ").size()) << trace.text();
}

TEST_F(ProcInspect, LockPidPassesOverAProcessGoneBeforeItsDescriptorsAreStated) {
  const std::string path = realPath(dir.path()) + "/vanish.lock";
  const int fd = lockedDescriptor(path);
  ASSERT_GE(fd, 0);
  ProcSeamScope seam;
  VanishingSharer sharer(seam, Kesto::Util::ProcWalkPoint::descriptorListed, fd);
  TraceCapture trace({1, 9}, *handler);
  const U32 found = Util::readLockPid(*handler, path);
  ASSERT_NE(0, sharer.victim());
  EXPECT_EQ(static_cast<U32>(sharer.survivor()), found);
  // readLockPid names the descriptor in its stat failure.
  EXPECT_LE(1, statFailuresAfterReading(trace.lines(), sharer.victim(), [](const std::string& fdPath) {
              return line(1, "next", "stat " + fdPath + " failed:No such file or directory");
            }));
}

// --- readLockPid --------------------------------------------------------------------------------

TEST_F(ProcInspect, LockPidFindsTheChildHoldingTheFileLock) {
  const std::string lockDir = dir / "run";
  Child child([&] {
    // Kept locked until the child exits.
    auto* lock = new Kesto::FileLock(*testHandler(), lockDir.c_str(), "app.lock");
    return lock->lock(false);
  });
  ASSERT_TRUE(child.ready());
  const std::string lockFile = realPath(lockDir + "/app.lock");
  TraceCapture trace({1, 5}, *handler);
  EXPECT_EQ(static_cast<U32>(child.pid()), Util::readLockPid(*handler, lockFile));
  EXPECT_TRUE(contains(trace.lines(), line(5, "readLockPid", fmt::format("found owner pid:{}", child.pid()))));
  child.end();
  EXPECT_EQ(0u, Util::readLockPid(*handler, lockFile));
}

TEST_F(ProcInspect, LockPidFindsTheCallingProcess) {
  Kesto::FileLock lock(*handler, dir.path().c_str(), "own.lock");
  ASSERT_TRUE(lock.lock(false));
  EXPECT_EQ(static_cast<U32>(::getpid()), Util::readLockPid(*handler, realPath(dir / "own.lock")));
  lock.release();
  EXPECT_EQ(0u, Util::readLockPid(*handler, realPath(dir / "own.lock")));
}

TEST_F(ProcInspect, LockPidOfFileOpenWithoutLockIsZero) {
  const std::string path = realPath(dir.path()) + "/open.lock";
  writeFile(path, "");
  Child opener([&] { return ::open(path.c_str(), O_RDWR) >= 0; });
  ASSERT_TRUE(opener.ready());
  // Some other process must hold a lock, or the cheap filter by /proc/locks
  // may skip the opener before its descriptors are read.
  Kesto::FileLock other(*handler, dir.path().c_str(), "other.lock");
  ASSERT_TRUE(other.lock(false));
  {
    // With an open-file-description lock in /proc/locks every process is
    // read, so the opener's descriptor is seen, and let go.
    TraceCapture trace({1, 5}, *handler);
    EXPECT_EQ(0u, Util::readLockPid(*handler, path));
    EXPECT_TRUE(contains(trace.lines(),
                         line(5, "readLockPid",
                              fmt::format("pid:{} file:{} is open, but not locked associated with lock",
                                          opener.pid(), path))))
        << trace.text();
  }
  // The opener is told from a locker even when its number is in /proc/locks:
  // then it is read and reported as open but not locked.
  Child locker([&] {
    auto* lock = new Kesto::FileLock(*testHandler(), dir.path().c_str(), "open.lock");
    return lock->lock(false);
  });
  ASSERT_TRUE(locker.ready());
  EXPECT_EQ(static_cast<U32>(locker.pid()), Util::readLockPid(*handler, path));
  other.release();
}

TEST_F(ProcInspect, LockPidComparesTheWholePath) {
  Kesto::FileLock lock(*handler, dir.path().c_str(), "app.lock.long");
  ASSERT_TRUE(lock.lock(false));
  EXPECT_EQ(0u, Util::readLockPid(*handler, realPath(dir.path()) + "/app.lock"));
  EXPECT_EQ(static_cast<U32>(::getpid()), Util::readLockPid(*handler, realPath(dir / "app.lock.long")));
  lock.release();
}

// --- typenameFromVptr ---------------------------------------------------------------------------

namespace {
const void* vptrOf(const void* object) { return *static_cast<const void* const*>(object); }
} // namespace

// The object must come from a library: a type whose virtual table the test
// program itself emits has it in the executable, which cannot be loaded a
// second time. The standard library makes and throws this one.
template <typename Body>
void withLibraryObject(Body&& body) {
  try {
    (void)std::stoi("not a number");
    ADD_FAILURE() << "no exception";
  } catch (const std::exception& e) {
    body(vptrOf(&e));
  }
}

TEST_F(ProcInspect, TypenameOfOwnObjectFromItsVptr) {
  withLibraryObject([&](const void* vptr) {
    String error;
    const char* name = Util::typenameFromVptr(::getpid(), vptr, error);
    ASSERT_NE(nullptr, name) << error.view();
    EXPECT_STREQ("St16invalid_argument", name);
  });
}

TEST_F(ProcInspect, TypenameOfChildObjectFromItsVptr) {
  withLibraryObject([&](const void* vptr) {
    Child child([] { return true; });
    ASSERT_TRUE(child.ready());
    String error;
    const char* name = Util::typenameFromVptr(child.pid(), vptr, error);
    ASSERT_NE(nullptr, name) << error.view();
    EXPECT_STREQ("St16invalid_argument", name);
  });
}

TEST_F(ProcInspect, TypenameOfBadVptrIsNullWithTheReason) {
  String error;
  const void* nowhere = reinterpret_cast<const void*>(0x10);
  EXPECT_EQ(nullptr, Util::typenameFromVptr(::getpid(), nowhere, error));
  EXPECT_EQ(fmt::format("Could not find mapping for vptr:0x0000000000000010 otherPid:{}", ::getpid()), error);
  // A stack address is mapped, but no library is there.
  int onStack[4] = {};
  EXPECT_EQ(nullptr, Util::typenameFromVptr(::getpid(), &onStack[2], error));
  EXPECT_EQ(0u, error.view().find("Failed to open library for vptr:")) << error.view();
  EXPECT_EQ(nullptr, Util::typenameFromVptr(deadPid(), vptrOf(&error), error));
  EXPECT_EQ(0u, error.view().find("Could not find mapping for vptr:")) << error.view();
}

// --- includeShmemInCore and the MappingInfo text ------------------------------------------------

TEST_F(ProcInspect, IncludeShmemInCoreSetsBitThreeAndKeepsTheOthers) {
  const int status = statusOfChild([] {
    writeFile("/proc/self/coredump_filter", "0x31");
    if (std::stoul(readFile("/proc/self/coredump_filter"), nullptr, 16) != 0x31)
      return 2;
    Util::includeShmemInCore();
    if (std::stoul(readFile("/proc/self/coredump_filter"), nullptr, 16) != 0x39)
      return 3;
    Util::includeShmemInCore();
    return std::stoul(readFile("/proc/self/coredump_filter"), nullptr, 16) == 0x39 ? 0 : 4;
  });
  EXPECT_TRUE(exitedWith(status, 0)) << status;
}

TEST_F(ProcInspect, MappingInfoFormatsEveryField) {
  Kesto::MappingInfo m;
  m.start = 0x7f0000001000;
  m.end = 0x7f0000003000;
  m.perms = "r-xp";
  m.offset = 0x2000;
  m.major = 0x103;
  m.minor = 0x2;
  m.inode = 0x1234;
  m.path = "/usr/lib/libx.so";
  EXPECT_EQ("MappingInfo { start:0x7f0000001000 end:0x7f0000003000 perms:r-xp offset:0x2000 major:0x103 minor:0x2 "
            "inode:0x1234 path:/usr/lib/libx.so }",
            fmt::format("{}", m));
  EXPECT_EQ("MappingInfo { start:0x0 end:0x0 perms: offset:0x0 major:0x0 minor:0x0 inode:0x0 path: }",
            fmt::format("{}", Kesto::MappingInfo()));
}
