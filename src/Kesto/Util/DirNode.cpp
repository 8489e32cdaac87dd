#include <Kesto/Util/DirNode.h>

#include <Kesto/Core/Exception.h>
#include <Kesto/Debug/Trace.h>

#include <cerrno>
#include <cstring>

namespace Kesto {

namespace {

constexpr const char* nodeClass = "DirNode";

// DT_REG (8) and DT_LNK (10) differ only in bit 1; no other type has 8
// once that bit is masked off.
bool isFileOrLink(unsigned char type) noexcept { return (type & ~2u) == DT_REG; }
static_assert(DT_LNK == (DT_REG | 2), "the file test masks the one bit by which links differ");

} // namespace

DirNode::DirNode(Platform::DebugHandler& handler) : Debuggable(handler) {}

DirNode::DirNode(Platform::DebugHandler& handler, const String& path, std::shared_ptr<DirNode> parent)
    : Debuggable(handler), parent_(std::move(parent)), path_(path) {
  KESTO_TRACE(*this, 9, nodeClass, "path: {}", path_);
  openDir();
}

DirNode::~DirNode() {
  KESTO_TRACE(*this, 9, nodeClass, "path: {}", path_);
  if (dir_ && ::closedir(dir_) != 0)
    KESTO_TRACE(*this, 1, nodeClass, "failed to close {} errno: {}", path_, errno);
}

void DirNode::openDir() {
  if (dir_) {
    if (::closedir(dir_) != 0)
      KESTO_TRACE(*this, 1, nodeClass, "failed to close {} errno: {}", path_, errno);
    dir_ = nullptr;
  }
  dir_ = ::opendir(path_.data());
  if (dir_)
    return;
  const int error = errno;
  // What a walk meets in normal running is a detail; anything else is a
  // failure. The text carries the call site's class and function itself.
  const unsigned short level = error == ENOENT || error == EACCES || error == ENOTDIR ? 9 : 1;
  if (KESTO_ENABLED(*this, level)) {
    const String text =
        fmtracestr(false, nodeClass, __FILE__, __func__, __LINE__, "failed to open {} errno: {}", path_, error);
    fmtrace(*this, level, __FILE__, __func__, __LINE__, nullptr, "{}", text);
  }
}

void DirNode::pathIs(const String& path) {
  KESTO_TRACE(*this, 9, nodeClass, "path: {}", path);
  path_ = path;
  openDir();
}

struct dirent* DirNode::readEntry() const {
  KESTO_TRACE(*this, 9, nodeClass, "path: {}", path_);
  if (!dir_) {
    KESTO_TRACE(*this, 5, nodeClass, "cannot read {} because the directory is not open", path_);
    return nullptr;
  }
  errno = 0;
  struct dirent* entry = ::readdir(dir_);
  if (!entry && errno != 0)
    KESTO_THROW(*this, nodeClass, "failed to read {} errno: {}", path_, errno);
  return entry;
}

void DirNode::rewind() const {
  KESTO_TRACE(*this, 9, nodeClass, "path: {}", path_);
  if (!dir_)
    KESTO_THROW(*this, nodeClass, "cannot rewind {} because the directory is not open", path_);
  ::rewinddir(dir_);
}

bool DirNode::matchesExtension(const struct dirent& entry, std::string_view extension) noexcept {
  return isFileOrLink(entry.d_type) && std::string_view(entry.d_name).ends_with(extension);
}

std::vector<String> DirNode::findFiles(const String& extension) const {
  KESTO_TRACE(*this, 9, nodeClass, "path: {} extension: {}", path_, extension);
  if (!dir_)
    KESTO_THROW(*this, nodeClass, "cannot find {} files in {} because the directory is not open", extension, path_);
  ::rewinddir(dir_);
  std::vector<String> found;
  const std::string_view wanted = extension.view();
  while (struct dirent* entry = readEntry()) {
    if (!isFileOrLink(entry->d_type))
      continue;
    const std::string_view name(entry->d_name);
    if (!name.ends_with(wanted)) {
      KESTO_TRACE(*this, 9, nodeClass, "skipping file: {}", name);
      continue;
    }
    KESTO_TRACE(*this, 8, nodeClass, "found file with extension {}: {}", extension, name);
    found.emplace_back(name);
  }
  return found;
}

} // namespace Kesto
