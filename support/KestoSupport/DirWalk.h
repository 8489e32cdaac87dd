// A walk down a directory tree as a chain of DirNodes, collecting the files
// of one extension: what the directory walker's tests check against the
// file system and what its benchmark races against find(1).
//
// Depth first: a node lists its matching files with findFiles, then goes
// over its entries again for subdirectories and walks each in a child node
// that links back to it. Only the nodes of the current branch are open, so
// the walk holds as many descriptors as the tree is deep. Entries whose type
// the file system does not report (DT_UNKNOWN) are neither matched nor
// entered, as findFiles does.
#pragma once

#include <Kesto/Util/DirNode.h>

#include <dirent.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace KestoTest {

namespace Detail {
inline void walkNode(const std::shared_ptr<Kesto::DirNode>& node, const Kesto::String& extension,
                     std::vector<Kesto::String>& found) {
  if (!node->isOpen())
    return;
  for (const Kesto::String& name : node->findFiles(extension))
    found.push_back(node->path_ + "/" + name);
  node->rewind();
  while (const dirent* entry = node->readEntry()) {
    if (entry->d_type != DT_DIR || std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0)
      continue;
    auto child = std::make_shared<Kesto::DirNode>(*node->debugHandler(), node->path_ + "/" + entry->d_name, node);
    walkNode(child, extension, found);
  }
}
} // namespace Detail

// The paths of the regular files and links under `root` (root included)
// whose names end with `extension`, in the order of the walk.
inline std::vector<Kesto::String> walkFiles(Kesto::Platform::DebugHandler& handler, const Kesto::String& root,
                                            const Kesto::String& extension) {
  std::vector<Kesto::String> found;
  Detail::walkNode(std::make_shared<Kesto::DirNode>(handler, root, nullptr), extension, found);
  return found;
}

} // namespace KestoTest
