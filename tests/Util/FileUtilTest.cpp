// The file helpers: results, trace lines and exceptions of each, with the
// failures that happen to root as well as to anyone (see UtilTestSupport.h).
#include "UtilTestSupport.h"

#include <sys/time.h>

#include <cerrno>
#include <climits>
#include <vector>

using namespace KestoTest;
namespace Util = Kesto::Util;

namespace {

using Lines = std::vector<std::string>;

std::string line(unsigned level, const char* function, const std::string& text) {
  return utilLine("UtilTest", level, function, text);
}

std::string kestoUtilLine(unsigned level, const char* function, const std::string& text) {
  return utilLine("KestoUtil", level, function, text);
}

class FileUtil : public ::testing::Test {
protected:
  ScratchDir dir;
  Kesto::Ptr<Kesto::Platform::DebugHandler> handler = testHandler();
};

} // namespace

// --- fileRead -----------------------------------------------------------------------------------

TEST_F(FileUtil, FileReadGivesTheContentAndTracesItAtLevelFive) {
  const std::string path = dir / "text";
  writeFile(path, "hello\nworld\n");
  TraceCapture trace({1, 5}, *handler);
  EXPECT_EQ("hello\nworld\n", Util::fileRead(*handler, path.c_str(), true));
  EXPECT_EQ((Lines{line(5, "fileRead", "read " + path + " 'hello"), "world", "'"}), trace.lines());
}

TEST_F(FileUtil, FileReadCutsTheTextAtTheFirstNulByte) {
  const std::string path = dir / "nul";
  writeFile(path, std::string("0123456789\0abcdef", 17));
  EXPECT_EQ("0123456789", Util::fileRead(*handler, path.c_str(), true));
  writeFile(path, std::string("\0abc", 4));
  EXPECT_EQ("", Util::fileRead(*handler, path.c_str(), true));
}

TEST_F(FileUtil, FileReadOfAnEmptyFileIsAGoodRead) {
  const std::string path = dir / "empty";
  writeFile(path, "");
  TraceCapture trace({1, 5}, *handler);
  EXPECT_EQ("", Util::fileRead(*handler, path.c_str(), true));
  EXPECT_EQ((Lines{line(5, "fileRead", "read " + path + " ''")}), trace.lines());
}

TEST_F(FileUtil, FileReadOfALargeFileGivesAllOfIt) {
  const std::string path = dir / "large";
  std::string content;
  for (int i = 0; content.size() < 3'000'000; ++i)
    content += std::to_string(i) + "\n";
  writeFile(path, content);
  EXPECT_EQ(content, Util::fileRead(*handler, path.c_str(), false));
}

// An endless file of NUL bytes ends at the first one.
TEST_F(FileUtil, FileReadOfDevZeroEndsAtItsFirstByte) {
  EXPECT_EQ("", Util::fileRead(*handler, "/dev/zero", true));
}

TEST_F(FileUtil, FileReadOfAMissingFileGivesEmptyAndTracesOnlyWhenAsked) {
  const std::string path = dir / "missing";
  TraceCapture trace({0, 1, 5}, *handler);
  EXPECT_EQ("", Util::fileRead(*handler, path.c_str(), false));
  EXPECT_EQ("", Util::fileRead(*handler, path.c_str(), true));
  EXPECT_EQ((Lines{line(5, "fileRead", "unable to open file " + path)}), trace.lines());
}

TEST_F(FileUtil, FileReadOfAVanishedFileIsAMissingFile) {
  const std::string path = dir / "vanished";
  writeFile(path, "soon gone");
  ASSERT_EQ("soon gone", Util::fileRead(*handler, path.c_str(), false));
  ASSERT_EQ(0, ::unlink(path.c_str()));
  TraceCapture trace({1, 5}, *handler);
  EXPECT_EQ("", Util::fileRead(*handler, path.c_str(), true));
  EXPECT_EQ((Lines{line(5, "fileRead", "unable to open file " + path)}), trace.lines());
}

// A directory opens as a stream (that is no failure for open(2) with
// O_RDONLY), and the read fails with EISDIR, for root too.
TEST_F(FileUtil, FileReadOfADirectoryTracesTheReadFailureAtLevelOne) {
  TraceCapture trace({1, 5}, *handler);
  EXPECT_EQ("", Util::fileRead(*handler, dir.path().c_str(), true));
  EXPECT_EQ((Lines{line(1, "fileRead", "failed to read from " + dir.path())}), trace.lines());
}

TEST_F(FileUtil, FileReadThroughARegularFileDoesNotOpen) {
  const std::string file = dir / "plain";
  writeFile(file, "x");
  const std::string path = file + "/below";
  TraceCapture trace({1, 5}, *handler);
  EXPECT_EQ("", Util::fileRead(*handler, path.c_str(), true));
  EXPECT_EQ((Lines{line(5, "fileRead", "unable to open file " + path)}), trace.lines());
}

TEST_F(FileUtil, FileReadOfANullPathDoesNotOpen) {
  TraceCapture trace({1, 5}, *handler);
  EXPECT_EQ("", Util::fileRead(*handler, nullptr, true));
  EXPECT_EQ((Lines{line(5, "fileRead", "unable to open file (null)")}), trace.lines());
}

// --- fileWrite ----------------------------------------------------------------------------------

TEST_F(FileUtil, FileWriteCreatesAndTruncates) {
  const std::string path = dir / "out";
  Util::fileWrite(*handler, path.c_str(), "a longer first text", false);
  EXPECT_EQ("a longer first text", readFile(path));
  Util::fileWrite(*handler, path.c_str(), "short", false);
  EXPECT_EQ("short", readFile(path));
  Util::fileWrite(*handler, path.c_str(), "", false);
  EXPECT_EQ("", readFile(path));
}

TEST_F(FileUtil, FileWriteCreatesMode0666WhateverTheUmaskAndPutsTheUmaskBack) {
  UmaskGuard restrictive(077);
  const std::string path = dir / "shared";
  Util::fileWrite(*handler, path.c_str(), "x", false);
  EXPECT_EQ(0666u, modeOf(path));
  EXPECT_EQ(077u, currentUmask());
}

TEST_F(FileUtil, FileWriteInAMissingDirectoryThrowsTheTextToBeWritten) {
  const std::string path = dir / "missing/out";
  TraceCapture trace({0}, *handler);
  EXPECT_EQ("the data", runtimeText([&] { Util::fileWrite(*handler, path.c_str(), "the data", false); }));
  EXPECT_EQ((Lines{line(0, "fileWrite", "unable to open " + path + " reason:No such file or directory")}),
            trace.lines());
}

TEST_F(FileUtil, FileWriteFailureIsOnlyTracedWhenIgnored) {
  const std::string path = dir / "missing/out";
  TraceCapture trace({0}, *handler);
  EXPECT_EQ("<no exception>", runtimeText([&] { Util::fileWrite(*handler, path.c_str(), "x", true); }));
  EXPECT_EQ(1u, trace.lines().size());
}

TEST_F(FileUtil, FileWriteToADirectoryFailsToOpen) {
  TraceCapture trace({0}, *handler);
  EXPECT_EQ("x", runtimeText([&] { Util::fileWrite(*handler, dir.path().c_str(), "x", false); }));
  EXPECT_EQ((Lines{line(0, "fileWrite", "unable to open " + dir.path() + " reason:Is a directory")}), trace.lines());
}

// /dev/full opens and refuses every write with ENOSPC.
TEST_F(FileUtil, FileWriteThatFailsThrowsTheTextToBeWritten) {
  TraceCapture trace({0}, *handler);
  EXPECT_EQ("payload", runtimeText([&] { Util::fileWrite(*handler, "/dev/full", "payload", false); }));
  EXPECT_EQ((Lines{line(0, "fileWrite", "unable to write to /dev/full reason:No space left on device")}),
            trace.lines());
}

// RLIMIT_FSIZE cuts a write at the limit (with SIGXFSZ ignored): a short
// write, which is traced but is no failure; at the limit itself the write
// fails with EFBIG. The limit would cut the capture file of TraceCapture as
// well, so the child sends its trace lines into a pipe.
TEST_F(FileUtil, FileWriteShortWriteIsTracedButIsNoFailure) {
  const std::string path = dir / "limited";
  const std::string other = dir / "limited2";
  const int status = statusOfChild([&] {
    int lines[2];
    if (::pipe(lines) != 0 || ::dup2(lines[1], 2) != 2)
      return 2;
    Kesto::Platform::setTraceFormat("handle,level");
    handler->enabledIs(0, true);
    ::signal(SIGXFSZ, SIG_IGN);
    rlimit limit{10, 10};
    ::setrlimit(RLIMIT_FSIZE, &limit);
    Util::fileWrite(*handler, path.c_str(), "0123456789abcdefghij", false);
    limit = {0, 0};
    ::setrlimit(RLIMIT_FSIZE, &limit);
    const std::string failure = runtimeText([&] { Util::fileWrite(*handler, other.c_str(), "more", false); });
    char buffer[1024];
    const ssize_t n = ::read(lines[0], buffer, sizeof buffer);
    const std::string traced(buffer, n > 0 ? std::size_t(n) : 0);
    if (traced != line(0, "fileWrite", "wrote:10 bytes to file:" + path + " but wanted to write:20") + "\n" +
                      line(0, "fileWrite", "unable to write to " + other + " reason:File too large") + "\n")
      return 3;
    return failure == "more" ? 0 : 4;
  });
  EXPECT_TRUE(exitedWith(status, 0)) << status;
  EXPECT_EQ("0123456789", readFile(path));
  EXPECT_EQ("", readFile(other));
}

// --- touch --------------------------------------------------------------------------------------

TEST_F(FileUtil, TouchCreatesAnEmptyFileOfMode0666) {
  UmaskGuard restrictive(022);
  const std::string path = dir / "touched";
  EXPECT_TRUE(Util::touch(*handler, path.c_str()));
  EXPECT_EQ("", readFile(path));
  EXPECT_EQ(0666u, modeOf(path));
  EXPECT_EQ(022u, currentUmask());
}

TEST_F(FileUtil, TouchKeepsAnExistingFileItsContentAndItsTimes) {
  const std::string path = dir / "old";
  writeFile(path, "content");
  const timeval past[2] = {{1000000000, 0}, {1000000000, 0}};
  ASSERT_EQ(0, ::utimes(path.c_str(), past));
  EXPECT_TRUE(Util::touch(*handler, path.c_str()));
  EXPECT_EQ("content", readFile(path));
  struct stat st {};
  ASSERT_EQ(0, ::stat(path.c_str(), &st));
  EXPECT_EQ(1000000000, st.st_mtime);
}

TEST_F(FileUtil, TouchInAMissingDirectoryFailsWithALevelZeroTrace) {
  const std::string path = dir / "missing/touched";
  TraceCapture trace({0}, *handler);
  EXPECT_FALSE(Util::touch(*handler, path.c_str()));
  EXPECT_EQ((Lines{line(0, "touch", "unable to open " + path + " reason: No such file or directory")}),
            trace.lines());
}

// --- fileExists, fileRemove, fileSize, truncate -------------------------------------------------

TEST_F(FileUtil, FileExistsTellsTheResultOfStat) {
  const std::string path = dir / "here";
  writeFile(path, "");
  TraceCapture trace({5}, *handler);
  EXPECT_TRUE(Util::fileExists(*handler, path.c_str()));
  EXPECT_TRUE(Util::fileExists(*handler, dir.path().c_str()));
  EXPECT_FALSE(Util::fileExists(*handler, (dir / "gone").c_str()));
  EXPECT_FALSE(Util::fileExists(*handler, (path + "/below").c_str()));
  EXPECT_EQ((Lines{line(5, "fileExists", "checking if " + path + " exists, stat result: 0"),
                   line(5, "fileExists", "checking if " + dir.path() + " exists, stat result: 0"),
                   line(5, "fileExists", "checking if " + dir / "gone" + " exists, stat result: -1"),
                   line(5, "fileExists", "checking if " + path + "/below exists, stat result: -1")}),
            trace.lines());
}

TEST_F(FileUtil, FileRemoveRemovesAndTracesAtLevelFive) {
  const std::string path = dir / "doomed";
  writeFile(path, "x");
  TraceCapture trace({0, 5}, *handler);
  EXPECT_TRUE(Util::fileRemove(*handler, path.c_str()));
  EXPECT_FALSE(std::filesystem::exists(path));
  EXPECT_EQ((Lines{line(5, "fileRemove", "removed file " + path)}), trace.lines());
}

TEST_F(FileUtil, FileRemoveOfAMissingFileIsTrueWithoutATrace) {
  TraceCapture trace({0, 5}, *handler);
  EXPECT_TRUE(Util::fileRemove(*handler, (dir / "never").c_str()));
  EXPECT_EQ(Lines{}, trace.lines());
}

TEST_F(FileUtil, FileRemoveOfADirectoryFailsWithALevelZeroTrace) {
  TraceCapture trace({0, 5}, *handler);
  EXPECT_FALSE(Util::fileRemove(*handler, dir.path().c_str()));
  EXPECT_TRUE(std::filesystem::is_directory(dir.path()));
  EXPECT_EQ((Lines{line(0, "fileRemove", "unlink() error " + dir.path() + ": Is a directory")}), trace.lines());
}

TEST_F(FileUtil, FileSizeByPathAndByDescriptor) {
  const std::string path = dir / "sized";
  writeFile(path, std::string(12345, 'x'));
  EXPECT_EQ(12345u, Util::fileSize(*handler, path.c_str()));
  const int fd = ::open(path.c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(12345u, Util::fileSize(*handler, fd));
  ::close(fd);
}

TEST_F(FileUtil, FileSizeFailureIsZeroWithALevelFiveTrace) {
  const std::string path = dir / "absent";
  TraceCapture trace({5}, *handler);
  EXPECT_EQ(0u, Util::fileSize(*handler, path.c_str()));
  EXPECT_EQ(0u, Util::fileSize(*handler, -1));
  EXPECT_EQ((Lines{line(5, "fileSize", "unable to stat file " + path + ": No such file or directory"),
                   line(5, "fileSize", "unable to fstat fd -1: Bad file descriptor")}),
            trace.lines());
}

TEST_F(FileUtil, TruncateSetsTheLength) {
  const std::string path = dir / "cut";
  writeFile(path, "0123456789");
  const int fd = ::open(path.c_str(), O_RDWR);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(0, Util::truncate(*handler, path.c_str(), fd, 4));
  EXPECT_EQ("0123", readFile(path));
  EXPECT_EQ(0, Util::truncate(*handler, path.c_str(), fd, 1 << 20));
  EXPECT_EQ(1u << 20, Util::fileSize(*handler, fd));
  ::close(fd);
}

TEST_F(FileUtil, TruncateFailureIsReturnedAfterALevelZeroTrace) {
  const std::string path = dir / "cut";
  writeFile(path, "0123456789");
  const int fd = ::open(path.c_str(), O_RDWR);
  ASSERT_GE(fd, 0);
  TraceCapture trace({0}, *handler);
  EXPECT_EQ(-1, Util::truncate(*handler, "named", -1, 10));
  // Beyond off_t's range the length turns negative and is refused.
  EXPECT_EQ(-1, Util::truncate(*handler, path.c_str(), fd, ULONG_MAX));
  EXPECT_EQ((Lines{line(0, "truncate", "size:10 error: named: Bad file descriptor"),
                   line(0, "truncate", "size:18446744073709551615 error: " + path + ": Invalid argument")}),
            trace.lines());
  EXPECT_EQ("0123456789", readFile(path));
  ::close(fd);
}

// --- fileSizeHelper -----------------------------------------------------------------------------

TEST(FileSizeHelper, MultipliesAndAdds) {
  EXPECT_EQ(0u, Util::fileSizeHelper(0, 0, 0));
  EXPECT_EQ(1024u * 64u + 4096u, Util::fileSizeHelper(1024, 64, 4096));
  EXPECT_EQ(ULONG_MAX, Util::fileSizeHelper(1, ULONG_MAX - 1, 1));
  EXPECT_EQ(ULONG_MAX, Util::fileSizeHelper(ULONG_MAX, 1, 0));
}

TEST(FileSizeHelper, ProductBeyondSixtyFourBitsThrows) {
  TraceCapture trace({0}, *Kesto::Debug::kestoUtil);
  EXPECT_EQ("Kesto::Util::fileSizeHelper() fileSizeHelper overflow, entries:4294967296 entrySize:4294967296 "
            "xResult:0 endResult:7",
            runtimeText([] { Util::fileSizeHelper(1ul << 32, 1ul << 32, 7); }));
  // The text is traced at level 0 of KestoUtil as it is thrown.
  EXPECT_EQ((Lines{kestoUtilLine(0, "fileSizeHelper", "fileSizeHelper overflow, entries:4294967296 "
                                                      "entrySize:4294967296 xResult:0 endResult:7")}),
            trace.lines());
}

TEST(FileSizeHelper, SumThatWrapsThrows) {
  TraceCapture trace({0}, *Kesto::Debug::kestoUtil);
  EXPECT_EQ("Kesto::Util::fileSizeHelper() fileSizeHelper overflow, entries:1 entrySize:18446744073709551615 "
            "xResult:18446744073709551615 endResult:1",
            runtimeText([] { Util::fileSizeHelper(1, ULONG_MAX, 2); }));
}

// --- mkpath -------------------------------------------------------------------------------------

TEST_F(FileUtil, MkpathMakesTheMissingDirectoriesEachWithExactlyTheMode) {
  UmaskGuard restrictive(077);
  const std::string top = dir / "a";
  ASSERT_EQ(0, ::mkdir(top.c_str(), 0700));
  TraceCapture trace({9}, *Kesto::Debug::kestoUtil);
  EXPECT_EQ(0, Util::mkpath((top + "/b/c").c_str(), 0751));
  EXPECT_EQ(0751u, modeOf(top + "/b"));
  EXPECT_EQ(0751u, modeOf(top + "/b/c"));
  EXPECT_EQ(0700u, modeOf(top));
  EXPECT_EQ(077u, currentUmask());
  EXPECT_EQ((Lines{kestoUtilLine(9, "mkpath", "creating path: " + top + "/b/c mode: 751"),
                   kestoUtilLine(9, "mkpath", "creating path: " + top + "/b mode: 751")}),
            trace.lines());
}

TEST_F(FileUtil, MkpathOfAnExistingDirectoryIsSuccess) {
  EXPECT_EQ(0, Util::mkpath(dir.path().c_str(), 0700));
  // An existing file counts as well: mkdir says EEXIST.
  writeFile(dir / "file", "");
  EXPECT_EQ(0, Util::mkpath((dir / "file").c_str(), 0700));
}

TEST_F(FileUtil, MkpathThroughARegularFileFailsWithItsErrno) {
  writeFile(dir / "file", "");
  errno = 0;
  EXPECT_EQ(-1, Util::mkpath((dir / "file/sub/dir").c_str(), 0777));
  EXPECT_EQ(ENOTDIR, errno);
}

TEST_F(FileUtil, MkpathOfANullPathFails) {
  errno = 0;
  EXPECT_EQ(-1, Util::mkpath(nullptr, 0777));
  EXPECT_EQ(EFAULT, errno);
}

TEST_F(FileUtil, MkpathOfARelativePathWorksFromTheWorkingDirectory) {
  const int status = statusOfChild([&] {
    if (::chdir(dir.path().c_str()) != 0)
      return 2;
    if (Util::mkpath("x/y", 0700) != 0)
      return 3;
    return modeOf("x/y") == 0700 ? 0 : 4;
  });
  EXPECT_TRUE(exitedWith(status, 0)) << status;
  EXPECT_TRUE(std::filesystem::is_directory(dir / "x/y"));
}

// A path without '/' is its own parent: the empty path recurses until the
// stack runs out, so the child never returns from mkpath.
TEST_F(FileUtil, MkpathOfTheEmptyPathRecursesUntilTheStackRunsOut) {
  const int status = statusOfChild([] {
    silenceStandardError();
    Util::mkpath("", 0777);
    return 0;
  });
  EXPECT_FALSE(exitedWith(status, 0)) << status;
  EXPECT_FALSE(WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM) << "the recursion did not end";
}

// --- trimpath -----------------------------------------------------------------------------------

TEST_F(FileUtil, TrimpathRemovesTheTrailingDirectoriesBottomUp) {
  const std::string abs = dir / "a/b/c/d";
  ASSERT_EQ(0, Util::mkpath(abs.c_str(), 0700));
  TraceCapture trace({5, 9}, *Kesto::Debug::kestoUtil);
  EXPECT_EQ(0, Util::trimpath(abs.c_str(), "c/d"));
  EXPECT_FALSE(std::filesystem::exists(dir / "a/b/c"));
  EXPECT_TRUE(std::filesystem::is_directory(dir / "a/b"));
  EXPECT_EQ((Lines{kestoUtilLine(9, "trimpath", "removing dir " + abs),
                   kestoUtilLine(9, "trimpath", "removing dir " + dir / "a/b/c"),
                   kestoUtilLine(5, "trimpath", "removed sub-tree c/d from absolute path " + abs)}),
            trace.lines());
}

TEST_F(FileUtil, TrimpathGoesOnPastAMissingDirectory) {
  ASSERT_EQ(0, Util::mkpath((dir / "a/b/c").c_str(), 0700));
  EXPECT_EQ(0, Util::trimpath((dir / "a/b/c/d").c_str(), "/c/d"));
  EXPECT_FALSE(std::filesystem::exists(dir / "a/b/c"));
  EXPECT_TRUE(std::filesystem::is_directory(dir / "a/b"));
}

TEST_F(FileUtil, TrimpathStopsAtADirectoryThatHasEntries) {
  ASSERT_EQ(0, Util::mkpath((dir / "a/b/c/d").c_str(), 0700));
  writeFile(dir / "a/b/c/keep", "");
  TraceCapture trace({5}, *Kesto::Debug::kestoUtil);
  EXPECT_EQ(-1, Util::trimpath((dir / "a/b/c/d").c_str(), "b/c/d"));
  EXPECT_FALSE(std::filesystem::exists(dir / "a/b/c/d"));
  EXPECT_TRUE(std::filesystem::exists(dir / "a/b/c/keep"));
  EXPECT_EQ((Lines{kestoUtilLine(5, "trimpath", "rmdir() error " + dir / "a/b/c" + " reason: Directory not empty")}),
            trace.lines());
}

TEST(Trimpath, MisuseAssertsToKestoUtil) {
  const auto text = [](const char* abs, std::string_view tail) {
    return assertMessageOf([&] { Util::trimpath(abs, tail); });
  };
  TraceCapture trace({}, *Kesto::Debug::kestoUtil);
  EXPECT_EQ("Kesto::Util::trimpath() absolute path is empty", text("", "a"));
  EXPECT_EQ("Kesto::Util::trimpath() absolute path is empty", text(nullptr, "a"));
  EXPECT_EQ("Kesto::Util::trimpath() absolute path is not absolute", text("a/b", "b"));
  EXPECT_EQ("Kesto::Util::trimpath() trailing path is empty", text("/a/b", ""));
  EXPECT_EQ("Kesto::Util::trimpath() trailing path longer than absolute path", text("/a/b", "/a/b"));
  EXPECT_EQ("Kesto::Util::trimpath() trailing path longer than absolute path", text("/a", "x/a/b"));
  EXPECT_EQ("Kesto::Util::trimpath() trailing path is not a terminal substring of absolute path",
            text("/a/b", "a"));
  // Each assertion is written through the KestoUtil handler.
  EXPECT_EQ(7u, trace.linesWith("KestoUtil 0 ").size()) << trace.text();
}

// --- getCwd -------------------------------------------------------------------------------------

TEST_F(FileUtil, GetCwdGivesTheWorkingDirectory) {
  EXPECT_EQ(std::filesystem::current_path().string(), Util::getCwd(*handler));
}

TEST_F(FileUtil, GetCwdOfARemovedDirectoryThrows) {
  const std::string gone = dir / "gone";
  ASSERT_EQ(0, ::mkdir(gone.c_str(), 0700));
  const int status = statusOfChild([&] {
    if (::chdir(gone.c_str()) != 0 || ::rmdir(gone.c_str()) != 0)
      return 2;
    const std::string what = runtimeText([&] { Util::getCwd(*handler); });
    return what == "Kesto::Util::getCwd() getcwd() failed:No such file or directory" ? 0 : 3;
  });
  EXPECT_TRUE(exitedWith(status, 0)) << status;
}

// A working directory deeper than the 4096 bytes of the buffer.
TEST_F(FileUtil, GetCwdOfAPathLongerThanItsBufferThrows) {
  const int status = statusOfChild([&] {
    if (::chdir(dir.path().c_str()) != 0)
      return 2;
    const std::string name(200, 'd');
    constexpr int depth = 25;
    for (int i = 0; i < depth; ++i)
      if (::mkdir(name.c_str(), 0700) != 0 || ::chdir(name.c_str()) != 0)
        return 3;
    const std::string what = runtimeText([&] { Util::getCwd(*handler); });
    // Take the tree down again: its paths are too long for remove_all.
    for (int i = 0; i < depth; ++i)
      if (::chdir("..") != 0 || ::rmdir(name.c_str()) != 0)
        return 4;
    return what == "Kesto::Util::getCwd() getcwd() failed:Numerical result out of range" ? 0 : 5;
  });
  EXPECT_TRUE(exitedWith(status, 0)) << status;
}

// --- null paths ---------------------------------------------------------------------------------

// A null path is the empty path, which names no file.
TEST_F(FileUtil, NullPathNamesNoFile) {
  TraceCapture trace({0, 5}, *handler);
  EXPECT_EQ("x", runtimeText([&] { Util::fileWrite(*handler, nullptr, "x", false); }));
  EXPECT_FALSE(Util::touch(*handler, nullptr));
  EXPECT_FALSE(Util::fileExists(*handler, nullptr));
  EXPECT_TRUE(Util::fileRemove(*handler, nullptr));
  EXPECT_EQ(0u, Util::fileSize(*handler, nullptr));
  EXPECT_EQ((Lines{line(0, "fileWrite", "unable to open (null) reason:No such file or directory"),
                   line(0, "touch", "unable to open (null) reason: No such file or directory"),
                   line(5, "fileExists", "checking if (null) exists, stat result: -1"),
                   line(5, "fileSize", "unable to stat file (null): No such file or directory")}),
            trace.lines());
}

// --- descriptors ----------------------------------------------------------------------------------

// Every path through the helpers, good and failing, closes what it opened.
TEST_F(FileUtil, NoHelperLeavesADescriptorOpen) {
  const std::string file = dir / "file";
  writeFile(file, "content");
  const int before = openDescriptorCount();
  TraceCapture trace({0, 1, 5}, *handler);
  for (int i = 0; i < 3; ++i) {
    Util::fileRead(*handler, file.c_str(), true);
    Util::fileRead(*handler, dir.path().c_str(), true);
    Util::fileRead(*handler, (dir / "missing").c_str(), true);
    Util::fileWrite(*handler, (dir / "written").c_str(), "text", false);
    Util::fileWrite(*handler, "/dev/full", "text", true);
    Util::fileWrite(*handler, dir.path().c_str(), "text", true);
    Util::touch(*handler, (dir / "touched").c_str());
    Util::touch(*handler, (dir / "missing/touched").c_str());
    Util::fileSize(*handler, file.c_str());
    Util::fileExists(*handler, file.c_str());
    Util::fileRemove(*handler, (dir / "touched").c_str());
    Util::mkpath((dir / "p/q").c_str(), 0700);
    Util::trimpath((dir / "p/q").c_str(), "p/q");
  }
  trace.text();
  EXPECT_EQ(before, openDescriptorCount());
}

// Out of descriptors: opening fails with EMFILE, and each helper takes the
// failure as it takes any failure to open.
TEST_F(FileUtil, OutOfDescriptorsEachHelperFailsAsForAnyOpenFailure) {
  if (!descriptorExhaustionIsTestable)
    GTEST_SKIP() << descriptorExhaustionSkipReason;
  const std::string file = dir / "file";
  writeFile(file, "content");
  const int status = statusOfChild([&] {
    Kesto::Platform::DebugHandler& h = *handler;
    std::string traced;
    int result = 0;
    {
      TraceCapture trace({0, 5}, h);
      exhaustDescriptors();
      if (Util::fileRead(h, file.c_str(), true) != "")
        result |= 1 << 0;
      if (runtimeText([&] { Util::fileWrite(h, (dir / "new").c_str(), "lost", false); }) != "lost")
        result |= 1 << 1;
      if (Util::touch(h, (dir / "new").c_str()))
        result |= 1 << 2;
      // What needs no descriptor still works.
      if (!Util::fileExists(h, file.c_str()) || Util::fileSize(h, file.c_str()) != 7)
        result |= 1 << 3;
      rlimit limit{};
      ::getrlimit(RLIMIT_NOFILE, &limit);
      limit.rlim_cur = limit.rlim_max;
      ::setrlimit(RLIMIT_NOFILE, &limit);
      traced = trace.text();
    }
    const std::string tooMany = "Too many open files";
    if (traced.find(line(5, "fileRead", "unable to open file " + file)) == std::string::npos)
      result |= 1 << 4;
    if (traced.find(line(0, "fileWrite", "unable to open " + dir / "new" + " reason:" + tooMany)) == std::string::npos)
      result |= 1 << 5;
    if (traced.find(line(0, "touch", "unable to open " + dir / "new" + " reason: " + tooMany)) == std::string::npos)
      result |= 1 << 6;
    return result;
  });
  EXPECT_TRUE(exitedWith(status, 0)) << "failed checks (bits): " << (WIFEXITED(status) ? WEXITSTATUS(status) : -1);
  EXPECT_FALSE(std::filesystem::exists(dir / "new"));
}
