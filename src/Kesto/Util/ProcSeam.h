// ProcSeam: where a test program reaches into the readers of /proc, and
// nothing else does.
//
// Two things that real /proc will not do on request are what the tests of
// the readers need: a process that goes away at one exact point of a walk
// (between the listing of /proc and the reading of the process's entries),
// and files in a shape that the kernel never writes (a stat line cut short,
// a status file without a name, a coredump_filter that is no number). The
// seam gives a test both: a hook called at the points of a walk, from which
// the test kills and reaps a child of its own, and a root that stands for
// "/proc" in every path the readers build, which a test points at a
// directory of crafted files.
//
// The seam is one variable, `kestoUtilProcSeam`, which the library declares
// weak and never defines. A test program defines it (tests/Util), and the
// dynamic linker binds the library's reference to that definition; in every
// other process the variable's address is null and the readers go to /proc
// with no hook, at the cost of one comparison per entry of a walk. Being an
// undefined reference of the library, it is no part of its exported
// interface. Thread: the caller's; a test sets the seam before the call it
// looks at and clears it after (the readers only read it).
#pragma once

namespace Kesto::Util {

// The points of the walks over the processes (readSocketPid, readLockPid)
// at which the hook is called, with the name of the entry of /proc.
enum class ProcWalkPoint {
  // /proc has given the entry; /proc/{entry}/fd is not opened yet.
  processListed,
  // /proc/{entry}/fd is open; none of its entries is read yet.
  descriptorsOpened,
  // An entry of /proc/{entry}/fd has been read; it is not stat()ed yet.
  descriptorListed,
};

struct ProcSeam {
  // Stands for "/proc" in the paths the readers build; null for "/proc".
  const char* procRoot = nullptr;
  // Called at each ProcWalkPoint, with the entry of /proc and `context`.
  void (*onWalk)(ProcWalkPoint point, const char* entry, void* context) = nullptr;
  void* context = nullptr;
};

} // namespace Kesto::Util

extern "C" {
// Defined by a test program only; see above.
extern __attribute__((weak, visibility("default"))) Kesto::Util::ProcSeam kestoUtilProcSeam;
}

namespace Kesto::Util {

// The seam of this process, or null.
inline ProcSeam* procSeam() noexcept { return &kestoUtilProcSeam; }

// "/proc", or what the seam puts in its place.
inline const char* procRoot() noexcept {
  const ProcSeam* seam = procSeam();
  return seam && seam->procRoot ? seam->procRoot : "/proc";
}

inline void procWalkPoint(ProcWalkPoint point, const char* entry) {
  const ProcSeam* seam = procSeam();
  if (seam && seam->onWalk) [[unlikely]]
    seam->onWalk(point, entry, seam->context);
}

} // namespace Kesto::Util
