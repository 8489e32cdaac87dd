// The readers of /proc against files that the kernel never writes: a stat
// line cut short, a status file without a name or with an empty one, a
// coredump_filter that is no number, a /proc that does not open. Real /proc
// cannot be made to show any of these, so each test points the readers'
// root (Util/ProcSeam.h) at a scratch directory of crafted files, laid out
// as /proc is. The seam is this program's own: the variable the library
// looks for is defined here.
#include "ProcSeamScope.h"
#include "UtilTestSupport.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cstdio>
#include <vector>

extern "C" {
Kesto::Util::ProcSeam kestoUtilProcSeam{};
}

using namespace KestoTest;
namespace Util = Kesto::Util;
using Kesto::String;

namespace {

using Lines = std::vector<std::string>;

std::string line(unsigned level, const char* function, const std::string& text) {
  return utilLine("UtilTest", level, function, text);
}

// A pid that the fake /proc knows; no such process need exist.
constexpr int fakePid = 4242;

class FakeProc : public ::testing::Test {
protected:
  void SetUp() override { seam.rootIs(root.path()); }

  // Writes `content` to {root}/{pid}/{name}.
  std::string craft(int pid, const std::string& name, const std::string& content) {
    const std::string dir = root / std::to_string(pid);
    std::filesystem::create_directories(dir);
    writeFile(dir + "/" + name, content);
    return dir + "/" + name;
  }

  ScratchDir root;
  ProcSeamScope seam;
  Kesto::Ptr<Kesto::Platform::DebugHandler> handler = testHandler();
};

} // namespace

// The seam is wired: a well-formed fake gives what the real file would.
TEST_F(FakeProc, ReadersTakeTheirFilesFromTheRootOfTheSeam) {
  craft(fakePid, "status", "Umask:\t0022\nName:\tfake title\nState:\tS\n");
  craft(fakePid, "stat",
        "4242 (fake) S 1 4242 4242 0 -1 4194560 100 0 0 0 0 0 0 0 20 0 1 0 987654 1000 100 18446744073709551615\n");
  EXPECT_EQ("fake title", Util::readProcTitle(*handler, fakePid, false));
  EXPECT_EQ("987654", Util::readProcStartTime(*handler, fakePid));
}

TEST_F(FakeProc, StatusWithoutANameLineIsNoTitleAtLevelOneEvenWhenQuiet) {
  craft(fakePid, "status", "Umask:\t0022\nState:\tS\n");
  TraceCapture trace({1, 5}, *handler);
  EXPECT_EQ("", Util::readProcTitle(*handler, fakePid, true));
  // The lines ran out: end of file and failure, 2 | 4.
  EXPECT_EQ((Lines{line(1, "readProcTitle", "error - Couldn't find proc title for pid:4242 stream state:6")}),
            trace.lines());
}

TEST_F(FakeProc, NameOfBlanksIsAnEmptyTitleAtLevelOne) {
  craft(fakePid, "status", "Name:\t \t\nState:\tS\n");
  TraceCapture trace({1, 5}, *handler);
  EXPECT_EQ("", Util::readProcTitle(*handler, fakePid, true));
  EXPECT_EQ((Lines{line(1, "readProcTitle", "error - Read 0 length title for pid:4242")}), trace.lines());
}

TEST_F(FakeProc, StatLineEndingAtTheCommandNameAsserts) {
  const std::string path = craft(fakePid, "stat", "4242 (fake)\n");
  EXPECT_EQ("Kesto::Util::readProcStartTime() input not long enough to contain start time. file: " + path +
                " line: \"4242 (fake)\"",
            assertMessageOf([&] { Util::readProcStartTime(*handler, fakePid); }));
}

TEST_F(FakeProc, StatLineWithoutParenthesisAsserts) {
  const std::string path = craft(fakePid, "stat", "4242 fake S 1 2 3\n");
  EXPECT_EQ("Kesto::Util::readProcStartTime() input not long enough to contain start time. file: " + path +
                " line: \"4242 fake S 1 2 3\"",
            assertMessageOf([&] { Util::readProcStartTime(*handler, fakePid); }));
}

TEST_F(FakeProc, StatLineWithTooFewFieldsAsserts) {
  // The state and three fields more: tokens 0 to 3, none at 19.
  const std::string stat = "4242 (a) b) S 1 2 3";
  const std::string path = craft(fakePid, "stat", stat + "\n");
  EXPECT_EQ("Kesto::Util::readProcStartTime() Failed to parse start time from file: " + path + " line: \"" + stat +
                "\" procStartTime.size():0 tokPos:4 startTimeFieldPos:19",
            assertMessageOf([&] { Util::readProcStartTime(*handler, fakePid); }));
}

TEST_F(FakeProc, EmptyStatFileIsNoStartTimeAtLevelFive) {
  const std::string path = craft(fakePid, "stat", "");
  TraceCapture trace({1, 5}, *handler);
  EXPECT_EQ("", Util::readProcStartTime(*handler, fakePid));
  EXPECT_EQ((Lines{line(5, "readProcStartTime", "failed to read contents of file: " + path + " stream state: 6")}),
            trace.lines());
}

// The kernel refuses no read of a process's own coredump_filter, so the
// open is made to fail by its absence.
TEST_F(FakeProc, CoredumpFilterThatDoesNotOpenIsTracedAtLevelOne) {
  const std::string path = root / (std::to_string(::getpid()) + "/coredump_filter");
  Kesto::Ptr<Kesto::Platform::DebugHandler> util = Kesto::Platform::getDebugHandler("KestoUtil");
  TraceCapture trace({1}, *util);
  Util::includeShmemInCore();
  EXPECT_EQ((Lines{utilLine("KestoUtil", 1, "includeShmemInCore",
                            "failed to open " + path + ": No such file or directory (has EUID changed?)")}),
            trace.lines());
}

TEST_F(FakeProc, CoredumpFilterThatIsNoNumberAssertsAndIsLeftAsItWas) {
  const std::string path = craft(::getpid(), "coredump_filter", "none\n");
  EXPECT_EQ("Kesto::Util::includeShmemInCore() fscanf failed for file:" + path + " error:Success",
            assertMessageOf([] { Util::includeShmemInCore(); }));
  EXPECT_EQ("none\n", readFile(path));
  craft(::getpid(), "coredump_filter", "");
  EXPECT_EQ("Kesto::Util::includeShmemInCore() fscanf failed for file:" + path + " error:Success",
            assertMessageOf([] { Util::includeShmemInCore(); }));
}

// /proc itself missing: the walk cannot start. (readSocketPid meets the
// same assertion only if /proc goes between its reading of /proc/net/unix
// and its walk, which no root of files can stage.)
TEST_F(FakeProc, ProcThatDoesNotOpenAssertsInTheWalkForLocks) {
  seam.rootIs(root / "missing");
  EXPECT_EQ("Kesto::Util::readLockPid() Couldn't open /proc",
            assertMessageOf([&] { Util::readLockPid(*handler, "/run/any.lock"); }));
}

// The kernel writes a number in the inode field of every line.
TEST_F(FakeProc, SocketLineWhoseInodeIsNoNumberIsTracedAndPassedOver) {
  std::filesystem::create_directories(root / "net");
  writeFile(root / "net/unix",
            "Num       RefCount Protocol Flags    Type St Inode Path\n"
            "0000000000000000: 00000002 00000000 00010000 0001 01 none @fake-socket\n");
  TraceCapture trace({1, 5}, *handler);
  EXPECT_EQ(0u, Util::readSocketPid(*handler, "fake-socket"));
  EXPECT_EQ((Lines{line(5, "readSocketPid", "searching for socket name:fake-socket"),
                   line(1, "readProcNetUnix", "Couldn't convert inode 'none' to U32."),
                   line(5, "readSocketPid", "unable to find inode")}),
            trace.lines());
}

// Every directory of real /proc that has an fd directory is named by a
// number or is "self"; a fake one named otherwise holds a link to a real
// socket file, whose inode the fake net/unix gives as the socket's.
TEST_F(FakeProc, SocketHeldUnderAnEntryThatIsNoNumberGivesZeroWithATrace) {
  const std::string socketPath = root / "sock";
  const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_GE(fd, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof address.sun_path, "%s", socketPath.c_str());
  ASSERT_EQ(0, ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address));
  struct stat st {};
  ASSERT_EQ(0, ::stat(socketPath.c_str(), &st));
  std::filesystem::create_directories(root / "net");
  writeFile(root / "net/unix", fmt::format("Num       RefCount Protocol Flags    Type St Inode Path\n"
                                           "0000000000000000: 00000002 00000000 00010000 0001 01 {} @fake-socket\n",
                                           st.st_ino));
  std::filesystem::create_directories(root / "abc/fd");
  ASSERT_EQ(0, ::symlink(socketPath.c_str(), (root / "abc/fd/3").c_str()));
  TraceCapture trace({1, 5}, *handler);
  EXPECT_EQ(0u, Util::readSocketPid(*handler, "fake-socket"));
  EXPECT_EQ((Lines{line(5, "readSocketPid", "searching for socket name:fake-socket"),
                   line(5, "readProcNetUnix", fmt::format("sockInode:{}", st.st_ino)),
                   line(5, "readProcFd", fmt::format("searching for inode: {}", st.st_ino)),
                   line(1, "readProcFd", "could not convert pid directory string 'abc' to U32")}),
            trace.lines());
  // Under "self" the same descriptor is the caller's.
  std::filesystem::rename(root / "abc", root / "self");
  EXPECT_EQ(static_cast<Kesto::U32>(::getpid()), Util::readSocketPid(*handler, "fake-socket"));
  ::close(fd);
}

// A descriptor of real /proc is always a link; a regular file in its place
// passes stat and fails readlink.
TEST_F(FakeProc, DescriptorThatIsNoLinkIsTracedAndPassedOverInTheWalkForLocks) {
  writeFile(root / "locks", "1: OFDLCK ADVISORY  WRITE -1 08:01:1234 0 EOF\n");
  std::filesystem::create_directories(root / "4242/fd");
  writeFile(root / "4242/fd/3", "not a link");
  TraceCapture trace({1, 5}, *handler);
  EXPECT_EQ(0u, Util::readLockPid(*handler, "/run/app.lock"));
  EXPECT_EQ((Lines{line(1, "readLockPid", "readlink of file:" + root / "4242/fd/3" + " failed Invalid argument")}),
            trace.linesWith("UtilTest 1 "));
}
