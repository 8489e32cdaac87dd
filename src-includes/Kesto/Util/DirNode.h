// DirNode: one open directory with a link to the node above it, so that a
// walk down a tree is a chain of nodes, each holding its parent.
//
// A thin, traced layer over opendir, readdir and rewinddir; every trace has
// the class text "DirNode". A directory that does not open is no exception:
// the node stays closed (dir_ null) and the caller looks at isOpen(). A
// missing, forbidden or non-directory path (ENOENT, EACCES, ENOTDIR) is what
// a walk meets in normal running and is traced at level 9 only; any other
// failure to open is traced at level 1. A failure to read, and reading,
// rewinding or filtering a closed node, throw RuntimeException.
//
// A node owns its DIR handle and closes it in its destructor, so a node is
// neither copied nor moved: two nodes holding one handle would close it
// twice. Nodes are built in place (std::make_shared for a chain). A node is
// used by one thread; readdir's position is part of its state, even through
// the const members.
#pragma once

#include <Kesto/Common/Export.h>

#include <Kesto/Core/String.h>
#include <Kesto/Debug/DebugHandler.h>

#include <dirent.h>

#include <memory>
#include <vector>

namespace Kesto {

class KESTO_EXPORT DirNode : public Debuggable {
public:
  // No path, not open.
  explicit DirNode(Platform::DebugHandler& handler);
  // Opens `path` at once; `parent` may be null.
  DirNode(Platform::DebugHandler& handler, const String& path, std::shared_ptr<DirNode> parent);
  ~DirNode();
  DirNode(const DirNode&) = delete;
  DirNode& operator=(const DirNode&) = delete;

  // Closes the directory if it is open and opens path_ again.
  void openDir();
  // Stores the path and opens it, closing the old directory first.
  void pathIs(const String& path);

  // The next entry as readdir gives it, "." and ".." included; null at the
  // end of the directory, and null (traced at level 5) when it is not open.
  struct dirent* readEntry() const;
  // Back to the first entry.
  void rewind() const;
  // The names, without the directory, of the regular files and symbolic
  // links whose names end with `extension` (give the dot if it matters; the
  // empty extension matches them all), in readdir's order. Starts from the
  // first entry and leaves the directory at its end. Entries that the file
  // system reports as DT_UNKNOWN never match.
  std::vector<String> findFiles(const String& extension) const;

  // findFiles over a whole tree: the paths, "{root}/{sub}/.../{name}", of
  // the regular files and symbolic links below `root` whose names end with
  // `extension`. Depth first: a subdirectory is walked where readdir meets
  // it, in a child node linked to its parent, so each directory is read
  // once and the walk holds as many descriptors as the tree is deep. The
  // traces are findFiles's, for every directory, with the path in place of
  // the name. A root that does not open throws as findFiles does; a
  // subdirectory that does not open (gone, forbidden) is passed over with
  // the open's trace. Entries of type DT_UNKNOWN are neither taken nor
  // entered, and symbolic links to directories are not followed.
  static std::vector<String> findFilesInTree(Platform::DebugHandler& handler, const String& root,
                                             const String& extension);

  // Whether findFiles takes `entry` for `extension`: a regular file or a
  // symbolic link whose name ends with it. For a walk of its own that reads
  // each directory once with readEntry, and so filters as it goes.
  static bool matchesExtension(const struct dirent& entry, std::string_view extension) noexcept;

  bool isOpen() const noexcept { return dir_ != nullptr; }

  DIR* dir_ = nullptr;
  // Kept alive by this link alone.
  std::shared_ptr<DirNode> parent_;
  String path_;
};

} // namespace Kesto
