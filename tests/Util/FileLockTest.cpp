// FileLock: the lock between objects and processes, re-entry, and what a
// forked child may do with the descriptor it shares with its parent. Every
// other process here is a real forked child, which reports by its exit
// status.
#include "UtilTestSupport.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <sstream>
#include <memory>
#include <vector>

using namespace KestoTest;
using Kesto::FileLock;

namespace {

using Lines = std::vector<std::string>;

std::string line(unsigned level, const char* function, const std::string& text) {
  return "UtilTest " + std::to_string(level) + " FileLock::" + function + "() " + text;
}

// The descriptor that the next open() will get.
int nextDescriptor() {
  const int fd = ::dup(0);
  ::close(fd);
  return fd;
}

// The descriptor of this process that is open on `path`, or -1.
int descriptorOn(const std::string& path) {
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code error;
    if (std::filesystem::read_symlink(entry.path(), error) == path)
      return std::stoi(entry.path().filename().string());
  }
  return -1;
}

class FileLockTest : public ::testing::Test {
protected:
  // Whether a fresh object, in a fresh process, can take the lock on
  // `name` in the lock directory now. The child takes it and lets it go.
  bool freeForOthers(const std::string& name = "app.lock") {
    const int status = statusOfChild([&] {
      FileLock other(*handler, lockDir, name.c_str());
      if (!other.lock(false))
        return 1;
      other.release();
      return 0;
    });
    EXPECT_TRUE(WIFEXITED(status)) << status;
    return exitedWith(status, 0);
  }

  ScratchDir dir;
  std::string lockDir = dir / "run";
  std::string lockFile = lockDir + "/app.lock";
  Kesto::Ptr<Kesto::Platform::DebugHandler> handler = testHandler();
};

} // namespace

// --- one process ----------------------------------------------------------------------------------

TEST_F(FileLockTest, LockAndReleaseTraceEachStepAtLevelFive) {
  ASSERT_EQ(0, ::mkdir(lockDir.c_str(), 0700));
  FileLock lock(*handler, lockDir, "app.lock");
  TraceCapture trace({1, 5}, *handler);
  const int fd = nextDescriptor();
  EXPECT_TRUE(lock.lock(false));
  lock.release();
  EXPECT_EQ((Lines{line(5, "lock", "file:" + lockFile),
                   line(5, "lock", "acquired lock on file:" + lockFile),
                   line(5, "release", "file:" + lockFile),
                   line(5, "closeFd", "file:" + lockFile + " fd:" + std::to_string(fd)),
                   line(5, "closeFd", "closed fd for file:" + lockFile),
                   line(5, "release", "released lock on file:" + lockFile)}),
            trace.lines());
}

TEST_F(FileLockTest, FileIsTheDirectoryAndTheFilename) {
  FileLock lock(*handler, lockDir, "app.lock");
  EXPECT_EQ(lockFile, lock.file());
}

TEST_F(FileLockTest, MissingDirectoriesAreMadeWithMode0777AndTheFileWithMode0666) {
  UmaskGuard restrictive(077);
  const std::string deep = dir / "var/run/app";
  FileLock lock(*handler, deep.c_str(), "app.lock");
  ASSERT_TRUE(lock.lock(false));
  EXPECT_EQ(0777u, modeOf(dir / "var"));
  EXPECT_EQ(0777u, modeOf(dir / "var/run"));
  EXPECT_EQ(0777u, modeOf(deep));
  EXPECT_EQ(0666u, modeOf(deep + "/app.lock"));
  EXPECT_EQ(077u, currentUmask());
  lock.release();
  // The library never removes the file.
  EXPECT_TRUE(std::filesystem::exists(deep + "/app.lock"));
}

TEST_F(FileLockTest, AnExistingFileKeepsItsModeAndContent) {
  ASSERT_EQ(0, ::mkdir(lockDir.c_str(), 0700));
  writeFile(lockFile, "pid 1234\n");
  ASSERT_EQ(0, ::chmod(lockFile.c_str(), 0600));
  FileLock lock(*handler, lockDir, "app.lock");
  ASSERT_TRUE(lock.lock(false));
  lock.release();
  EXPECT_EQ(0600u, modeOf(lockFile));
  EXPECT_EQ("pid 1234\n", readFile(lockFile));
}

TEST_F(FileLockTest, SecondObjectInTheSameProcessConflictsAndClosesItsDescriptor) {
  FileLock first(*handler, lockDir, "app.lock");
  FileLock second(*handler, lockDir, "app.lock");
  ASSERT_TRUE(first.lock(false));
  const int before = openDescriptorCount();
  {
    TraceCapture trace({1}, *handler);
    EXPECT_FALSE(second.lock(true));
    EXPECT_FALSE(second.lock(false));
    EXPECT_EQ((Lines{line(1, "lock", "error: conflicting lock held on file:" + lockFile),
                     line(1, "lock", "error: conflicting lock held on file:" + lockFile)}),
              trace.lines());
  }
  EXPECT_EQ(before, openDescriptorCount());
  first.release();
  EXPECT_TRUE(second.lock(false));
  second.release();
}

TEST_F(FileLockTest, LockWithReentryTwiceIsTrueTwiceWithOneDescriptor) {
  FileLock lock(*handler, lockDir, "app.lock");
  const int before = openDescriptorCount();
  EXPECT_TRUE(lock.lock(true));
  {
    TraceCapture trace({1, 5}, *handler);
    EXPECT_TRUE(lock.lock(true));
    EXPECT_EQ((Lines{line(5, "lock", "file:" + lockFile),
                     line(5, "lock", "re-entry held by pid:" + std::to_string(::getpid()) + " on file:" + lockFile)}),
              trace.lines());
  }
  EXPECT_EQ(before + 1, openDescriptorCount());
  lock.release();
  EXPECT_EQ(before, openDescriptorCount());
}

TEST_F(FileLockTest, LockWithoutReentryTwiceIsFalseTheSecondTimeAndKeepsTheFirst) {
  FileLock lock(*handler, lockDir, "app.lock");
  const int before = openDescriptorCount();
  EXPECT_TRUE(lock.lock(false));
  {
    TraceCapture trace({1}, *handler);
    EXPECT_FALSE(lock.lock(false));
    EXPECT_EQ((Lines{line(1, "lock", "error: conflicting lock held on file:" + lockFile)}), trace.lines());
  }
  EXPECT_EQ(before + 1, openDescriptorCount());
  EXPECT_FALSE(freeForOthers());
  lock.release();
  EXPECT_TRUE(freeForOthers());
}

TEST_F(FileLockTest, DestructorReleasesAHeldLock) {
  const int before = openDescriptorCount();
  {
    FileLock lock(*handler, lockDir, "app.lock");
    ASSERT_TRUE(lock.lock(false));
  }
  EXPECT_EQ(before, openDescriptorCount());
  EXPECT_TRUE(freeForOthers());
}

TEST_F(FileLockTest, LocksOfDifferentFilesDoNotConflict) {
  FileLock a(*handler, lockDir, "a.lock");
  FileLock b(*handler, lockDir, "b.lock");
  EXPECT_TRUE(a.lock(false));
  EXPECT_TRUE(b.lock(false));
  b.release();
  a.release();
}

TEST_F(FileLockTest, LockIsAnOpenFileDescriptionLockAsProcLocksShowsIt) {
  FileLock lock(*handler, lockDir, "app.lock");
  ASSERT_TRUE(lock.lock(false));
  struct stat st {};
  ASSERT_EQ(0, ::stat(lockFile.c_str(), &st));
  // "1: OFDLCK ADVISORY  WRITE -1 08:01:1234 0 EOF": major:minor:inode.
  const std::string inode = ":" + std::to_string(st.st_ino) + " ";
  bool found = false;
  std::istringstream locks(readFile("/proc/locks"));
  for (std::string entry; std::getline(locks, entry);)
    if (entry.find(inode) != std::string::npos) {
      EXPECT_NE(std::string::npos, entry.find("OFDLCK ADVISORY  WRITE -1 ")) << entry;
      EXPECT_NE(std::string::npos, entry.find(" 0 EOF")) << entry;
      found = true;
    }
  EXPECT_TRUE(found);
  lock.release();
}

TEST_F(FileLockTest, LockDescriptorIsCloseOnExec) {
  FileLock lock(*handler, lockDir, "app.lock");
  ASSERT_TRUE(lock.lock(false));
  const int fd = descriptorOn(lockFile);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(FD_CLOEXEC, ::fcntl(fd, F_GETFD) & FD_CLOEXEC);
  lock.release();
  EXPECT_EQ(-1, descriptorOn(lockFile));
}

// ownerPid stays after closeFd(), so the owner's lock(true) answers
// re-entry with nothing held.
TEST_F(FileLockTest, CloseFdInTheOwnerThenLockWithReentryIsTrueWithNothingHeld) {
  FileLock lock(*handler, lockDir, "app.lock");
  ASSERT_TRUE(lock.lock(false));
  lock.closeFd();
  EXPECT_TRUE(freeForOthers());
  EXPECT_TRUE(lock.lock(true));
  EXPECT_EQ(-1, descriptorOn(lockFile));
  EXPECT_TRUE(freeForOthers());
  // Without re-entry the object locks again, and release() is the owner's.
  EXPECT_TRUE(lock.lock(false));
  EXPECT_FALSE(freeForOthers());
  lock.release();
}

TEST_F(FileLockTest, CloseFdWithoutADescriptorDoesNothing) {
  FileLock lock(*handler, lockDir, "app.lock");
  TraceCapture trace({1, 5}, *handler);
  lock.closeFd();
  EXPECT_EQ((Lines{line(5, "closeFd", "file:" + lockFile + " fd:-1"),
                   line(5, "closeFd", "no active fd: nothing to do")}),
            trace.lines());
}

// Removing the file while it is locked lets the next locker make a new
// file of that name and lock it: the lock is on a file, not on a name. The
// holder still releases cleanly.
TEST_F(FileLockTest, LockFileRemovedWhileHeldLetsTheNextLockerIn) {
  FileLock first(*handler, lockDir, "app.lock");
  ASSERT_TRUE(first.lock(false));
  ASSERT_EQ(0, ::unlink(lockFile.c_str()));
  EXPECT_TRUE(freeForOthers());
  const int before = openDescriptorCount();
  first.release();
  EXPECT_EQ(before - 1, openDescriptorCount());
}

// --- misuse and failures --------------------------------------------------------------------------

TEST_F(FileLockTest, SlashInTheFilenameAsserts) {
  TraceCapture trace({}, *handler);
  EXPECT_EQ("FileLock::FileLock() unexpected '/' in filename: sub/app.lock",
            assertMessageOf([&] { FileLock lock(*handler, lockDir, "sub/app.lock"); }));
  EXPECT_EQ(1u, trace.linesWith("UtilTest 0 ").size());
}

TEST_F(FileLockTest, ReleaseWithoutALockAsserts) {
  FileLock lock(*handler, lockDir, "app.lock");
  TraceCapture trace({}, *handler);
  const std::string expected =
      "FileLock::release() attempting to release a lock that is not currently held. File:" + lockFile;
  EXPECT_EQ(expected, assertMessageOf([&] { lock.release(); }));
  ASSERT_TRUE(lock.lock(false));
  lock.release();
  EXPECT_EQ(expected, assertMessageOf([&] { lock.release(); }));
}

// A path through a regular file fails for root as well (ENOTDIR).
TEST_F(FileLockTest, DirectoryThroughARegularFileAsserts) {
  writeFile(dir / "plain", "");
  const std::string bad = dir / "plain/run";
  FileLock lock(*handler, bad.c_str(), "app.lock");
  TraceCapture trace({}, *handler);
  EXPECT_EQ("FileLock::lock() unexpected mkpath() error " + bad + ": Not a directory",
            assertMessageOf([&] { lock.lock(false); }));
}

TEST_F(FileLockTest, LockFileThatIsADirectoryIsFalse) {
  ASSERT_EQ(0, Kesto::Util::mkpath(lockFile.c_str(), 0700));
  FileLock lock(*handler, lockDir, "app.lock");
  const int before = openDescriptorCount();
  TraceCapture trace({1}, *handler);
  EXPECT_FALSE(lock.lock(false));
  EXPECT_EQ((Lines{line(1, "lock", "error: could not open lock file:" + lockFile + " Is a directory")}),
            trace.lines());
  EXPECT_EQ(before, openDescriptorCount());
}

TEST_F(FileLockTest, FilenameLongerThanTheFileSystemTakesIsFalse) {
  const std::string name(300, 'n');
  FileLock lock(*handler, lockDir, name);
  TraceCapture trace({1}, *handler);
  EXPECT_FALSE(lock.lock(false));
  EXPECT_EQ((Lines{line(1, "lock", "error: could not open lock file:" + lockDir + "/" + name + " File name too long")}),
            trace.lines());
}

TEST_F(FileLockTest, OutOfDescriptorsLockIsFalse) {
  if (!descriptorExhaustionIsTestable)
    GTEST_SKIP() << descriptorExhaustionSkipReason;
  const int status = statusOfChild([&] {
    FileLock lock(*handler, lockDir, "app.lock");
    std::string traced;
    bool locked;
    {
      TraceCapture trace({1}, *handler);
      exhaustDescriptors();
      locked = lock.lock(false);
      rlimit limit{};
      ::getrlimit(RLIMIT_NOFILE, &limit);
      limit.rlim_cur = limit.rlim_max;
      ::setrlimit(RLIMIT_NOFILE, &limit);
      traced = trace.text();
    }
    if (locked)
      return 2;
    return traced == line(1, "lock", "error: could not open lock file:" + lockFile + " Too many open files") + "\n"
               ? 0
               : 3;
  });
  EXPECT_TRUE(exitedWith(status, 0)) << status;
}

// The empty directory leaves the filename alone as the path, and lock()
// hands the empty path to mkpath, whose recursion has no end for it.
TEST_F(FileLockTest, EmptyDirectoryIsTheFilenameAloneAndCannotBeLocked) {
  FileLock lock(*handler, "", "app.lock");
  EXPECT_EQ("app.lock", lock.file());
  const int status = statusOfChild([&] {
    silenceStandardError();
    lock.lock(false);
    return 0;
  });
  EXPECT_FALSE(exitedWith(status, 0)) << status;
  EXPECT_FALSE(WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM) << "lock() did not end";
}

// --- processes ------------------------------------------------------------------------------------

TEST_F(FileLockTest, AnotherProcessCannotTakeAHeldLock) {
  FileLock lock(*handler, lockDir, "app.lock");
  ASSERT_TRUE(lock.lock(false));
  EXPECT_FALSE(freeForOthers());
  lock.release();
  EXPECT_TRUE(freeForOthers());
}

TEST_F(FileLockTest, LockIsFreeAfterTheOwnerExitsWithoutRelease) {
  const int status = statusOfChild([&] {
    FileLock lock(*handler, lockDir, "app.lock");
    return lock.lock(false) ? 0 : 2; // _exit: no destructor, no release
  });
  ASSERT_TRUE(exitedWith(status, 0)) << status;
  FileLock lock(*handler, lockDir, "app.lock");
  EXPECT_TRUE(lock.lock(false));
  lock.release();
}

TEST_F(FileLockTest, LockIsFreeAfterTheOwnerIsKilled) {
  const int status = statusOfChild([&] {
    FileLock lock(*handler, lockDir, "app.lock");
    if (!lock.lock(false))
      return 2;
    ::raise(SIGKILL);
    return 3;
  });
  ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
  EXPECT_TRUE(freeForOthers());
}

// The child's re-entry test fails (it is not the owner), and its own open
// file description conflicts with the parent's.
TEST_F(FileLockTest, InheritedObjectInAChildDoesNotReenter) {
  FileLock lock(*handler, lockDir, "app.lock");
  ASSERT_TRUE(lock.lock(false));
  const int status = statusOfChild([&] {
    TraceCapture trace({1}, *handler);
    return lock.lock(true) ? 2 : 0;
  });
  EXPECT_TRUE(exitedWith(status, 0)) << status;
  lock.release();
}

TEST_F(FileLockTest, ReleaseInAForkedChildAssertsAndLeavesTheParentsLock) {
  FileLock lock(*handler, lockDir, "app.lock");
  ASSERT_TRUE(lock.lock(false));
  const std::string parent = std::to_string(::getpid());
  const int status = statusOfChild([&] {
    TraceCapture trace({}, *handler);
    const std::string text = assertMessageOf([&] { lock.release(); });
    const std::string expected =
        "FileLock::release() called from child process:" + std::to_string(::getpid()) + " of owner pid:" + parent;
    return text == expected ? 0 : 2;
  });
  EXPECT_TRUE(exitedWith(status, 0)) << status;
  EXPECT_FALSE(freeForOthers());
  lock.release();
  EXPECT_TRUE(freeForOthers());
}

TEST_F(FileLockTest, CloseFdInAForkedChildLeavesTheParentsLockInForce) {
  FileLock lock(*handler, lockDir, "app.lock");
  ASSERT_TRUE(lock.lock(false));
  const int status = statusOfChild([&] {
    const int before = openDescriptorCount();
    lock.closeFd();
    if (openDescriptorCount() != before - 1)
      return 2;
    // The lock is still the parent's, for this very process too.
    FileLock mine(*handler, lockDir, "app.lock");
    TraceCapture trace({1}, *handler);
    return mine.lock(false) ? 3 : 0;
  });
  EXPECT_TRUE(exitedWith(status, 0)) << status;
  EXPECT_FALSE(freeForOthers());
  lock.release();
  EXPECT_TRUE(freeForOthers());
}

// The destructor releases, and release() in a child asserts: in a
// destructor the assertion ends the child.
TEST_F(FileLockTest, DestroyingAnInheritedLockInAChildWithoutCloseFdEndsTheChild) {
  auto lock = std::make_unique<FileLock>(*handler, lockDir, "app.lock");
  ASSERT_TRUE(lock->lock(false));
  const int status = statusOfChild([&] {
    silenceStandardError(); // the assertion's line and the terminate handler's report
    lock.reset();
    return 0;
  });
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) << status;
  EXPECT_FALSE(freeForOthers());
  lock->release();
}

TEST_F(FileLockTest, ChildThatClosesItsInheritedLockMayDestroyIt) {
  auto lock = std::make_unique<FileLock>(*handler, lockDir, "app.lock");
  ASSERT_TRUE(lock->lock(false));
  const int status = statusOfChild([&] {
    lock->closeFd();
    lock.reset();
    return 0;
  });
  EXPECT_TRUE(exitedWith(status, 0)) << status;
  EXPECT_FALSE(freeForOthers());
  lock->release();
}

// Processes race for one lock: exactly one wins, and it holds the lock
// until every contender has tried.
TEST_F(FileLockTest, ExactlyOneOfManyContendingProcessesWins) {
  constexpr int contenders = 8;
  int go[2], hold[2], results[2];
  ASSERT_EQ(0, ::pipe(go));
  ASSERT_EQ(0, ::pipe(hold));
  ASSERT_EQ(0, ::pipe(results));
  std::vector<pid_t> children;
  for (int i = 0; i < contenders; ++i) {
    const pid_t pid = ::fork();
    if (pid == 0) {
      ::alarm(60);
      ::close(go[1]);
      ::close(hold[1]);
      ::close(results[0]);
      char byte;
      // All start together when the parent closes `go`, and end when it
      // closes `hold`.
      while (::read(go[0], &byte, 1) > 0) {
      }
      FileLock lock(*handler, lockDir, "app.lock");
      const char outcome = lock.lock(false) ? 'W' : 'L';
      if (::write(results[1], &outcome, 1) != 1)
        ::_exit(2);
      while (::read(hold[0], &byte, 1) > 0) {
      }
      ::_exit(0);
    }
    children.push_back(pid);
  }
  ::close(go[0]);
  ::close(hold[0]);
  ::close(results[1]);
  ::close(go[1]);
  std::string outcomes;
  char byte;
  while (outcomes.size() < std::size_t(contenders) && ::read(results[0], &byte, 1) == 1)
    outcomes += byte;
  ::close(hold[1]);
  ::close(results[0]);
  for (pid_t pid : children) {
    int status = -1;
    ::waitpid(pid, &status, 0);
    EXPECT_TRUE(exitedWith(status, 0)) << status;
  }
  EXPECT_EQ(std::size_t(contenders), outcomes.size());
  EXPECT_EQ(1, std::count(outcomes.begin(), outcomes.end(), 'W')) << outcomes;
  EXPECT_TRUE(freeForOthers());
}

// --- a descriptor closed under the object ----------------------------------------------------------

// Nothing the process does through the object can make its descriptor bad;
// closing it behind the object's back can, and does it for real: every
// call on it then fails with EBADF. The capture is set up first, so that
// no open of this thread takes the freed number before the object uses it.
TEST_F(FileLockTest, CloseFdOfADescriptorClosedUnderTheObjectIsTracedAtLevelOne) {
  FileLock lock(*handler, lockDir, "app.lock");
  ASSERT_TRUE(lock.lock(false));
  const int fd = descriptorOn(lockFile);
  ASSERT_GE(fd, 0);
  {
    TraceCapture trace({1, 5}, *handler);
    ASSERT_EQ(0, ::close(fd));
    lock.closeFd();
    EXPECT_EQ((Lines{line(5, "closeFd", fmt::format("file:{} fd:{}", lockFile, fd)),
                     line(1, "closeFd", fmt::format("error: Bad file descriptor file:{} fd:{}", lockFile, fd))}),
              trace.lines());
  }
  // The descriptor is forgotten all the same: a second closeFd has nothing
  // to do, and the lock went with the description.
  TraceCapture trace({1, 5}, *handler);
  lock.closeFd();
  EXPECT_EQ((Lines{line(5, "closeFd", fmt::format("file:{} fd:-1", lockFile)),
                   line(5, "closeFd", "no active fd: nothing to do")}),
            trace.lines());
  EXPECT_TRUE(freeForOthers());
}

TEST_F(FileLockTest, ReleaseOfADescriptorClosedUnderTheObjectAsserts) {
  FileLock lock(*handler, lockDir, "app.lock");
  ASSERT_TRUE(lock.lock(false));
  const int fd = descriptorOn(lockFile);
  ASSERT_GE(fd, 0);
  TraceCapture trace({}, *handler);
  ASSERT_EQ(0, ::close(fd));
  EXPECT_EQ(fmt::format("FileLock::release() unexpected error: Bad file descriptor file:{} fd:{}", lockFile, fd),
            assertMessageOf([&] { lock.release(); }));
  // The object still holds the number; closeFd lets it go (failing in turn)
  // so that the destructor does not release again.
  lock.closeFd();
  EXPECT_EQ(1u, trace.linesWith("UtilTest 0 ").size());
}
