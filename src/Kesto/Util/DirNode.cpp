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

namespace {

bool isDotEntry(const char* name) noexcept {
  return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

// The one read of a directory that findFiles and the walk of a tree share:
// from the node's position to its end, the files that match go to `found`
// (their names, or with `withPath` their paths) and every subdirectory, "."
// and ".." aside, to `enter` as readdir meets it, so that nothing needs a
// second pass. `function` is the caller, for the traces.
template <typename Enter>
void scanOnce(const DirNode& node, const char* function, const String& extension, bool withPath,
              std::vector<String>& found, Enter&& enter) {
  const std::string_view wanted = extension.view();
  while (const struct dirent* entry = node.readEntry()) {
    if (!isFileOrLink(entry->d_type)) {
      if (entry->d_type == DT_DIR && !isDotEntry(entry->d_name))
        enter(*entry);
      continue;
    }
    const std::string_view name(entry->d_name);
    if (!name.ends_with(wanted)) {
      if (KESTO_ENABLED(node, 9))
        fmtrace(node, 9, __FILE__, function, __LINE__, nodeClass, "skipping file: {}",
                withPath ? node.path_ + "/" + entry->d_name : String(name));
      continue;
    }
    String file = withPath ? node.path_ + "/" + entry->d_name : String(name);
    if (KESTO_ENABLED(node, 8))
      fmtrace(node, 8, __FILE__, function, __LINE__, nodeClass, "found file with extension {}: {}", extension, file);
    found.push_back(std::move(file));
  }
}

void walkTree(const std::shared_ptr<DirNode>& node, const String& extension, std::vector<String>& found) {
  if (KESTO_ENABLED(*node, 9))
    fmtrace(*node, 9, __FILE__, "findFilesInTree", __LINE__, nodeClass, "path: {} extension: {}", node->path_,
            extension);
  scanOnce(*node, "findFilesInTree", extension, true, found, [&](const struct dirent& entry) {
    const auto child = std::make_shared<DirNode>(*node->debugHandler(), node->path_ + "/" + entry.d_name, node);
    if (child->isOpen())
      walkTree(child, extension, found);
  });
}

} // namespace

std::vector<String> DirNode::findFiles(const String& extension) const {
  KESTO_TRACE(*this, 9, nodeClass, "path: {} extension: {}", path_, extension);
  if (!dir_)
    KESTO_THROW(*this, nodeClass, "cannot find {} files in {} because the directory is not open", extension, path_);
  ::rewinddir(dir_);
  std::vector<String> found;
  scanOnce(*this, "findFiles", extension, false, found, [](const struct dirent&) {});
  return found;
}

std::vector<String> DirNode::findFilesInTree(Platform::DebugHandler& handler, const String& root,
                                             const String& extension) {
  const auto node = std::make_shared<DirNode>(handler, root, nullptr);
  if (!node->isOpen())
    KESTO_THROW(handler, nodeClass, "cannot find {} files in {} because the directory is not open", extension,
                root);
  std::vector<String> found;
  walkTree(node, extension, found);
  return found;
}

} // namespace Kesto
