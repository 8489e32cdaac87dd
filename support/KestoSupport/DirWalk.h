// Walks down a directory tree as a chain of DirNodes, collecting the files
// of one extension: what the directory walker's tests check against the
// file system and what its benchmark races against find(1).
//
// Both walks go depth first: a subdirectory is walked in a child node that
// links back to its parent, while the parent keeps its place, so only the
// nodes of the current branch are open and a walk holds as many
// descriptors as the tree is deep. Entries whose type the file system does
// not report (DT_UNKNOWN) are neither matched nor entered.
//
// - walkFiles reads each directory once with readEntry, taking files by
//   DirNode::matchesExtension and entering subdirectories as it meets them.
// - walkFilesByFindFiles takes the files of a directory with findFiles and
//   then reads the directory again for its subdirectories: findFiles starts
//   from the first entry and skips directories, so each directory is read
//   twice (and on ext4 a second read from the start costs as much as the
//   first).
#pragma once

#include <Kesto/Util/DirNode.h>

#include <dirent.h>

#include <cstring>
#include <memory>
#include <string_view>
#include <vector>

namespace KestoTest {

namespace Detail {

inline bool isSubdirectory(const dirent& entry) {
  return entry.d_type == DT_DIR && std::strcmp(entry.d_name, ".") != 0 && std::strcmp(entry.d_name, "..") != 0;
}

inline std::shared_ptr<Kesto::DirNode> childOf(const std::shared_ptr<Kesto::DirNode>& node, const dirent& entry) {
  return std::make_shared<Kesto::DirNode>(*node->debugHandler(), node->path_ + "/" + entry.d_name, node);
}

inline void walkOnce(const std::shared_ptr<Kesto::DirNode>& node, std::string_view extension,
                     std::vector<Kesto::String>& found) {
  if (!node->isOpen())
    return;
  while (const dirent* entry = node->readEntry()) {
    if (Kesto::DirNode::matchesExtension(*entry, extension))
      found.push_back(node->path_ + "/" + entry->d_name);
    else if (isSubdirectory(*entry))
      walkOnce(childOf(node, *entry), extension, found);
  }
}

inline void walkTwice(const std::shared_ptr<Kesto::DirNode>& node, const Kesto::String& extension,
                      std::vector<Kesto::String>& found) {
  if (!node->isOpen())
    return;
  for (const Kesto::String& name : node->findFiles(extension))
    found.push_back(node->path_ + "/" + name);
  node->rewind();
  while (const dirent* entry = node->readEntry())
    if (isSubdirectory(*entry))
      walkTwice(childOf(node, *entry), extension, found);
}

} // namespace Detail

// The paths of the regular files and links under `root` whose names end
// with `extension`, in the order of the walk.
inline std::vector<Kesto::String> walkFiles(Kesto::Platform::DebugHandler& handler, const Kesto::String& root,
                                            const Kesto::String& extension) {
  std::vector<Kesto::String> found;
  Detail::walkOnce(std::make_shared<Kesto::DirNode>(handler, root, nullptr), extension.view(), found);
  return found;
}

inline std::vector<Kesto::String> walkFilesByFindFiles(Kesto::Platform::DebugHandler& handler,
                                                       const Kesto::String& root, const Kesto::String& extension) {
  std::vector<Kesto::String> found;
  Detail::walkTwice(std::make_shared<Kesto::DirNode>(handler, root, nullptr), extension, found);
  return found;
}

} // namespace KestoTest
