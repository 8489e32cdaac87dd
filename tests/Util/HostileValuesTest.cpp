// Hostile paths and names at the utilities: the empty path, a 64 KiB path,
// a path with an embedded NUL (a C string ends there), a directory where a
// file is expected, descriptors that are negative or far beyond any open one,
// lengths and sizes at the top of their range. Each helper gives the plain
// result it gives for any failure of its system call (false, 0, an empty
// text, -1 or its exception), or the assertion of its checks, and never
// crashes.
//
// Not tried: mkpath of the empty path, and FileLock or mkpath of a name
// without a '/' in a deleted working directory. Both recurse without end, as
// documented in FileUtil.h; FileLockTest shows that such a call ends the
// process rather than returning.
#include "UtilTestSupport.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <climits>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

using namespace KestoTest;
using namespace Kesto;

namespace {

class UtilHostileValues : public ::testing::Test {
protected:
  ScratchDir dir;
  Ptr<Platform::DebugHandler> handler = testHandler();
  const std::string longPath = "/" + std::string(64 * 1024, 'p');
};

} // namespace

TEST_F(UtilHostileValues, FileHelpersGiveTheirFailureResultForEmptyLongAndDirectoryPaths) {
  Platform::DebugHandler& h = *handler;
  const std::string dirPath = dir.path();
  struct Case {
    const char* what;
    std::string path;
  };
  const std::vector<Case> failing = {{"empty", ""}, {"64 KiB", longPath}, {"missing directory", dir / "no/such"}};
  for (const Case& c : failing) {
    SCOPED_TRACE(c.what);
    const char* p = c.path.c_str();
    EXPECT_EQ("", Util::fileRead(h, p, true).str());
    EXPECT_EQ("payload", runtimeText([&] { Util::fileWrite(h, p, "payload", false); }));
    EXPECT_EQ("<no exception>", runtimeText([&] { Util::fileWrite(h, p, "payload", true); }));
    EXPECT_FALSE(Util::touch(h, p));
    EXPECT_FALSE(Util::fileExists(h, p));
    EXPECT_EQ(0ul, Util::fileSize(h, p));
  }
  // The empty path and a missing one are "not there", which is what removal
  // wants; a name too long to look up is a failure.
  EXPECT_TRUE(Util::fileRemove(h, ""));
  EXPECT_TRUE(Util::fileRemove(h, (dir / "no/such").c_str()));
  EXPECT_FALSE(Util::fileRemove(h, longPath.c_str()));
  // A directory where a file is expected.
  EXPECT_EQ("", Util::fileRead(h, dirPath.c_str(), true).str());
  EXPECT_EQ("payload", runtimeText([&] { Util::fileWrite(h, dirPath.c_str(), "payload", false); }));
  EXPECT_FALSE(Util::fileRemove(h, dirPath.c_str()));
}

TEST_F(UtilHostileValues, PathWithAnEmbeddedNulEndsAtTheNul) {
  Platform::DebugHandler& h = *handler;
  writeFile(dir / "real", "text");
  const std::string withNul = dir / "real" + std::string("\0.ignored", 9);
  EXPECT_EQ("text", Util::fileRead(h, withNul.c_str(), false).str());
  EXPECT_TRUE(Util::fileExists(h, withNul.c_str()));
  EXPECT_EQ(4ul, Util::fileSize(h, withNul.c_str()));
  // A text with NULs is written whole: the length is the view's.
  const std::string data("a\0b", 3);
  Util::fileWrite(h, (dir / "nul").c_str(), data, false);
  EXPECT_EQ(data, readFile(dir / "nul"));
  // fileRead cuts at the first NUL.
  EXPECT_EQ("a", Util::fileRead(h, (dir / "nul").c_str(), false).str());
}

TEST_F(UtilHostileValues, DescriptorsAndLengthsOutOfRangeGiveZeroOrANegativeResult) {
  Platform::DebugHandler& h = *handler;
  for (int fd : {-1, INT_MIN, INT_MAX, 4095}) {
    SCOPED_TRACE(fd);
    EXPECT_EQ(0ul, Util::fileSize(h, fd));
    EXPECT_LT(Util::truncate(h, "nowhere", fd, 10), 0);
  }
  const std::string file = dir / "t";
  writeFile(file, "0123456789");
  const int fd = ::open(file.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  // A length beyond off_t is negative to ftruncate: refused, size kept.
  EXPECT_LT(Util::truncate(h, file.c_str(), fd, ULONG_MAX), 0);
  EXPECT_LT(Util::truncate(h, file.c_str(), fd, (1ul << 63)), 0);
  EXPECT_EQ(10ul, Util::fileSize(h, fd));
  ::close(fd);
}

TEST_F(UtilHostileValues, SizeProductsThatDoNotFitThrowAndThoseThatFitAreExact) {
  struct Case {
    unsigned long entries, entrySize, header;
    bool overflows;
  };
  const std::vector<Case> cases = {
      {1ul << 32, 1ul << 32, 0, true},
      {ULONG_MAX, 2, 0, true},
      {1, ULONG_MAX, 1, true},
      {0, ULONG_MAX, ULONG_MAX, false},
      {ULONG_MAX, 1, 0, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.entries);
    const std::string text = runtimeText([&] { Util::fileSizeHelper(c.entries, c.entrySize, c.header); });
    if (c.overflows) {
      EXPECT_NE(std::string::npos, text.find("fileSizeHelper overflow")) << text;
    } else {
      EXPECT_EQ("<no exception>", text);
      EXPECT_EQ(c.entries * c.entrySize + c.header, Util::fileSizeHelper(c.entries, c.entrySize, c.header));
    }
  }
}

TEST_F(UtilHostileValues, DirectoryHelpersRefuseHostilePathsByResultOrAssertion) {
  EXPECT_EQ(-1, Util::mkpath(longPath.c_str(), 0700));
  EXPECT_EQ(ENAMETOOLONG, errno);
  struct Case {
    std::string absolute, trailing;
    const char* message;
  };
  const std::vector<Case> cases = {
      {"", "a", "absolute path is empty"},
      {"relative/a", "a", "absolute path is not absolute"},
      {"/a/b", "", "trailing path is empty"},
      {"/a", "/a", "trailing path longer than absolute path"},
      {"/a/b", "c", "trailing path is not a terminal substring of absolute path"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.message);
    EXPECT_NE(std::string::npos, assertMessageOf([&] { Util::trimpath(c.absolute.c_str(), c.trailing); }).find(c.message));
  }
  // A long tail that is not there: nothing to remove, not an error.
  const std::string deep = dir / std::string(200, 'd');
  EXPECT_EQ(0, Util::trimpath(deep.c_str(), std::string(200, 'd')));
}

TEST_F(UtilHostileValues, DirectoryNodesOfHostilePathsAreClosedAndRefuseToSearch) {
  for (const std::string& path : {std::string(), longPath, dir / "missing", std::string("/\xff\xfe")}) {
    SCOPED_TRACE(path.size());
    DirNode node(*handler, String(path), nullptr);
    EXPECT_FALSE(node.isOpen());
    EXPECT_EQ("DirNode::findFiles() cannot find .log files in " + path + " because the directory is not open",
              runtimeText([&] { node.findFiles(".log"); }));
  }
}

TEST_F(UtilHostileValues, LocksOfHostileNamesAreRefusedWithoutCreatingAFile) {
  // Too long to open: lock() is false.
  FileLock tooLong(*handler, String(dir / "locks"), String(std::string(64 * 1024, 'l')));
  EXPECT_FALSE(tooLong.lock(false));
  // A name with a '/' would lock a file elsewhere: refused at construction.
  EXPECT_EQ("FileLock::FileLock() unexpected '/' in filename: a/b/c",
            assertMessageOf([&] { FileLock nested(*handler, String(dir / "locks"), String("a/b/c")); }));
  EXPECT_FALSE(std::filesystem::exists(dir / "locks/a"));
}

TEST_F(UtilHostileValues, SocketNamesAreCutAt107BytesAndEmptyOnesAreAbstractToo) {
  struct Case {
    std::string name;
    unsigned length;
  };
  const std::vector<Case> cases = {
      {"", 3}, {std::string(107, 'n'), 110}, {std::string(64 * 1024, 'n'), 110}, {std::string("a\0b", 3), 6}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name.size());
    sockaddr_un address;
    std::memset(&address, 0xaa, sizeof address);
    EXPECT_EQ(c.length, Util::createSockaddr(*handler, &address, String(c.name)));
    EXPECT_EQ(AF_UNIX, address.sun_family);
    EXPECT_EQ('\0', address.sun_path[0]);
    EXPECT_EQ(c.name.substr(0, 107), std::string(address.sun_path + 1, c.length - 3));
  }
}

TEST_F(UtilHostileValues, TraceHandleNamesOfHostilePathsAreShortAndWellFormed) {
  struct Case {
    std::string path;
    std::string base;
  };
  const std::vector<Case> cases = {
      {"", ""}, {"////", ""}, {longPath, longPath.substr(1)}, {std::string("dir/a\0b", 7), std::string("a\0b", 3)}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path.size());
    const std::string name = Util::traceHandleName(String(c.path), String("P"), true).str();
    ASSERT_EQ(std::size_t(1 + 5 + 6 + 1) + c.base.size(), name.size());
    EXPECT_EQ("PTemp-", name.substr(0, 6));
    EXPECT_EQ('-', name[12]);
    EXPECT_EQ(c.base, name.substr(13));
  }
}
