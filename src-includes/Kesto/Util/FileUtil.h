// Everyday file work: thin layers over one or two system calls each, with a
// fixed failure policy.
//
// Each function decides once which failures are expected (a false, zero or
// empty result, traced at level 5 or below), which the caller must see (a
// RuntimeException) and which are programming errors (an assertion). The
// policy is stated beside each declaration. Traces carry the class text
// "Kesto::Util" and go to the handler passed in; mkpath and trimpath take
// none and trace to Debug::kestoUtil.
//
// Files are created with the umask set to 0 for the length of the call, so
// that their modes are exactly what is asked for, whatever the process's
// umask. The umask belongs to the process: a thread that creates a file
// while one of these calls runs sees umask 0 too. Every function puts the
// umask back before it returns or throws.
//
// A null path is taken as the empty path, which names no file: the system
// call fails with ENOENT and the function reports that as it would any other
// failure, with "(null)" in its trace. mkpath is the exception (see there).
#pragma once

#include <Kesto/Common/Export.h>

#include <Kesto/Core/String.h>
#include <Kesto/Debug/DebugHandler.h>

#include <string_view>

namespace Kesto::Util {

// The content of the file as text, cut at its first NUL byte (this is a
// reader of text: a file with NUL bytes comes back shortened). A file that
// does not open gives "", traced at level 5 "unable to open file {}" when
// `traceFailure` is true. A file that opens but cannot be read (a directory)
// gives what was read before the error, traced at level 1 "failed to read
// from {}"; a good read is traced at level 5 with its text. Never throws: a
// std::exception on the way (memory) gives "".
KESTO_EXPORT String fileRead(Platform::DebugHandler& handler, const char* path, bool traceFailure) noexcept;

// Creates or truncates the file (mode 0666 under umask 0) and writes `text`
// with one write(); a short write is traced at level 0 but is not a failure.
// A failed open, write or close is traced at level 0 and, unless
// `ignoreFailure`, throws RuntimeException whose message is `text` itself.
KESTO_EXPORT void fileWrite(Platform::DebugHandler& handler, const char* path, std::string_view text,
                            bool ignoreFailure);

// Creates the file if it is missing (mode 0666 under umask 0); its times
// are not changed. False after a level 0 trace when open or close fails.
KESTO_EXPORT bool touch(Platform::DebugHandler& handler, const char* path);

// Whether stat() succeeds; traced at level 5 with the result of stat().
KESTO_EXPORT bool fileExists(Platform::DebugHandler& handler, const char* path);

// unlink(). True when the file is gone, including when it was never there;
// false after a level 0 trace otherwise.
KESTO_EXPORT bool fileRemove(Platform::DebugHandler& handler, const char* path);

// The size by stat() or fstat(); 0 after a level 5 trace when that fails.
KESTO_EXPORT unsigned long fileSize(Platform::DebugHandler& handler, const char* path);
KESTO_EXPORT unsigned long fileSize(Platform::DebugHandler& handler, int fd);

// ftruncate(fd, length); `path` only names the file in the trace. A
// negative result is returned as it is, after a level 0 trace.
KESTO_EXPORT int truncate(Platform::DebugHandler& handler, const char* path, int fd, unsigned long length);

// entries * entrySize + headerSize; RuntimeException when the product or
// the sum does not fit in 64 bits.
KESTO_EXPORT unsigned long fileSizeHelper(unsigned long entries, unsigned long entrySize,
                                          unsigned long headerSize);

// Creates the directory and its missing parents, each with exactly `mode`.
// 0 on success or when the directory exists, -1 with errno otherwise.
// The parent of a path is the text before its last '/'. A path without a
// '/' whose mkdir fails with ENOENT (the empty path; a single name in a
// working directory that was removed) is its own parent: the recursion has
// no end and runs until the stack does. A null path fails with EFAULT.
KESTO_EXPORT int mkpath(const char* path, unsigned int mode);

// Removes the directories of `trailingPath`, the tail of `absolutePath`,
// from the bottom up: 0 when done, -1 (traced at level 5) at the first
// rmdir() that fails other than with ENOENT, such as a directory that still
// has entries. A missing directory on the way does not stop it. The tail is
// matched as text, not by path components. Misuse (an empty or relative
// absolute path, an empty tail, a tail that is not a proper terminal
// substring) asserts to Debug::kestoUtil.
KESTO_EXPORT int trimpath(const char* absolutePath, std::string_view trailingPath);

// The working directory; RuntimeException when getcwd() fails (a path of
// 4096 bytes or more, a removed directory).
KESTO_EXPORT String getCwd(Platform::DebugHandler& handler);

} // namespace Kesto::Util
