// The file lock and the directory walker.
//
// - FileLock/lockRelease: one lock(false) and one release() of a FileLock
//   on a file in a temporary directory, per iteration: mkpath of the
//   existing directory, open, the lock, close-on-exec, the unlock, close.
// - FileLock/reentry: lock(true) on a lock the object holds, the answer
//   from memory.
// - Walk/DirNode, Walk/DirNode.findFiles and Walk/find: the files ending in
//   ".log" in a tree of 100,000 files (20 directories of 50 directories of
//   100 files, a quarter of them .log), found by DirNode::findFilesInTree,
//   which reads each directory once; by a walk composed of public calls
//   that takes each directory's files with findFiles and then rewinds and
//   reads it again for its subdirectories (what a caller without
//   findFilesInTree would write, kept here as the measure of the second
//   read); and by a child process running `find DIR -name '*.log'`, whose
//   output this process reads and counts. The time is wall time per whole walk, the find one from fork to
//   waitpid, so process start is in it, as it is for any caller of find;
//   the counter cpu_ms is the CPU time of the walk (this thread, or the
//   find child from its rusage). Every walk must find the 25,000 files or
//   the run fails. The page cache is warm for all: the tree was just
//   written, and written back before the first walk.
//
// The tree is built once, before the benchmarks, in a directory under
// TMPDIR (or /tmp), and removed after them; building and removing are timed
// and printed apart from the steady state.
#include <Kesto/Debug/DebugHandler.h>
#include <Kesto/Util/DirNode.h>
#include <Kesto/Util/FileLock.h>

#include <KestoSupport/BenchRepetitions.h>

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace {

using KestoSupport::repeated;

constexpr int topDirectories = 20;
constexpr int subDirectories = 50;
constexpr int filesPerDirectory = 100;
constexpr int treeFiles = topDirectories * subDirectories * filesPerDirectory;
constexpr int logFiles = treeFiles / 4;
static_assert(treeFiles == 100'000, "the tree the comparison with find is stated for");

std::string scratch; // the temporary directory of this run
std::string treeRoot;

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

Kesto::Platform::DebugHandler& benchHandler() {
  static Kesto::Ptr<Kesto::Platform::DebugHandler> handler = Kesto::Platform::getDebugHandler("UtilBench");
  return *handler;
}

// Each file is created empty; a quarter end in ".log", the others in
// ".txt", ".log.1" and "log" (which find's pattern and the filter both
// refuse).
void buildTree() {
  static const char* const endings[] = {".log", ".txt", ".log.1", "log"};
  char path[512];
  for (int a = 0; a < topDirectories; ++a)
    for (int b = 0; b < subDirectories; ++b) {
      std::snprintf(path, sizeof path, "%s/top%02d/sub%02d", treeRoot.c_str(), a, b);
      std::filesystem::create_directories(path);
      for (int f = 0; f < filesPerDirectory; ++f) {
        std::snprintf(path, sizeof path, "%s/top%02d/sub%02d/file%03d%s", treeRoot.c_str(), a, b, f, endings[f % 4]);
        const int fd = ::open(path, O_WRONLY | O_CREAT | O_EXCL, 0644);
        if (fd < 0) {
          std::perror(path);
          std::exit(1);
        }
        ::close(fd);
      }
    }
}

// ---- the file lock -----------------------------------------------------------

void FileLockLockRelease(benchmark::State& state) {
  Kesto::FileLock lock(benchHandler(), scratch.c_str(), "bench.lock");
  bool failed = false;
  for (auto _ : state) {
    failed |= !lock.lock(false);
    lock.release();
  }
  if (failed)
    state.SkipWithError("a lock() failed");
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(FileLockLockRelease)->Name("FileLock/lockRelease")->Apply(repeated);

void FileLockReentry(benchmark::State& state) {
  Kesto::FileLock lock(benchHandler(), scratch.c_str(), "bench.lock");
  bool failed = !lock.lock(false);
  for (auto _ : state)
    failed |= !lock.lock(true);
  lock.release();
  if (failed)
    state.SkipWithError("a lock() failed");
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(FileLockReentry)->Name("FileLock/reentry")->Apply(repeated);

// ---- the walk ------------------------------------------------------------------

double threadCpuSeconds() {
  timespec ts;
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

using Walk = std::vector<Kesto::String> (*)(Kesto::Platform::DebugHandler&, const Kesto::String&,
                                             const Kesto::String&);

void walkTwice(const std::shared_ptr<Kesto::DirNode>& node, const Kesto::String& extension,
               std::vector<Kesto::String>& found) {
  if (!node->isOpen())
    return;
  for (const Kesto::String& name : node->findFiles(extension))
    found.push_back(node->path_ + "/" + name);
  node->rewind();
  while (const dirent* entry = node->readEntry())
    if (entry->d_type == DT_DIR && std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0)
      walkTwice(std::make_shared<Kesto::DirNode>(*node->debugHandler(), node->path_ + "/" + entry->d_name, node),
                extension, found);
}

std::vector<Kesto::String> walkFilesByFindFiles(Kesto::Platform::DebugHandler& handler, const Kesto::String& root,
                                                 const Kesto::String& extension) {
  std::vector<Kesto::String> found;
  walkTwice(std::make_shared<Kesto::DirNode>(handler, root, nullptr), extension, found);
  return found;
}

template <Walk walk>
void WalkDirNode(benchmark::State& state) {
  std::size_t found = 0;
  double cpu = 0.0;
  for (auto _ : state) {
    const Clock::time_point start = Clock::now();
    const double cpuStart = threadCpuSeconds();
    const std::vector<Kesto::String> files = walk(benchHandler(), treeRoot, ".log");
    cpu += threadCpuSeconds() - cpuStart;
    state.SetIterationTime(secondsSince(start));
    found = files.size();
    if (found != std::size_t(logFiles))
      break;
  }
  if (found != std::size_t(logFiles))
    state.SkipWithError("the walk did not find every .log file");
  state.counters["found"] = double(found);
  state.counters["cpu_ms"] = cpu / double(state.iterations()) * 1e3;
  state.SetItemsProcessed(state.iterations() * treeFiles);
}
BENCHMARK(WalkDirNode<Kesto::DirNode::findFilesInTree>)
    ->Name("Walk/DirNode")
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Apply(repeated);
BENCHMARK(WalkDirNode<walkFilesByFindFiles>)
    ->Name("Walk/DirNode.findFiles")
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Apply(repeated);

// The number of lines that `find root -name '*.log'` prints, or -1; adds
// the child's CPU time to `cpu`.
long runFind(double& cpu) {
  int out[2];
  if (::pipe2(out, O_CLOEXEC) != 0)
    return -1;
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::dup2(out[1], 1);
    ::execlp("find", "find", treeRoot.c_str(), "-name", "*.log", static_cast<char*>(nullptr));
    ::_exit(127);
  }
  ::close(out[1]);
  long lines = 0;
  char buffer[65536];
  for (;;) {
    const ssize_t n = ::read(out[0], buffer, sizeof buffer);
    if (n <= 0)
      break;
    for (ssize_t i = 0; i < n; ++i)
      lines += buffer[i] == '\n';
  }
  ::close(out[0]);
  int status = -1;
  rusage usage{};
  ::wait4(pid, &status, 0, &usage);
  cpu += double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
  return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? lines : -1;
}

void WalkFind(benchmark::State& state) {
  long found = 0;
  double cpu = 0.0;
  for (auto _ : state) {
    const Clock::time_point start = Clock::now();
    found = runFind(cpu);
    state.SetIterationTime(secondsSince(start));
    if (found != logFiles)
      break;
  }
  if (found != logFiles)
    state.SkipWithError("find did not find every .log file");
  state.counters["found"] = double(found);
  state.counters["cpu_ms"] = cpu / double(state.iterations()) * 1e3;
  state.SetItemsProcessed(state.iterations() * treeFiles);
}
BENCHMARK(WalkFind)->Name("Walk/find")->UseManualTime()->Unit(benchmark::kMillisecond)->Apply(repeated);

} // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv))
    return 1;
  const char* tmp = std::getenv("TMPDIR");
  std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/kesto-util-bench-XXXXXX";
  if (!::mkdtemp(pattern.data())) {
    std::perror("mkdtemp");
    return 1;
  }
  scratch = pattern;
  treeRoot = scratch + "/tree";

  Clock::time_point start = Clock::now();
  buildTree();
  std::printf("setup: built a tree of %d files (%d directories) in %s in %.0f ms\n", treeFiles,
              topDirectories * (subDirectories + 1) + 1, treeRoot.c_str(), secondsSince(start) * 1e3);
  // The new tree's inodes and directory blocks are written back after it
  // is built; without the wait, that write-back falls on whichever walk
  // runs first and shows in its wall time (16 ms more of 48 on a busy
  // machine), though not in its CPU time.
  start = Clock::now();
  ::sync();
  std::printf("setup: wrote the tree back (sync) in %.0f ms\n", secondsSince(start) * 1e3);
  std::fflush(stdout);

  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();

  start = Clock::now();
  std::error_code error;
  std::filesystem::remove_all(scratch, error);
  std::printf("teardown: removed the tree in %.0f ms%s\n", secondsSince(start) * 1e3,
              error ? (" (failed: " + error.message() + ")").c_str() : "");
  return error ? 1 : 0;
}
