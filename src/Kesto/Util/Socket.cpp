#include <Kesto/Util/Socket.h>

#include <Kesto/Core/System.h>
#include <Kesto/Debug/Trace.h>
#include <Kesto/Util/FileUtil.h>

#include <KestoNetns/Netns.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>

#include <dlfcn.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

namespace Kesto::Util {

namespace {

constexpr const char* className = "Kesto::Util";

// The calling thread's own namespace: /proc/self would name the main
// thread's, and would take a thread that runs elsewhere to the wrong place
// on its way back.
constexpr const char* threadNetNs = "/proc/thread-self/ns/net";

constexpr int cloneNewNet = 0x40000000;
static_assert(cloneNewNet == CLONE_NEWNET);

constexpr std::size_t sockaddrSize = 110;
constexpr std::size_t abstractNameMax = 107;
static_assert(sizeof(sockaddr_un) == sockaddrSize);
static_assert(sizeof(sockaddr_un::sun_path) == abstractNameMax + 1);

constexpr const char* wmemMaxPath = "/proc/sys/net/core/wmem_max";
constexpr unsigned int defaultMaxSendBufferSize = 8388608;

// 175: facility LOG_LOCAL5, severity LOG_DEBUG.
constexpr int canaryPriority = LOG_LOCAL5 | LOG_DEBUG;
static_assert(canaryPriority == 175);

thread_local std::string keptResolveError;
thread_local std::string handedResolveError;

} // namespace

int socket(Platform::DebugHandler& handler, int domain, int type, int protocol) {
  const int localNsFd = ::open(threadNetNs, O_RDONLY | O_CLOEXEC);
  if (localNsFd < 0) {
    const int error = errno;
    if (error != ENOENT && error != EACCES)
      return -1;
    KESTO_TRACE(handler, 2, className, "failed to open {} reason: {}", threadNetNs, Kesto::strerror(error));
    const int sd = ::socket(domain, type, protocol);
    if (sd >= 0)
      KESTO_TRACE(handler, 2, className, "success opening local socket, sd:{}", sd);
    return sd;
  }
  KESTO_TRACE(handler, 2, className, "success opening {}", threadNetNs);

  const char* defaultNs = DEFAULT_NS;
  int sd;
  if (setnsByName(defaultNs, cloneNewNet) != 0) {
    KESTO_TRACE(handler, 2, className, "setnsByName() to {} failure: {}", defaultNs, netnsGetTracebuffer());
    errno = 0;
    sd = ::socket(domain, type, protocol);
    KESTO_TRACE(handler, 2, className, "{} opening {} socket: {}", sd >= 0 ? "success" : "failed", "local",
                Kesto::strerror(errno));
  } else {
    KESTO_TRACE(handler, 2, className, "setnsByName() to {} success", defaultNs);
    errno = 0;
    sd = ::socket(domain, type, protocol);
    KESTO_TRACE(handler, 2, className, "{} opening {} socket: {}", sd >= 0 ? "success" : "failed", defaultNs,
                Kesto::strerror(errno));
    errno = 0;
    if (::setns(localNsFd, cloneNewNet) != 0)
      KESTO_THROW(handler, className, "failed to switch back to caller's namespace: {}", Kesto::strerror(errno));
  }
  if (::close(localNsFd) != 0)
    KESTO_THROW(handler, className, "failed to close( localNsFd ): {}", Kesto::strerror(errno));
  return sd;
}

unsigned int createSockaddr(Platform::DebugHandler& handler, void* address, const String& name) {
  std::memset(address, 0, sockaddrSize);
  auto* un = static_cast<sockaddr_un*>(address);
  un->sun_family = AF_UNIX;
  // sun_path[0] stays 0: the address is abstract, no file stands for it.
  const std::size_t used = std::min<std::size_t>(name.size(), abstractNameMax);
  std::memcpy(un->sun_path + 1, name.data(), used);
  KESTO_TRACE(handler, 2, className, "using abstract socket {}", name);
  return static_cast<unsigned int>(used + 3);
}

int createAndBindSocket(Platform::DebugHandler& handler, const String& name) {
  const int sd = Util::socket(handler, AF_UNIX, SOCK_SEQPACKET, 0);
  if (sd < 0)
    fmassert(handler, className, __FILE__, __func__, __LINE__, "socket() failed: {}", Kesto::strerror(errno));
  const int on = 1;
  if (::setsockopt(sd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0) {
    const int error = errno;
    ::close(sd);
    fmassert(handler, className, __FILE__, __func__, __LINE__, "setsockopt() failed: {}", Kesto::strerror(error));
  }
  sockaddr_un address;
  const unsigned int length = createSockaddr(handler, &address, name);
  KESTO_TRACE(handler, 2, className, "using abstract socket {}", name);
  if (::bind(sd, reinterpret_cast<const sockaddr*>(&address), length) != 0) {
    const int error = errno;
    ::close(sd);
    KESTO_THROW(handler, className, "bind() failed for socket:{} error: {}", sd, Kesto::strerror(error));
  }
  return sd;
}

int setSocketSendBufferSize(int sd, int size) {
  Platform::DebugHandler& handler = *Debug::kestoUtil;
  if (sd < 0)
    fmassert(handler, className, __FILE__, __func__, __LINE__, "invalid sd: {}", sd);
  if (size <= 0)
    fmassert(handler, className, __FILE__, __func__, __LINE__, "invalid size: {}", size);
  const int result = ::setsockopt(sd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
  if (result != 0)
    fmassert(handler, className, __FILE__, __func__, __LINE__, "unable to set socket {} buffer size to {} bytes: {}",
             sd, size, Kesto::strerror(errno));
  return result;
}

unsigned int SYSTEM_MAX_SEND_BUFFER_SIZE() {
  // 0 means not read yet, so a file that says 0 is read at every call.
  static std::atomic<unsigned int> maxSize{0};
  unsigned int value = maxSize.load(std::memory_order_relaxed);
  if (value)
    return value;
  struct stat st;
  if (::stat(wmemMaxPath, &st) != 0) {
    value = defaultMaxSendBufferSize;
  } else {
    const String text = fileRead(*Debug::kestoUtil, wmemMaxPath, true);
    try {
      value = static_cast<unsigned int>(std::stoi(text.str()));
    } catch (const std::exception& e) {
      fmassert(*Debug::kestoUtil, className, __FILE__, __func__, __LINE__, "unable to convert string: {} to int: {}",
               text, e.what());
    }
  }
  maxSize.store(value, std::memory_order_relaxed);
  return value;
}

void emitCanaryLog(Platform::DebugHandler& handler, const String& message) {
  const std::string line =
      fmt::format("CANARY: pid:{} tid:{} {} {}", ::getpid(), Kesto::gettid(), handler.name, message);
  KESTO_TRACE(handler, 1, nullptr, "{}", line);
  ::syslog(canaryPriority, "%s", line.c_str());
}

void* resolveSym(Platform::DebugHandler& handler, const char* symbol) {
  KESTO_ASSERT_H(handler, symbol != nullptr, className, "null symbol name");
  // The handle of the process itself: never closed, it is the process.
  void* process = ::dlopen(nullptr, RTLD_LAZY);
  if (!process)
    fmassert(handler, className, __FILE__, __func__, __LINE__, "dlopen() failed: {}", ::dlerror());
  ::dlerror();
  void* address = ::dlsym(process, symbol);
  const char* error = ::dlerror();
  keptResolveError = error ? error : "";
  if (error)
    KESTO_TRACE(handler, 1, className, "symbolName:{} unable to resolve:{}", symbol, keptResolveError);
  else
    KESTO_TRACE(handler, 5, className, "sym:{} found at {}", symbol, DisplayPointer(address));
  return address;
}

const char* resolveSymError() {
  if (keptResolveError.empty())
    return nullptr;
  handedResolveError.swap(keptResolveError);
  keptResolveError.clear();
  return handedResolveError.c_str();
}

} // namespace Kesto::Util

namespace Kesto::HeapChecker {

namespace {
bool heapCheckerWanted() {
  return std::getenv("HEAPCHECK") || std::getenv("HEAP_CHECK_KESTO_ENABLED_DONT_DELETE");
}
} // namespace

void* resolveAllocSym(Platform::DebugHandler& handler) {
  return heapCheckerWanted() ? Util::resolveSym(handler, "HeapChecker_RecordClientAlloc") : nullptr;
}

void* resolveFreeSym(Platform::DebugHandler& handler) {
  return heapCheckerWanted() ? Util::resolveSym(handler, "HeapChecker_RecordClientFree") : nullptr;
}

} // namespace Kesto::HeapChecker
