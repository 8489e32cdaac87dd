// DirNode: opening, reading, rewinding and filtering one directory, the
// traces of each, and the walk of a tree with findFilesInTree.
#include "UtilTestSupport.h"

#include <algorithm>
#include <functional>
#include <set>
#include <vector>

using namespace KestoTest;
using Kesto::DirNode;

namespace {

using Lines = std::vector<std::string>;
using Names = std::vector<std::string>;

std::string line(unsigned level, const char* function, const std::string& text) {
  return "UtilTest " + std::to_string(level) + " DirNode::" + function + "() " + text;
}

Names sorted(const std::vector<Kesto::String>& names) {
  Names result;
  for (const Kesto::String& name : names)
    result.push_back(name.str());
  std::sort(result.begin(), result.end());
  return result;
}

Names allEntries(const DirNode& node) {
  Names names;
  while (const dirent* entry = node.readEntry())
    names.push_back(entry->d_name);
  std::sort(names.begin(), names.end());
  return names;
}

class DirNodeTest : public ::testing::Test {
protected:
  // a.log, b.log.1, c.log/ (a directory), d.log -> a.log, e.txt, .log,
  // f.log -> missing (dangling), a fifo g.log.
  void fillMixedDirectory() {
    writeFile(dir / "a.log", "a");
    writeFile(dir / "b.log.1", "b");
    ASSERT_EQ(0, ::mkdir((dir / "c.log").c_str(), 0700));
    ASSERT_EQ(0, ::symlink("a.log", (dir / "d.log").c_str()));
    writeFile(dir / "e.txt", "e");
    writeFile(dir / ".log", "");
    ASSERT_EQ(0, ::symlink("missing", (dir / "f.log").c_str()));
    ASSERT_EQ(0, ::mkfifo((dir / "g.log").c_str(), 0600));
  }

  ScratchDir dir;
  Kesto::Ptr<Kesto::Platform::DebugHandler> handler = testHandler();
};

} // namespace

// --- opening ----------------------------------------------------------------------------------------

TEST_F(DirNodeTest, NodeWithoutAPathIsClosed) {
  DirNode node(*handler);
  EXPECT_FALSE(node.isOpen());
  EXPECT_EQ(nullptr, node.dir_);
  EXPECT_EQ(nullptr, node.parent_);
  EXPECT_EQ("", node.path_);
}

TEST_F(DirNodeTest, NodeOpensItsPathAtConstruction) {
  DirNode node(*handler, dir.path(), nullptr);
  EXPECT_TRUE(node.isOpen());
  EXPECT_EQ(dir.path(), node.path_);
  EXPECT_EQ((Names{".", ".."}), allEntries(node));
}

TEST_F(DirNodeTest, MissingDirectoryTracesOnlyAtLevelNineAndStaysClosed) {
  const std::string missing = dir / "missing";
  TraceCapture trace({1, 5, 9}, *handler);
  DirNode node(*handler, missing, nullptr);
  EXPECT_FALSE(node.isOpen());
  EXPECT_EQ((Lines{line(9, "DirNode", "path: " + missing), line(9, "openDir", "failed to open " + missing + " errno: 2")}),
            trace.lines());
}

TEST_F(DirNodeTest, MissingDirectoryIsSilentBelowLevelNine) {
  TraceCapture trace({0, 1, 5, 8}, *handler);
  DirNode node(*handler, dir / "missing", nullptr);
  EXPECT_EQ(Lines{}, trace.lines());
}

TEST_F(DirNodeTest, ClosedNodeReadsNullAndRefusesRewindAndFindFiles) {
  const std::string missing = dir / "missing";
  DirNode node(*handler, missing, nullptr);
  TraceCapture trace({0, 5}, *handler);
  EXPECT_EQ(nullptr, node.readEntry());
  EXPECT_EQ("DirNode::rewind() cannot rewind " + missing + " because the directory is not open",
            runtimeText([&] { node.rewind(); }));
  EXPECT_EQ("DirNode::findFiles() cannot find .log files in " + missing + " because the directory is not open",
            runtimeText([&] { node.findFiles(".log"); }));
  EXPECT_EQ((Lines{line(5, "readEntry", "cannot read " + missing + " because the directory is not open"),
                   line(0, "rewind", "cannot rewind " + missing + " because the directory is not open"),
                   line(0, "findFiles", "cannot find .log files in " + missing + " because the directory is not open")}),
            trace.lines());
}

// What a walk meets (ENOENT, ENOTDIR, and EACCES for users other than root)
// is a level 9 detail.
TEST_F(DirNodeTest, PathThatIsAFileOrGoesThroughOneIsALevelNineDetail) {
  writeFile(dir / "plain", "");
  TraceCapture trace({1, 9}, *handler);
  DirNode file(*handler, dir / "plain", nullptr);
  DirNode through(*handler, dir / "plain/below", nullptr);
  DirNode empty(*handler, "", nullptr);
  EXPECT_FALSE(file.isOpen());
  EXPECT_FALSE(through.isOpen());
  EXPECT_FALSE(empty.isOpen());
  EXPECT_EQ((Lines{line(9, "openDir", "failed to open " + dir / "plain" + " errno: 20"),
                   line(9, "openDir", "failed to open " + dir / "plain/below" + " errno: 20"),
                   line(9, "openDir", "failed to open  errno: 2")}),
            trace.linesWith("openDir"));
}

TEST_F(DirNodeTest, NameTooLongIsAFailureAtLevelOne) {
  const std::string tooLong = dir / std::string(300, 'n');
  TraceCapture trace({1, 9}, *handler);
  DirNode node(*handler, tooLong, nullptr);
  EXPECT_FALSE(node.isOpen());
  EXPECT_EQ((Lines{line(1, "openDir", "failed to open " + tooLong + " errno: 36")}), trace.linesWith("openDir"));
}

// Any other failure to open (here EMFILE) is a failure: level 1.
TEST_F(DirNodeTest, OutOfDescriptorsOpenFailsAtLevelOne) {
  if (!descriptorExhaustionIsTestable)
    GTEST_SKIP() << descriptorExhaustionSkipReason;
  const int status = statusOfChild([&] {
    std::string traced;
    bool open;
    {
      TraceCapture trace({1}, *handler);
      exhaustDescriptors();
      DirNode node(*handler, dir.path(), nullptr);
      open = node.isOpen();
      rlimit limit{};
      ::getrlimit(RLIMIT_NOFILE, &limit);
      limit.rlim_cur = limit.rlim_max;
      ::setrlimit(RLIMIT_NOFILE, &limit);
      traced = trace.text();
    }
    if (open)
      return 2;
    return traced == line(1, "openDir", "failed to open " + dir.path() + " errno: 24") + "\n" ? 0 : 3;
  });
  EXPECT_TRUE(exitedWith(status, 0)) << status;
}

TEST_F(DirNodeTest, PathIsOnAnOpenNodeClosesTheOldDirectoryFirst) {
  ASSERT_EQ(0, ::mkdir((dir / "other").c_str(), 0700));
  writeFile(dir / "other/x.log", "");
  DirNode node(*handler, dir.path(), nullptr);
  const int before = openDescriptorCount();
  TraceCapture trace({9}, *handler);
  node.pathIs(dir / "other");
  EXPECT_EQ((Lines{line(9, "pathIs", "path: " + dir / "other")}), trace.lines());
  EXPECT_EQ(before, openDescriptorCount());
  EXPECT_EQ(dir / "other", node.path_);
  EXPECT_EQ((Names{".", "..", "x.log"}), allEntries(node));
  // To a missing path: the old directory is closed and the node with it.
  node.pathIs(dir / "missing");
  EXPECT_FALSE(node.isOpen());
  EXPECT_EQ(before - 1, openDescriptorCount());
}

TEST_F(DirNodeTest, OpenDirAgainReadsFromTheStart) {
  writeFile(dir / "x", "");
  DirNode node(*handler, dir.path(), nullptr);
  EXPECT_EQ(3u, allEntries(node).size());
  const int before = openDescriptorCount();
  node.openDir();
  EXPECT_EQ(before, openDescriptorCount());
  EXPECT_EQ(3u, allEntries(node).size());
}

// --- reading ----------------------------------------------------------------------------------------

TEST_F(DirNodeTest, ReadEntryGivesEveryEntryWithDotAndDotDotThenNull) {
  fillMixedDirectory();
  DirNode node(*handler, dir.path(), nullptr);
  EXPECT_EQ((Names{".", "..", ".log", "a.log", "b.log.1", "c.log", "d.log", "e.txt", "f.log", "g.log"}),
            allEntries(node));
  EXPECT_EQ(nullptr, node.readEntry());
  EXPECT_EQ(nullptr, node.readEntry());
  node.rewind();
  EXPECT_EQ(10u, allEntries(node).size());
}

TEST_F(DirNodeTest, ReadEntryAndRewindTraceThePathAtLevelNine) {
  DirNode node(*handler, dir.path(), nullptr);
  TraceCapture trace({9}, *handler);
  node.readEntry();
  node.rewind();
  EXPECT_EQ((Lines{line(9, "readEntry", "path: " + dir.path()), line(9, "rewind", "path: " + dir.path())}),
            trace.lines());
}

TEST_F(DirNodeTest, DirectoryRemovedWhileOpenReadsAsEmpty) {
  const std::string doomed = dir / "doomed";
  ASSERT_EQ(0, ::mkdir(doomed.c_str(), 0700));
  DirNode node(*handler, doomed, nullptr);
  ASSERT_EQ(0, ::rmdir(doomed.c_str()));
  EXPECT_EQ(nullptr, node.readEntry());
  EXPECT_EQ(std::vector<Kesto::String>{}, node.findFiles(""));
}

// The descriptor closed under the node: reading fails with EBADF and
// throws, and the destructor's closedir fails and is traced at level 1.
TEST_F(DirNodeTest, ReadFailureThrowsAndCloseFailureIsTraced) {
  TraceCapture trace({0, 1}, *handler);
  {
    DirNode node(*handler, dir.path(), nullptr);
    ASSERT_EQ(0, ::close(::dirfd(node.dir_)));
    EXPECT_EQ("DirNode::readEntry() failed to read " + dir.path() + " errno: 9",
              runtimeText([&] { node.readEntry(); }));
  }
  EXPECT_EQ((Lines{line(0, "readEntry", "failed to read " + dir.path() + " errno: 9"),
                   line(1, "~DirNode", "failed to close " + dir.path() + " errno: 9")}),
            trace.lines());
}

// --- findFiles --------------------------------------------------------------------------------------

TEST_F(DirNodeTest, FindFilesMatchesRegularFilesAndLinksThatEndWithTheExtension) {
  fillMixedDirectory();
  DirNode node(*handler, dir.path(), nullptr);
  // Not b.log.1 (does not end so), c.log (a directory), g.log (a fifo);
  // the dangling link f.log matches, being a link. ".log" equals the
  // extension and matches.
  EXPECT_EQ((Names{".log", "a.log", "d.log", "f.log"}), sorted(node.findFiles(".log")));
}

TEST_F(DirNodeTest, FindFilesOfLogInTheBasicCaseGivesTheOneFile) {
  writeFile(dir / "a.log", "");
  writeFile(dir / "b.log.1", "");
  ASSERT_EQ(0, ::mkdir((dir / "c.log").c_str(), 0700));
  DirNode node(*handler, dir.path(), nullptr);
  EXPECT_EQ((Names{"a.log"}), sorted(node.findFiles(".log")));
}

TEST_F(DirNodeTest, EmptyExtensionMatchesEveryRegularFileAndLink) {
  fillMixedDirectory();
  DirNode node(*handler, dir.path(), nullptr);
  EXPECT_EQ((Names{".log", "a.log", "b.log.1", "d.log", "e.txt", "f.log"}), sorted(node.findFiles("")));
}

TEST_F(DirNodeTest, ExtensionWithoutADotMatchesAnyEnding) {
  writeFile(dir / "catalog", "");
  writeFile(dir / "a.log", "");
  writeFile(dir / "og", "");
  writeFile(dir / "g", "");
  DirNode node(*handler, dir.path(), nullptr);
  EXPECT_EQ((Names{"a.log", "catalog", "og"}), sorted(node.findFiles("og")));
}

TEST_F(DirNodeTest, FindFilesStartsFromTheFirstEntryAndLeavesTheDirectoryAtItsEnd) {
  writeFile(dir / "a.log", "");
  DirNode node(*handler, dir.path(), nullptr);
  ASSERT_NE(nullptr, node.readEntry());
  EXPECT_EQ((Names{"a.log"}), sorted(node.findFiles(".log")));
  EXPECT_EQ(nullptr, node.readEntry());
  EXPECT_EQ((Names{"a.log"}), sorted(node.findFiles(".log")));
  node.rewind();
  EXPECT_NE(nullptr, node.readEntry());
}

TEST_F(DirNodeTest, FindFilesTracesFoundAtLevelEightAndSkippedAtLevelNine) {
  writeFile(dir / "a.log", "");
  writeFile(dir / "b.txt", "");
  DirNode node(*handler, dir.path(), nullptr);
  TraceCapture trace({8}, *handler);
  node.findFiles(".log");
  EXPECT_EQ((Lines{line(8, "findFiles", "found file with extension .log: a.log")}), trace.lines());
  TraceCapture detail({9}, *handler);
  node.findFiles(".log");
  EXPECT_EQ(1u, detail.linesWith(line(9, "findFiles", "path: " + dir.path() + " extension: .log")).size());
  EXPECT_EQ(1u, detail.linesWith(line(9, "findFiles", "skipping file: b.txt")).size());
  EXPECT_EQ(0u, detail.linesWith("skipping file: a.log").size());
  // Directories are passed over without a word.
  EXPECT_EQ(0u, detail.linesWith("skipping file: .").size());
}

TEST_F(DirNodeTest, FindFilesGivesLongNamesWhole) {
  const std::string name = std::string(250, 'n') + ".log";
  writeFile(dir / name, "");
  DirNode node(*handler, dir.path(), nullptr);
  EXPECT_EQ((Names{name}), sorted(node.findFiles(".log")));
  EXPECT_EQ(Names{}, sorted(node.findFiles(std::string(300, 'n') + ".log")));
}

// --- nodes, parents, descriptors --------------------------------------------------------------------

TEST_F(DirNodeTest, ChildKeepsItsParentAliveAndItAlone) {
  ASSERT_EQ(0, ::mkdir((dir / "sub").c_str(), 0700));
  auto parent = std::make_shared<DirNode>(*handler, dir.path(), nullptr);
  std::weak_ptr<DirNode> watch = parent;
  auto child = std::make_shared<DirNode>(*handler, dir / "sub", parent);
  parent.reset();
  ASSERT_FALSE(watch.expired());
  EXPECT_EQ(dir.path(), child->parent_->path_);
  child.reset();
  EXPECT_TRUE(watch.expired());
}

TEST_F(DirNodeTest, NodesCloseTheirDirectoriesAndTraceAtLevelNine) {
  {
    TraceCapture trace({9}, *handler);
    const int before = openDescriptorCount();
    {
      DirNode node(*handler, dir.path(), nullptr);
      EXPECT_EQ(before + 1, openDescriptorCount());
    }
    EXPECT_EQ(before, openDescriptorCount());
    EXPECT_EQ(1u, trace.linesWith(line(9, "~DirNode", "path: " + dir.path())).size());
  }
  const int before = openDescriptorCount();
  for (int i = 0; i < 100; ++i)
    DirNode node(*handler, dir.path(), nullptr);
  EXPECT_EQ(before, openDescriptorCount());
}

// --- a walk of a tree -------------------------------------------------------------------------------

// d0/e0 .. d4/e3, each with f0..f5 in .log and .txt and an empty
// directory "empty.log", and top.log at the root; returns the .log paths.
std::set<std::string> fillTree(const ScratchDir& dir) {
  std::set<std::string> expected;
  for (int a = 0; a < 5; ++a)
    for (int b = 0; b < 4; ++b) {
      const std::string sub = dir / ("d" + std::to_string(a) + "/e" + std::to_string(b));
      EXPECT_EQ(0, Kesto::Util::mkpath(sub.c_str(), 0700));
      for (int f = 0; f < 6; ++f) {
        const std::string stem = sub + "/f" + std::to_string(f);
        writeFile(stem + ".log", "");
        writeFile(stem + ".txt", "");
        expected.insert(stem + ".log");
      }
      EXPECT_EQ(0, ::mkdir((sub + "/empty.log").c_str(), 0700));
    }
  writeFile(dir / "top.log", "");
  expected.insert(dir / "top.log");
  return expected;
}

// The walk finds what the file system says is there, each path once, and
// leaves no descriptor open.
TEST_F(DirNodeTest, WalkOfATreeFindsEveryFileOfTheExtension) {
  const std::set<std::string> expected = fillTree(dir);
  const int before = openDescriptorCount();
  const std::vector<Kesto::String> found = DirNode::findFilesInTree(*handler, dir.path(), ".log");
  EXPECT_EQ(before, openDescriptorCount());
  std::set<std::string> got;
  for (const Kesto::String& path : found)
    got.insert(path.str());
  EXPECT_EQ(found.size(), got.size());
  EXPECT_EQ(expected, got);
}

// Each directory is read once: readEntry, which traces its path at level
// 9 on every call, is called once per entry and once more for the end,
// and no more, in every directory of the tree.
TEST_F(DirNodeTest, WalkOfATreeReadsEachDirectoryOnce) {
  fillTree(dir);
  TraceCapture trace({9}, *handler);
  DirNode::findFilesInTree(*handler, dir.path(), ".log");
  const Lines lines = trace.lines();
  std::vector<std::string> directories = {dir.path()};
  for (std::size_t i = 0; i < directories.size(); ++i) {
    const std::string path = directories[i];
    std::size_t entries = 0;
    for (const auto& entry : std::filesystem::directory_iterator(path)) {
      ++entries;
      if (entry.is_directory())
        directories.push_back(entry.path().string());
    }
    const std::size_t reads =
        std::count(lines.begin(), lines.end(), line(9, "readEntry", "path: " + path));
    // "." and ".." besides what directory_iterator shows, and the end.
    EXPECT_EQ(entries + 3, reads) << path;
    EXPECT_EQ(1, std::count(lines.begin(), lines.end(), line(9, "findFilesInTree", "path: " + path + " extension: .log")))
        << path;
  }
  EXPECT_EQ(5u * 4u * 2u + 5u + 1u, directories.size());
}

// Depth first: the files of a subdirectory stand where readdir met the
// subdirectory, between the files of its parent read before and after it.
TEST_F(DirNodeTest, WalkOfATreeGivesFilesInReaddirOrderDepthFirst) {
  ASSERT_EQ(0, Kesto::Util::mkpath((dir / "s/t").c_str(), 0700));
  for (const char* name : {"a.log", "b.log", "c.log", "s/x.log", "s/y.log", "s/t/z.log"})
    writeFile(dir / name, "");
  // What readdir gives, walked by hand in the same order.
  std::vector<std::string> expected;
  std::function<void(const std::string&)> walk = [&](const std::string& path) {
    DIR* d = ::opendir(path.c_str());
    ASSERT_NE(nullptr, d);
    while (const dirent* entry = ::readdir(d)) {
      const std::string name = entry->d_name;
      if (entry->d_type == DT_REG)
        expected.push_back(path + "/" + name);
      else if (entry->d_type == DT_DIR && name != "." && name != "..")
        walk(path + "/" + name);
    }
    ::closedir(d);
  };
  walk(dir.path());
  ASSERT_EQ(6u, expected.size());
  std::vector<std::string> got;
  for (const Kesto::String& path : DirNode::findFilesInTree(*handler, dir.path(), ".log"))
    got.push_back(path.str());
  EXPECT_EQ(expected, got);
}

TEST_F(DirNodeTest, WalkOfATreeTracesFoundAtLevelEightAndSkippedAtLevelNineWithThePath) {
  ASSERT_EQ(0, ::mkdir((dir / "sub").c_str(), 0700));
  writeFile(dir / "sub/a.log", "");
  writeFile(dir / "sub/b.txt", "");
  TraceCapture trace({8}, *handler);
  DirNode::findFilesInTree(*handler, dir.path(), ".log");
  EXPECT_EQ((Lines{line(8, "findFilesInTree", "found file with extension .log: " + dir.path() + "/sub/a.log")}),
            trace.lines());
  TraceCapture detail({9}, *handler);
  DirNode::findFilesInTree(*handler, dir.path(), ".log");
  EXPECT_EQ(1u, detail.linesWith(line(9, "findFilesInTree", "skipping file: " + dir.path() + "/sub/b.txt")).size());
  EXPECT_EQ(0u, detail.linesWith("skipping file: " + dir.path() + "/sub/a.log").size());
  EXPECT_EQ(0u, detail.linesWith("skipping file: " + dir.path() + "/sub\n").size());
}

// A link is taken as findFiles takes it, and never entered: a link to the
// root itself does not make the walk go round.
TEST_F(DirNodeTest, WalkOfATreeTakesLinksToDirectoriesAsFilesAndDoesNotEnterThem) {
  ASSERT_EQ(0, ::mkdir((dir / "sub").c_str(), 0700));
  writeFile(dir / "sub/a.log", "");
  ASSERT_EQ(0, ::symlink("..", (dir / "sub/up.log").c_str()));
  std::vector<std::string> got;
  for (const Kesto::String& path : DirNode::findFilesInTree(*handler, dir.path(), ".log"))
    got.push_back(path.str());
  std::sort(got.begin(), got.end());
  EXPECT_EQ((Names{dir / "sub/a.log", dir / "sub/up.log"}), got);
}

TEST_F(DirNodeTest, MatchesExtensionTakesWhatFindFilesTakes) {
  fillMixedDirectory();
  DirNode node(*handler, dir.path(), nullptr);
  for (const char* extension : {".log", "", "og", ".txt", ".log.1", "a.log", "nothing"}) {
    Names matched;
    node.rewind();
    while (const dirent* entry = node.readEntry())
      if (DirNode::matchesExtension(*entry, extension))
        matched.push_back(entry->d_name);
    std::sort(matched.begin(), matched.end());
    EXPECT_EQ(sorted(node.findFiles(extension)), matched) << extension;
  }
}

// As findFiles on a node that did not open; nothing is left open.
TEST_F(DirNodeTest, WalkOfAMissingRootThrowsAsFindFilesDoes) {
  const int before = openDescriptorCount();
  TraceCapture trace({0}, *handler);
  EXPECT_EQ("DirNode::findFilesInTree() cannot find .log files in " + dir / "missing" +
                " because the directory is not open",
            runtimeText([&] { DirNode::findFilesInTree(*handler, dir / "missing", ".log"); }));
  EXPECT_EQ((Lines{line(0, "findFilesInTree",
                        "cannot find .log files in " + dir / "missing" + " because the directory is not open")}),
            trace.lines());
  EXPECT_EQ(before, openDescriptorCount());
}

// --- a file system without entry types --------------------------------------------------------------

namespace {

// Runs a shell command with its output discarded; true if it exits with 0.
// mke2fs and mount live in the administrator's directories, which a test
// run's PATH may lack.
bool run(const std::string& command) {
  const std::string line = "PATH=\"$PATH:/usr/sbin:/sbin\" " + command + " >/dev/null 2>&1";
  return std::system(line.c_str()) == 0;
}

// A real file system whose directories give DT_UNKNOWN for every entry:
// ext2 made without its filetype feature, from an image in `dir`, mounted
// through a loop device. Empty `skipReason()` when mounted; the reason
// otherwise (no mke2fs, no right to mount, no loop device).
class UntypedFileSystem {
public:
  explicit UntypedFileSystem(const ScratchDir& dir) : image_(dir / "untyped.img"), mountPoint_(dir / "untyped") {
    ::mkdir(mountPoint_.c_str(), 0700);
    if (!run("truncate -s 4M '" + image_ + "'") || !run("mke2fs -q -t ext2 -O ^filetype -F '" + image_ + "'"))
      skipReason_ = "mke2fs (e2fsprogs) could not make an ext2 image without file types";
    else if (!run("mount -o loop '" + image_ + "' '" + mountPoint_ + "'"))
      skipReason_ = "this process may not mount a file system image through a loop device";
    else
      mounted_ = true;
  }
  ~UntypedFileSystem() {
    if (mounted_ && !run("umount '" + mountPoint_ + "'"))
      ADD_FAILURE() << "umount " << mountPoint_ << " failed";
  }
  UntypedFileSystem(const UntypedFileSystem&) = delete;
  UntypedFileSystem& operator=(const UntypedFileSystem&) = delete;

  const std::string& skipReason() const { return skipReason_; }
  const std::string& path() const { return mountPoint_; }

private:
  std::string image_;
  std::string mountPoint_;
  std::string skipReason_;
  bool mounted_ = false;
};

} // namespace

// The file system says what an entry is only when asked by stat, which the
// walker never does: regular files, links and subdirectories alike are
// neither taken nor entered.
TEST_F(DirNodeTest, EntriesOfUnknownTypeGiveNoHitsAndAreNotEntered) {
  UntypedFileSystem untyped(dir);
  if (!untyped.skipReason().empty())
    GTEST_SKIP() << untyped.skipReason();
  const std::string root = untyped.path();
  writeFile(root + "/a.log", "a");
  ASSERT_EQ(0, ::symlink("a.log", (root + "/b.log").c_str()));
  ASSERT_EQ(0, ::mkdir((root + "/sub").c_str(), 0700));
  writeFile(root + "/sub/c.log", "c");
  // What the file system gives: no type for any entry, though stat knows.
  {
    DirNode node(*handler, root, nullptr);
    Names untypedNames;
    while (const dirent* entry = node.readEntry())
      if (entry->d_type == DT_UNKNOWN)
        untypedNames.push_back(entry->d_name);
    std::sort(untypedNames.begin(), untypedNames.end());
    ASSERT_EQ((Names{".", "..", "a.log", "b.log", "lost+found", "sub"}), untypedNames);
    struct stat st {};
    ASSERT_EQ(0, ::lstat((root + "/a.log").c_str(), &st));
    ASSERT_TRUE(S_ISREG(st.st_mode));
    node.rewind();
    while (const dirent* entry = node.readEntry())
      EXPECT_FALSE(DirNode::matchesExtension(*entry, ".log")) << entry->d_name;
    EXPECT_EQ(std::vector<Kesto::String>{}, node.findFiles(".log"));
    EXPECT_EQ(std::vector<Kesto::String>{}, node.findFiles(""));
  }
  TraceCapture trace({9}, *handler);
  EXPECT_EQ(std::vector<Kesto::String>{}, DirNode::findFilesInTree(*handler, root, ""));
  EXPECT_EQ(0u, trace.linesWith("path: " + root + "/sub").size()) << trace.text();
  EXPECT_EQ(0u, trace.linesWith("skipping file:").size()) << trace.text();
}
