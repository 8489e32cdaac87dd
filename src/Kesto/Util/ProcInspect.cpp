#include <Kesto/Util/ProcInspect.h>

#include <Kesto/Core/Exception.h>
#include <Kesto/Core/System.h>
#include <Kesto/Debug/Trace.h>
#include <Kesto/Util/DirNode.h>
#include <Kesto/Util/FileUtil.h>

#include "Util/ProcSeam.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

namespace Kesto::Util {

namespace {

constexpr const char* utilClass = "Kesto::Util";

int pidOrSelf(int pid) noexcept { return pid == 0 ? static_cast<int>(::getpid()) : pid; }

template <typename... Args>
String errorText(fmt::format_string<Args...> format, Args&&... args) {
  return String(fmt::vformat(format, fmt::make_format_args(args...)));
}

bool isDotEntry(const char* name) noexcept {
  return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

// The pid that a directory entry of /proc names: the caller for "self", 0
// for anything that is not a number.
U32 pidOfEntry(const char* name) noexcept {
  if (std::strcmp(name, "self") == 0)
    return static_cast<U32>(::getpid());
  return static_cast<U32>(std::strtoul(name, nullptr, 10));
}

// The descriptors of one process, /proc/{entry}/fd, each stat()ed through
// its link. A directory that does not open (the process has gone, or the
// entry is no process) has no descriptors; one whose stat() fails is
// skipped.
class DescriptorWalk {
public:
  DescriptorWalk(Platform::DebugHandler& handler, const char* entry, bool pathInStatFailure)
      : handler_(handler), entry_(entry), dir_(std::string(procRoot()) + "/" + entry + "/fd"),
        fds_(handler, String(dir_), nullptr), pathInStatFailure_(pathInStatFailure) {
    if (fds_.isOpen())
      procWalkPoint(ProcWalkPoint::descriptorsOpened, entry_);
  }

  // The next descriptor that stat() reads, or null at the end.
  const struct stat* next() {
    if (!fds_.isOpen())
      return nullptr;
    while (const struct dirent* entry = readEntry()) {
      if (isDotEntry(entry->d_name))
        continue;
      fd_ = entry->d_name;
      path_.assign(dir_).append("/").append(fd_);
      procWalkPoint(ProcWalkPoint::descriptorListed, entry_);
      KESTO_TRACE(handler_, 9, utilClass, "reading entry {}", path_);
      if (::stat(path_.c_str(), &st_) == 0)
        return &st_;
      if (pathInStatFailure_)
        KESTO_TRACE(handler_, 1, utilClass, "stat {} failed:{}", path_, strerror(errno));
      else
        KESTO_TRACE(handler_, 1, utilClass, "stat failed:{}", strerror(errno));
    }
    return nullptr;
  }

  // The next entry, or null at the end. A process that exits after its
  // directory was opened just shows no more entries: the kernel fails the
  // read with ENOENT and readdir gives that as the end. Should the reading
  // fail otherwise, that ends this process's walk too, rather than the
  // search.
  const struct dirent* readEntry() {
    if (gone_)
      return nullptr;
    try {
      return fds_.readEntry();
    } catch (const RuntimeException&) {
      KESTO_TRACE(handler_, 5, utilClass, "process of {} went away during the walk", dir_);
      gone_ = true;
      return nullptr;
    }
  }

  // The link of the current descriptor, and its number as a name.
  const std::string& path() const noexcept { return path_; }
  const std::string& fd() const noexcept { return fd_; }

private:
  Platform::DebugHandler& handler_;
  const char* entry_;
  std::string dir_;
  DirNode fds_;
  bool pathInStatFailure_;
  bool gone_ = false;
  std::string path_;
  std::string fd_;
  struct stat st_ {};
};

// The inode of the first socket whose line of /proc/net/unix contains
// `socketName`, or 0.
U32 readProcNetUnix(Platform::DebugHandler& handler, const String& socketName) {
  std::ifstream in(std::string(procRoot()) + "/net/unix");
  const std::string_view name = socketName.view();
  std::string line;
  while (in.good()) {
    std::getline(in, line);
    KESTO_TRACE(handler, 7, utilClass, "{}", line);
    if (line.find(name) == std::string::npos)
      continue;
    // The inode is the field before the path: between the blank before the
    // last blank and the last blank.
    const std::size_t lastBlank = line.rfind(' ');
    if (lastBlank == std::string::npos || lastBlank == 0)
      continue;
    const std::size_t end = lastBlank - 1;
    const std::size_t blank = line.rfind(' ', end);
    const std::size_t start = blank == std::string::npos ? 0 : blank + 1;
    const std::string field = line.substr(start, end + 1 - start);
    const U32 inode = static_cast<U32>(std::strtoul(field.c_str(), nullptr, 10));
    if (inode != 0) {
      KESTO_TRACE(handler, 5, utilClass, "sockInode:{}", inode);
      return inode;
    }
    KESTO_TRACE(handler, 1, utilClass, "Couldn't convert inode '{}' to U32.", field);
  }
  return 0;
}

// The pid of the first process in /proc's order with a descriptor on the
// socket `inode`, or 0.
U32 readProcFd(Platform::DebugHandler& handler, U32 inode) {
  KESTO_TRACE(handler, 5, utilClass, "searching for inode: {}", inode);
  DirNode proc(handler, String(procRoot()), nullptr);
  if (!proc.isOpen())
    fmassert(handler, utilClass, __FILE__, __func__, __LINE__, "Couldn't open /proc");
  while (const struct dirent* entry = proc.readEntry()) {
    if (isDotEntry(entry->d_name))
      continue;
    procWalkPoint(ProcWalkPoint::processListed, entry->d_name);
    DescriptorWalk walk(handler, entry->d_name, false);
    bool found = false;
    while (const struct stat* st = walk.next()) {
      if (!S_ISSOCK(st->st_mode))
        continue;
      KESTO_TRACE(handler, 9, utilClass, "socket {}'s inode is:{}", walk.path(), st->st_ino);
      if (st->st_ino == inode) {
        found = true;
        break;
      }
    }
    if (!found)
      continue;
    const U32 pid = pidOfEntry(entry->d_name);
    if (pid == 0)
      KESTO_TRACE(handler, 1, utilClass, "could not convert pid directory string '{}' to U32", entry->d_name);
    else
      KESTO_TRACE(handler, 5, utilClass, "found owner pid:{}", pid);
    return pid;
  }
  return 0;
}

} // namespace

String readProcTitle(Platform::DebugHandler& handler, int pid, bool quiet) {
  const std::string path = fmt::format("{}/{}/status", procRoot(), pidOrSelf(pid));
  std::ifstream in(path);
  if (!in.is_open()) {
    const int state = static_cast<int>(in.rdstate());
    if (quiet)
      KESTO_TRACE(handler, 5, utilClass, "error - Couldn't access status file:{} stream state:{}", path, state);
    else
      KESTO_TRACE(handler, 1, utilClass, "error - Couldn't access status file:{} stream state:{}", path, state);
    return String();
  }
  std::string line;
  std::size_t at = std::string::npos;
  while (std::getline(in, line)) {
    at = line.find("Name:");
    if (at != std::string::npos)
      break;
  }
  if (at == std::string::npos) {
    KESTO_TRACE(handler, 1, utilClass, "error - Couldn't find proc title for pid:{} stream state:{}", pid,
                static_cast<int>(in.rdstate()));
    return String();
  }
  std::string_view title = std::string_view(line).substr(at + 5);
  constexpr std::string_view blanks = " \t\n";
  const std::size_t first = title.find_first_not_of(blanks);
  title = first == std::string_view::npos ? std::string_view() : title.substr(first, title.find_last_not_of(blanks) + 1 - first);
  if (!title.empty())
    KESTO_TRACE(handler, 5, utilClass, "success - title:{}", title);
  else
    KESTO_TRACE(handler, 1, utilClass, "error - Read 0 length title for pid:{}", pid);
  return String(title);
}

String readProcTitle(int pid, bool quiet) { return readProcTitle(*Debug::kestoUtil, pid, quiet); }

String readProcStartTime(Platform::DebugHandler& handler, int pid) {
  const std::string path = fmt::format("{}/{}/stat", procRoot(), pidOrSelf(pid));
  std::ifstream in(path);
  if (!in.is_open()) {
    KESTO_TRACE(handler, 5, utilClass, "error - Couldn't access stat file:{} stream state:{}", path,
                static_cast<int>(in.rdstate()));
    return String();
  }
  std::string line;
  std::getline(in, line);
  if (!in.good()) {
    KESTO_TRACE(handler, 5, utilClass, "failed to read contents of file: {} stream state: {}", path,
                static_cast<int>(in.rdstate()));
    return String();
  }
  // The command name, field 2, stands in parentheses and may itself hold
  // blanks and parentheses; the kernel writes nothing after it that does.
  const std::size_t close = line.rfind(')');
  if (close == std::string::npos || close + 2 >= line.size())
    fmassert(handler, utilClass, __FILE__, __func__, __LINE__,
             "input not long enough to contain start time. file: {} line: \"{}\"", path, line);
  std::string rest = line.substr(close + 2);
  // Token 0 is the state, field 3; the start time is field 22.
  constexpr int startTimeFieldPos = 19;
  int tokPos = 0;
  char* save = nullptr;
  const char* token = ::strtok_r(rest.data(), " ", &save);
  while (token && tokPos < startTimeFieldPos) {
    token = ::strtok_r(nullptr, " ", &save);
    ++tokPos;
  }
  const std::string_view procStartTime = token ? std::string_view(token) : std::string_view();
  if (procStartTime.empty())
    fmassert(handler, utilClass, __FILE__, __func__, __LINE__,
             "Failed to parse start time from file: {} line: \"{}\" procStartTime.size():{} tokPos:{} "
             "startTimeFieldPos:{}",
             path, line, procStartTime.size(), tokPos, startTimeFieldPos);
  KESTO_TRACE(handler, 5, utilClass, "success - pid:{} start time:{}", pid, procStartTime);
  return String(procStartTime);
}

String readProcStartTime(int pid) { return readProcStartTime(*Debug::kestoUtil, pid); }

String readPidCmdline(Platform::DebugHandler& handler, int pid) {
  const std::string path = fmt::format("{}/{}/cmdline", procRoot(), pid);
  // fileRead stops at the first NUL, so this is the program alone; the
  // arguments are separated by NULs, which would read as blanks.
  std::string text(fileRead(handler, path.c_str(), true).view());
  for (char& c : text)
    if (c == '\0')
      c = ' ';
  return String(text);
}

U32 readSocketPid(Platform::DebugHandler& handler, const String& socketName) {
  KESTO_TRACE(handler, 5, utilClass, "searching for socket name:{}", socketName);
  const U32 inode = readProcNetUnix(handler, socketName);
  if (inode == 0) {
    KESTO_TRACE(handler, 5, utilClass, "unable to find inode");
    return 0;
  }
  return readProcFd(handler, inode);
}

U32 readLockPid(Platform::DebugHandler& handler, const String& lockPath) {
  DirNode proc(handler, String(procRoot()), nullptr);
  if (!proc.isOpen())
    fmassert(handler, utilClass, __FILE__, __func__, __LINE__, "Couldn't open /proc");
  KESTO_TRACE(handler, 9, utilClass, "lockName:{}", lockPath);
  const String locks = fileRead(handler, (std::string(procRoot()) + "/locks").c_str(), true);
  const std::string_view lockText = locks.view();
  // The kernel writes -1 where the pid stands for an open-file-description
  // lock (a FileLock), whose owner is a file and not a process: while there
  // is such a lock, no process can be passed over for want of its number.
  const bool filterByPid = lockText.find("OFDLCK") == std::string_view::npos;
  const std::string_view wanted = lockPath.view();
  std::vector<char> target(wanted.size() + 1);
  while (const struct dirent* entry = proc.readEntry()) {
    const U32 pid = pidOfEntry(entry->d_name);
    if (pid == 0)
      continue;
    // A cheap filter: a holder's number stands in the lines of its locks.
    // Another number may pass by chance; the descriptors decide.
    if (filterByPid && lockText.find(entry->d_name) == std::string_view::npos)
      continue;
    procWalkPoint(ProcWalkPoint::processListed, entry->d_name);
    DescriptorWalk walk(handler, entry->d_name, true);
    bool found = false;
    while (const struct stat* st = walk.next()) {
      if (!S_ISREG(st->st_mode))
        continue;
      // One byte more than the wanted path: a longer target is cut there
      // and cannot compare equal.
      std::fill(target.begin(), target.end(), '\0');
      const ssize_t length = ::readlink(walk.path().c_str(), target.data(), target.size());
      if (length < 0) {
        KESTO_TRACE(handler, 1, utilClass, "readlink of file:{} failed {}", walk.path(), strerror(errno));
        continue;
      }
      const std::string_view linked(target.data(), static_cast<std::size_t>(length));
      KESTO_TRACE(handler, 9, utilClass, "lock {}'s file is:{}", walk.path(), linked);
      if (linked != wanted)
        continue;
      const std::string info = fmt::format("{}/{}/fdinfo/{}", procRoot(), entry->d_name, walk.fd());
      const String fdInfo = fileRead(handler, info.c_str(), true);
      if (fdInfo.view().find("OFDLCK") != std::string_view::npos ||
          fdInfo.view().find("POSIX") != std::string_view::npos) {
        found = true;
        break;
      }
      KESTO_TRACE(handler, 5, utilClass, "pid:{} file:{} is open, but not locked associated with lock", pid,
                  lockPath);
    }
    if (found) {
      KESTO_TRACE(handler, 5, utilClass, "found owner pid:{}", pid);
      return pid;
    }
  }
  return 0;
}

const char* typenameFromVptr(int otherPid, const void* vptr, String& error) {
  const auto address = reinterpret_cast<unsigned long>(vptr);
  const MappingInfo other = PidMappings::populate(otherPid).find(vptr);
  if (!other.found()) {
    error = errorText("Could not find mapping for vptr:{} otherPid:{}", DisplayPointer(vptr), otherPid);
    return nullptr;
  }
  // The word ahead of the table, the type information pointer, must lie in
  // the same mapping.
  if (!(other.start + 8 <= address && address + 8 < other.end)) {
    error = errorText("Bad vptr:{} otherPid:{} mapping:{}", DisplayPointer(vptr), otherPid, other);
    return nullptr;
  }
  // Never closed: the names handed out point into the library. Anonymous
  // memory and the kernel's named areas ("[heap]") are no library; dlopen
  // would take the empty path for the main program.
  const bool isFile = !other.path.view().empty() && other.path.view().front() == '/';
  if (!isFile || !::dlopen(other.path.data(), RTLD_LAZY)) {
    error = errorText("Failed to open library for vptr:{} otherPid:{} other mapping:{}", DisplayPointer(vptr),
                        otherPid, other);
    return nullptr;
  }
  const MappingInfos mine = PidMappings::populate(static_cast<int>(::getpid()));
  const MappingInfo local = mine.find(other.path, other.offset, other.flags());
  if (!local.found()) {
    error = errorText("Could not find own mapping of library for vptr:{} otherPid:{} other mapping:{}",
                        DisplayPointer(vptr), otherPid, other);
    return nullptr;
  }
  const unsigned long localVptr = address - other.start + local.start;
  const void* typeInfo = *reinterpret_cast<const void* const*>(localVptr - 8);
  const MappingInfo typeInfoMapping = mine.find(typeInfo);
  if (!typeInfoMapping.found()) {
    error = errorText("No typeInfo mapping found for vptr:{} otherPid:{} typeInfoPtr:{} myMapping:{}",
                        DisplayPointer(vptr), otherPid, DisplayPointer(typeInfo), local);
    return nullptr;
  }
  if (reinterpret_cast<unsigned long>(typeInfo) + 8 >= typeInfoMapping.end) {
    error = errorText("TypeInfo ptr crosses mappings, vptr:{} otherPid:{} typeInfoPtr:{} myMapping:{}",
                        DisplayPointer(vptr), otherPid, DisplayPointer(typeInfo), local);
    return nullptr;
  }
  // A type information record is its own virtual table pointer, then the
  // pointer to the mangled name.
  const char* name = reinterpret_cast<const char* const*>(typeInfo)[1];
  const MappingInfo nameMapping = mine.find(name);
  if (nameMapping.path != local.path) {
    error = errorText("TypeInfo is not stored in proper mapping. Expected:{} but found:{}", local, nameMapping);
    return nullptr;
  }
  return name;
}

void includeShmemInCore() {
  const std::string path = fmt::format("{}/{}/coredump_filter", procRoot(), ::getpid());
  FILE* file = std::fopen(path.c_str(), "r+");
  if (!file) {
    KESTO_TRACE(*Debug::kestoUtil, 1, utilClass, "failed to open {}: {} (has EUID changed?)", path,
                strerror(errno));
    return;
  }
  unsigned int filter = 0;
  // A text that is no number is no error of the C library: errno then
  // says so rather than keep what an earlier call left.
  errno = 0;
  if (std::fscanf(file, "%x", &filter) < 1) {
    const int err = errno;
    std::fclose(file);
    fmassert(*Debug::kestoUtil, utilClass, __FILE__, __func__, __LINE__, "fscanf failed for file:{} error:{}", path,
             strerror(err));
  }
  // Bit 3: file-backed shared mappings. The kernel reads decimal as well as
  // hexadecimal.
  filter |= 1u << 3;
  std::fprintf(file, "%d", static_cast<int>(filter));
  std::fclose(file);
}

} // namespace Kesto::Util
