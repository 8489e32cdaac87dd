// FileLock: an exclusive, non-blocking, advisory lock on a named file, most
// often to let only one instance of a daemon run.
//
// The lock is an open-file-description lock (F_OFD_SETLK on Linux), so it
// belongs to the open file and not to the process: it goes when the last
// descriptor of that description closes, on a crash too, and a second
// FileLock in the same process conflicts with the first like one in another
// process would. The lock is never waited for. The lock file holds no data;
// the library creates it (mode 0666 whatever the umask, so that processes of
// other users can contend) and never writes or removes it. Removing it while
// it is locked lets the next locker create a new file of that name and lock
// that: the lock protects a file, not a name.
//
// A forked child shares the parent's open file description. An unlock from
// the child would therefore take the parent's lock away, so release() in a
// child asserts; a child that wants to be rid of the inherited descriptor
// calls closeFd(), which closes without unlocking. The descriptor is
// close-on-exec, so an executed program does not inherit it (between the
// lock and the flag being set there is a moment when it would).
//
//   state     lock()                 release()         closeFd()
//   unlocked  -> locked, or false    asserts           nothing
//   locked    re-entry or false      -> unlocked       -> unlocked, still
//                                    (owner only)         owned (see below)
//
// ownerPid is cleared only by release(). After closeFd() in the owner,
// lock(true) therefore answers "re-entry" and returns true while nothing is
// held: do not mix closeFd() and lock() in the owner.
//
// One thread uses an object at a time. Failures that happen in normal
// running (the file does not open, somebody else holds the lock) are a false
// result and a level 1 trace; everything else asserts through the handler.
// The destructor releases a held lock, so destroying an inherited FileLock
// in a child without closeFd() asserts and ends the child.
#pragma once

#include <Kesto/Common/Export.h>

#include <Kesto/Core/String.h>
#include <Kesto/Debug/DebugHandler.h>

namespace Kesto {

class KESTO_EXPORT FileLock : public Debuggable {
public:
  // The lock file is "{dir}/{filename}", or `filename` alone when `dir` is
  // empty. `filename` may not contain '/'. An empty `dir` still goes to
  // Util::mkpath at lock(), which has no end for the empty path: such an
  // object can be built but not locked.
  FileLock(Platform::DebugHandler& handler, const String& dir, const String& filename);
  ~FileLock();
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

  // True if the lock is held on return. With `allowReentry`, an object that
  // the calling process locked answers true at once; without it, the second
  // lock() of one object conflicts with its own first lock and is false.
  // Creates `dir` (mode 0777) and the file when they are missing.
  bool lock(bool allowReentry);
  // Unlocks and closes. Only the owner process may; asserts when no lock is
  // held.
  void release();
  // Closes the descriptor without unlocking: in a child, the parent keeps
  // its lock.
  void closeFd();

  const String& file() const noexcept { return file_; }

private:
  String dir_;
  String file_;
  int fd_ = -1;
  int ownerPid_ = -1;
};

} // namespace Kesto
