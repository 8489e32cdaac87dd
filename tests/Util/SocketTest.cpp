// Sockets in the default network namespace, abstract addresses, send
// buffers, the canary line, symbol look-up and the heap checker hooks: on
// real sockets, real namespaces and the real /proc.
#include "NamedNetns.h"
#include "UtilTestSupport.h"

#include <Kesto/Util/Socket.h>

#include <KestoSupport/AssertMessage.h>
#include <KestoSupport/TraceCapture.h>

#include <KestoNetns/Netns.h>

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

extern "C" int32_t platformLibPresenceFlag;

namespace {

using KestoTest::NamedNetns;
using KestoTest::openDescriptorCount;
using KestoTest::threadNetNsInode;
using KestoTest::utilLine;
namespace Util = Kesto::Util;

constexpr const char* threadNetNs = "/proc/thread-self/ns/net";

// Closes a descriptor at the end of the scope.
struct Fd {
  int fd;
  explicit Fd(int d) : fd(d) {}
  ~Fd() {
    if (fd >= 0)
      ::close(fd);
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
};

// The inode of the network namespace a socket lives in, or 0.
ino_t socketNetNsInode(int sd) {
  const int nsFd = ::ioctl(sd, SIOCGSKNS);
  if (nsFd < 0)
    return 0;
  struct stat st {};
  const int rc = ::fstat(nsFd, &st);
  ::close(nsFd);
  return rc == 0 ? st.st_ino : 0;
}

// A name of `size` bytes unique to this process and call.
std::string abstractName(std::size_t size, char fill = 'x') {
  static int counter = 0;
  std::string name = fmt::format("kesto-test-{}-{}-", ::getpid(), counter++);
  name.resize(size, fill);
  return name;
}

// connect() of a new SOCK_SEQPACKET socket of the calling thread's
// namespace to the abstract address of `name`: 0 or errno.
int connectError(Kesto::Platform::DebugHandler& handler, const std::string& name) {
  Fd client(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  sockaddr_un address;
  const unsigned int length = Util::createSockaddr(handler, &address, Kesto::String(name));
  return ::connect(client.fd, reinterpret_cast<const sockaddr*>(&address), length) == 0 ? 0 : errno;
}

// The exit status of a forked child running `body`, and what it wrote on
// its standard error.
struct ChildOutput {
  int status;
  std::string text;
};

template <typename Body>
ChildOutput stderrOfChild(Body&& body) {
  int fds[2];
  if (::pipe(fds) != 0)
    return {-1, "pipe() failed"};
  const int status = KestoTest::statusOfChild([&] {
    ::dup2(fds[1], 2);
    ::close(fds[1]);
    ::close(fds[0]);
    return body();
  });
  ::close(fds[1]);
  std::string text;
  char buffer[4096];
  for (ssize_t n; (n = ::read(fds[0], buffer, sizeof buffer)) > 0;)
    text.append(buffer, n);
  ::close(fds[0]);
  return {status, text};
}

// In a forked child only: gives it a mount namespace of its own in which
// `dir` is an empty tmpfs. False if it cannot.
bool hideInOwnMountNamespace(const char* dir) {
  return ::unshare(CLONE_NEWNS) == 0 && ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         ::mount("none", dir, "tmpfs", 0, nullptr) == 0;
}

class SocketTest : public ::testing::Test {
protected:
  Kesto::Ptr<Kesto::Platform::DebugHandler> handler_ = KestoTest::testHandler();

  std::string line(unsigned level, const char* function, const std::string& text) const {
    return utilLine("UtilTest", level, function, text);
  }
};

// ---- Util::socket ------------------------------------------------------

TEST_F(SocketTest, InTheDefaultNamespaceItGoesThroughSetnsByNameAndBack) {
  SKIP_WITHOUT_NETNS_PRIVILEGE();
  const std::unique_ptr<NamedNetns> defaultNs = NamedNetns::attachCurrent(KestoTest::uniqueNetnsName("default"));
  ASSERT_TRUE(defaultNs);
  KestoTest::DefaultNsScope scope(defaultNs->name());
  const ino_t before = threadNetNsInode();
  const int descriptors = openDescriptorCount();
  KestoTest::TraceCapture trace({2}, *handler_);
  Fd sd(Util::socket(*handler_, AF_UNIX, SOCK_SEQPACKET, 0));
  ASSERT_GE(sd.fd, 0);
  EXPECT_EQ(trace.lines(), (std::vector<std::string>{
                               line(2, "socket", std::string("success opening ") + threadNetNs),
                               line(2, "socket", "setnsByName() to " + defaultNs->name() + " success"),
                               line(2, "socket", "success opening " + defaultNs->name() + " socket: Success"),
                           }));
  EXPECT_EQ(threadNetNsInode(), before);
  EXPECT_EQ(socketNetNsInode(sd.fd), before);
  EXPECT_EQ(openDescriptorCount(), descriptors + 1) << "only the socket stays open";
}

TEST_F(SocketTest, WhenTheDefaultCannotBeEnteredTheSocketIsMadeWhereTheThreadIs) {
  const std::string missing = KestoTest::uniqueNetnsName("nodefault");
  KestoTest::DefaultNsScope scope(missing);
  const ino_t before = threadNetNsInode();
  const int descriptors = openDescriptorCount();
  KestoTest::TraceCapture trace({2}, *handler_);
  Fd sd(Util::socket(*handler_, AF_UNIX, SOCK_DGRAM, 0));
  ASSERT_GE(sd.fd, 0);
  EXPECT_EQ(trace.lines(),
            (std::vector<std::string>{
                line(2, "socket", std::string("success opening ") + threadNetNs),
                line(2, "socket", "setnsByName() to " + missing + " failure: open(/run/netns/" + missing +
                                      ") failed: No such file or directory"),
                line(2, "socket", "success opening local socket: Success"),
            }));
  EXPECT_EQ(threadNetNsInode(), before);
  EXPECT_EQ(openDescriptorCount(), descriptors + 1);
}

TEST_F(SocketTest, AFailedSocketIsMinusOneAndTraced) {
  KestoTest::DefaultNsScope scope(KestoTest::uniqueNetnsName("nodefault"));
  const int descriptors = openDescriptorCount();
  KestoTest::TraceCapture trace({2}, *handler_);
  EXPECT_EQ(Util::socket(*handler_, AF_UNIX, SOCK_STREAM, IPPROTO_UDP), -1);
  EXPECT_EQ(trace.onlyLineWith("local socket"),
            line(2, "socket", "failed opening local socket: Protocol not supported"));
  EXPECT_EQ(openDescriptorCount(), descriptors);
}

// From inside a named namespace the socket is made in the default one, and
// the thread comes back to where it was, not to the main thread's namespace.
TEST_F(SocketTest, FromInsideANamedNamespaceTheSocketLivesInTheDefaultOne) {
  SKIP_WITHOUT_NETNS_PRIVILEGE();
  const ino_t defaultInode = threadNetNsInode();
  const std::unique_ptr<NamedNetns> defaultNs = NamedNetns::attachCurrent(KestoTest::uniqueNetnsName("default"));
  ASSERT_TRUE(defaultNs);
  ASSERT_EQ(defaultNs->inode(), defaultInode);
  const std::unique_ptr<NamedNetns> other = NamedNetns::create(KestoTest::uniqueNetnsName("other"));
  ASSERT_TRUE(other);
  KestoTest::DefaultNsScope scope(defaultNs->name());
  const std::string name = abstractName(60);
  const int descriptors = openDescriptorCount();

  int sd = -1;
  ino_t threadAfter = 0, plainSocketNs = 0;
  int connectFromInside = -1;
  std::thread([&] {
    ASSERT_EQ(setnsByName(other->name().c_str(), CLONE_NEWNET), 0) << netnsGetTracebuffer();
    sd = Util::socket(*handler_, AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    threadAfter = threadNetNsInode();
    Fd plain(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    plainSocketNs = socketNetNsInode(plain.fd);
    if (sd >= 0) {
      sockaddr_un address;
      const unsigned int length = Util::createSockaddr(*handler_, &address, Kesto::String(name));
      EXPECT_EQ(::bind(sd, reinterpret_cast<const sockaddr*>(&address), length), 0) << std::strerror(errno);
      EXPECT_EQ(::listen(sd, 1), 0);
      connectFromInside = connectError(*handler_, name);
    }
  }).join();
  Fd socket(sd);
  ASSERT_GE(sd, 0);
  EXPECT_EQ(threadAfter, other->inode()) << "the thread did not come back to its namespace";
  EXPECT_EQ(plainSocketNs, other->inode()) << "the check does not tell namespaces apart";
  EXPECT_EQ(socketNetNsInode(sd), defaultInode);
  // Abstract addresses belong to a namespace: the socket is reached from
  // the default namespace and not from the one it was asked for in.
  EXPECT_EQ(connectFromInside, ECONNREFUSED);
  EXPECT_EQ(connectError(*handler_, name), 0);
  EXPECT_EQ(openDescriptorCount(), descriptors + 1);
}

TEST_F(SocketTest, WhenTheNamespaceFileCannotBeOpenedForEmfileItIsMinusOneWithNoTrace) {
  const ChildOutput child = stderrOfChild([&] {
    for (unsigned short level = 0; level < 16; ++level)
      handler_->enabledIs(level, true);
    KestoTest::exhaustDescriptors();
    errno = 0;
    const int sd = Util::socket(*handler_, AF_UNIX, SOCK_SEQPACKET, 0);
    if (sd != -1)
      return 2;
    return errno == EMFILE ? 0 : 3;
  });
  EXPECT_TRUE(KestoTest::exitedWith(child.status, 0)) << "status " << child.status;
  EXPECT_EQ(child.text, "");
}

// Without /proc the namespace cannot be looked at: the socket is made where
// the thread stands. /proc is hidden in a child's own mount namespace.
TEST_F(SocketTest, WithoutTheNamespaceFileTheSocketIsMadeWhereTheThreadStands) {
  SKIP_WITHOUT_NETNS_PRIVILEGE();
  const ChildOutput child = stderrOfChild([&] {
    if (!hideInOwnMountNamespace("/proc"))
      return 2;
    handler_->enabledIs(2, true);
    Kesto::Platform::setTraceFormat("handle,level");
    const int sd = Util::socket(*handler_, AF_UNIX, SOCK_SEQPACKET, 0);
    std::fprintf(stderr, "sd=%d\n", sd);
    return sd >= 0 ? 0 : 3;
  });
  ASSERT_TRUE(KestoTest::exitedWith(child.status, 0)) << "status " << child.status;
  const std::string& text = child.text;
  const std::size_t at = text.find("sd=");
  ASSERT_NE(at, std::string::npos) << text;
  const std::string sd = text.substr(at + 3, text.find('\n', at) - at - 3);
  EXPECT_EQ(text, line(2, "socket", std::string("failed to open ") + threadNetNs +
                                        " reason: No such file or directory") +
                      "\n" + line(2, "socket", "success opening local socket, sd:" + sd) + "\nsd=" + sd + "\n");
}

// ---- abstract addresses ------------------------------------------------

TEST_F(SocketTest, ANameOf200BytesUsesItsFirst107AndGives110) {
  const std::string name = abstractName(200, 'q');
  unsigned char raw[sizeof(sockaddr_un) + 8];
  std::memset(raw, 0xff, sizeof raw);
  KestoTest::TraceCapture trace({2}, *handler_);
  EXPECT_EQ(Util::createSockaddr(*handler_, raw, Kesto::String(name)), 110u);
  EXPECT_EQ(trace.onlyLineWith("abstract"), line(2, "createSockaddr", "using abstract socket " + name));
  sockaddr_un address;
  std::memcpy(&address, raw, sizeof address);
  EXPECT_EQ(address.sun_family, AF_UNIX);
  EXPECT_EQ(address.sun_path[0], '\0');
  EXPECT_EQ(std::string(address.sun_path + 1, 107), name.substr(0, 107));
  for (std::size_t i = sizeof(sockaddr_un); i < sizeof raw; ++i)
    EXPECT_EQ(raw[i], 0xff) << "byte " << i << " beyond the address was written";
}

TEST_F(SocketTest, AnEmptyNameGivesLength3AndAnAllZeroPath) {
  sockaddr_un address;
  std::memset(&address, 0xff, sizeof address);
  EXPECT_EQ(Util::createSockaddr(*handler_, &address, Kesto::String()), 3u);
  EXPECT_EQ(address.sun_family, AF_UNIX);
  for (std::size_t i = 0; i < sizeof address.sun_path; ++i)
    EXPECT_EQ(address.sun_path[i], 0) << "byte " << i;
}

TEST_F(SocketTest, NamesOfTheMaximumAndOneLessKeepEveryByte) {
  sockaddr_un address;
  const std::string longest = abstractName(107);
  EXPECT_EQ(Util::createSockaddr(*handler_, &address, Kesto::String(longest)), 110u);
  EXPECT_EQ(std::string(address.sun_path + 1, 107), longest);
  const std::string shorter = abstractName(106);
  EXPECT_EQ(Util::createSockaddr(*handler_, &address, Kesto::String(shorter)), 109u);
  EXPECT_EQ(std::string(address.sun_path + 1, 106), shorter);
  EXPECT_EQ(address.sun_path[107], '\0');
}

TEST_F(SocketTest, ASocketBoundToA200ByteNameIsReachedByItsFirst107Bytes) {
  const std::string name = abstractName(200, 'r');
  const int descriptors = openDescriptorCount();
  KestoTest::TraceCapture trace({2}, *handler_);
  Fd server(Util::createAndBindSocket(*handler_, Kesto::String(name)));
  ASSERT_GE(server.fd, 0);
  EXPECT_EQ(trace.linesWith("using abstract socket " + name).size(), 2u) << trace.text();
  sockaddr_un bound;
  socklen_t length = sizeof bound;
  ASSERT_EQ(::getsockname(server.fd, reinterpret_cast<sockaddr*>(&bound), &length), 0);
  EXPECT_EQ(length, 110u);
  EXPECT_EQ(std::string(bound.sun_path + 1, 107), name.substr(0, 107));
  int reuse = 0;
  socklen_t size = sizeof reuse;
  ASSERT_EQ(::getsockopt(server.fd, SOL_SOCKET, SO_REUSEADDR, &reuse, &size), 0);
  EXPECT_EQ(reuse, 1);
  int type = 0;
  size = sizeof type;
  ASSERT_EQ(::getsockopt(server.fd, SOL_SOCKET, SO_TYPE, &type, &size), 0);
  EXPECT_EQ(type, SOCK_SEQPACKET);

  // Not listening yet: a connection is refused until the owner listens.
  EXPECT_EQ(connectError(*handler_, name), ECONNREFUSED);
  ASSERT_EQ(::listen(server.fd, 2), 0);
  EXPECT_EQ(connectError(*handler_, name), 0);
  EXPECT_EQ(connectError(*handler_, name.substr(0, 107)), 0);
  EXPECT_EQ(connectError(*handler_, name.substr(0, 106)), ECONNREFUSED);
  EXPECT_EQ(openDescriptorCount(), descriptors + 1);
}

TEST_F(SocketTest, BindingATakenNameThrowsAndClosesTheSocket) {
  const std::string name = abstractName(150, 's');
  Fd first(Util::createAndBindSocket(*handler_, Kesto::String(name)));
  ASSERT_GE(first.fd, 0);
  // Differs only beyond byte 107: the same address.
  std::string same = name;
  same[140] = 't';
  const int descriptors = openDescriptorCount();
  const std::string prefix = "Kesto::Util::createAndBindSocket() bind() failed for socket:";
  const std::string suffix = " error: Address already in use";
  try {
    Util::createAndBindSocket(*handler_, Kesto::String(same));
    ADD_FAILURE() << "no exception";
  } catch (const Kesto::RuntimeException& e) {
    const std::string what = e.what();
    ASSERT_EQ(what.rfind(prefix, 0), 0u) << what;
    ASSERT_TRUE(KestoTest::endsWith(what, suffix)) << what;
    const int sd = std::stoi(what.substr(prefix.size(), what.size() - prefix.size() - suffix.size()));
    EXPECT_GE(sd, 0);
    EXPECT_EQ(::fcntl(sd, F_GETFD), -1) << "the socket of the failed bind is still open";
  }
  EXPECT_EQ(openDescriptorCount(), descriptors);
}

// ---- send buffers --------------------------------------------------------

TEST_F(SocketTest, TheSystemMaximumIsWhatWmemMaxSays) {
  const std::string text = KestoTest::readFile("/proc/sys/net/core/wmem_max");
  ASSERT_FALSE(text.empty());
  EXPECT_EQ(Util::SYSTEM_MAX_SEND_BUFFER_SIZE(), static_cast<unsigned int>(std::stoul(text)));
  EXPECT_EQ(Util::SYSTEM_MAX_SEND_BUFFER_SIZE(), Util::SYSTEM_MAX_SEND_BUFFER_SIZE());
}

TEST_F(SocketTest, TheSendBufferIsSetAndCappedAtTheSystemMaximum) {
  Fd sd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  ASSERT_GE(sd.fd, 0);
  EXPECT_EQ(Util::setSocketSendBufferSize(sd.fd, 65536), 0);
  int size = 0;
  socklen_t length = sizeof size;
  ASSERT_EQ(::getsockopt(sd.fd, SOL_SOCKET, SO_SNDBUF, &size, &length), 0);
  EXPECT_EQ(size, 2 * 65536) << "the kernel keeps twice what is asked";
  const unsigned int max = Util::SYSTEM_MAX_SEND_BUFFER_SIZE();
  ASSERT_LT(max, 0x3fffffffu);
  EXPECT_EQ(Util::setSocketSendBufferSize(sd.fd, static_cast<int>(max) + 4096), 0);
  ASSERT_EQ(::getsockopt(sd.fd, SOL_SOCKET, SO_SNDBUF, &size, &length), 0);
  EXPECT_EQ(static_cast<unsigned int>(size), 2 * max);
}

std::string assertionOf(int sd, int size) {
  try {
    Util::setSocketSendBufferSize(sd, size);
  } catch (const Kesto::AssertException& e) {
    return KestoTest::assertMessage(e.what());
  }
  return "no assertion";
}

TEST_F(SocketTest, ASizeOfZeroOrBelowAssertsBeforeAnySystemCall) {
  Fd sd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  ASSERT_GE(sd.fd, 0);
  int before = 0;
  socklen_t length = sizeof before;
  ASSERT_EQ(::getsockopt(sd.fd, SOL_SOCKET, SO_SNDBUF, &before, &length), 0);
  Kesto::throwOnAssertFailIs(true);
  EXPECT_EQ(assertionOf(sd.fd, 0), "Kesto::Util::setSocketSendBufferSize() invalid size: 0");
  EXPECT_EQ(assertionOf(sd.fd, -4096), "Kesto::Util::setSocketSendBufferSize() invalid size: -4096");
  // A closed descriptor shows that a size of 0 never reaches setsockopt():
  // that would fail with EBADF and assert otherwise.
  const int closed = ::dup(sd.fd);
  ::close(closed);
  EXPECT_EQ(assertionOf(closed, 0), "Kesto::Util::setSocketSendBufferSize() invalid size: 0");
  EXPECT_EQ(assertionOf(closed, 4096), fmt::format("Kesto::Util::setSocketSendBufferSize() unable to set socket {} "
                                                   "buffer size to 4096 bytes: Bad file descriptor",
                                                   closed));
  EXPECT_EQ(assertionOf(-1, 4096), "Kesto::Util::setSocketSendBufferSize() invalid sd: -1");
  Kesto::throwOnAssertFailIs(false);
  int after = 0;
  ASSERT_EQ(::getsockopt(sd.fd, SOL_SOCKET, SO_SNDBUF, &after, &length), 0);
  EXPECT_EQ(after, before);
}

// ---- the canary line -------------------------------------------------------

// The system log is a datagram socket at /dev/log; a child with its own
// mount namespace puts one of its own there and reads what syslog() sent.
TEST_F(SocketTest, TheCanaryReachesSyslogWithLevel1OffAndIsTracedWithItOn) {
  SKIP_WITHOUT_NETNS_PRIVILEGE();
  const ChildOutput child = stderrOfChild([&] {
    if (!hideInOwnMountNamespace("/dev"))
      return 2;
    const int log = ::socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "/dev/log");
    if (::bind(log, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
      return 3;
    Kesto::Platform::setTraceFormat("handle,level");
    char datagram[1024];
    handler_->enabledIs(1, false);
    Util::emitCanaryLog(*handler_, "quiet one");
    ssize_t n = ::recv(log, datagram, sizeof datagram - 1, MSG_DONTWAIT);
    std::fprintf(stderr, "syslog:%s\n", n > 0 ? std::string(datagram, n).c_str() : "(nothing)");
    handler_->enabledIs(1, true);
    Util::emitCanaryLog(*handler_, "loud one");
    n = ::recv(log, datagram, sizeof datagram - 1, MSG_DONTWAIT);
    std::fprintf(stderr, "syslog:%s\n", n > 0 ? std::string(datagram, n).c_str() : "(nothing)");
    std::fprintf(stderr, "pid:%d tid:%d\n", ::getpid(), Kesto::gettid());
    return 0;
  });
  ASSERT_TRUE(KestoTest::exitedWith(child.status, 0)) << "status " << child.status;
  const std::string& text = child.text;
  std::vector<std::string> lines;
  for (std::size_t start = 0, end; start < text.size(); start = end + 1) {
    end = text.find('\n', start);
    lines.push_back(text.substr(start, end - start));
  }
  ASSERT_EQ(lines.size(), 4u) << text;
  const std::string ids = lines[3];
  const std::string quiet = "CANARY: " + ids + " UtilTest quiet one";
  const std::string loud = "CANARY: " + ids + " UtilTest loud one";
  EXPECT_TRUE(lines[0].rfind("syslog:<175>", 0) == 0) << lines[0];
  EXPECT_TRUE(KestoTest::endsWith(lines[0], ": " + quiet)) << lines[0];
  EXPECT_EQ(lines[1], "UtilTest 1 " + loud) << "no class or function prefix";
  EXPECT_TRUE(lines[2].rfind("syslog:<175>", 0) == 0) << lines[2];
  EXPECT_TRUE(KestoTest::endsWith(lines[2], ": " + loud)) << lines[2];
}

// ---- symbols ------------------------------------------------------------

TEST_F(SocketTest, AGlobalSymbolIsFoundAndTraced) {
  KestoTest::TraceCapture trace({1, 5}, *handler_);
  void* address = Util::resolveSym(*handler_, "platformLibPresenceFlag");
  EXPECT_EQ(address, static_cast<void*>(&platformLibPresenceFlag));
  EXPECT_EQ(trace.onlyLineWith("platformLibPresenceFlag"),
            line(5, "resolveSym", fmt::format("sym:platformLibPresenceFlag found at {}",
                                              Kesto::DisplayPointer(&platformLibPresenceFlag))));
  EXPECT_EQ(Util::resolveSymError(), nullptr);
}

TEST_F(SocketTest, AMissingSymbolIsNullWithItsErrorKeptOnce) {
  KestoTest::TraceCapture trace({1}, *handler_);
  EXPECT_EQ(Util::resolveSym(*handler_, "kestoTestNoSuchSymbol"), nullptr);
  const char* error = Util::resolveSymError();
  ASSERT_NE(error, nullptr);
  const std::string kept = error;
  EXPECT_NE(kept.find("kestoTestNoSuchSymbol"), std::string::npos) << kept;
  EXPECT_EQ(Util::resolveSymError(), nullptr) << "the text is handed out once";
  EXPECT_EQ(trace.onlyLineWith("kestoTestNoSuchSymbol"),
            line(1, "resolveSym", "symbolName:kestoTestNoSuchSymbol unable to resolve:" + kept));
}

TEST_F(SocketTest, ANullSymbolNameAsserts) {
  Kesto::throwOnAssertFailIs(true);
  try {
    Util::resolveSym(*handler_, nullptr);
    ADD_FAILURE() << "no assertion";
  } catch (const Kesto::AssertException& e) {
    EXPECT_EQ(KestoTest::assertMessage(e.what()), "Kesto::Util::resolveSym() null symbol name");
  }
  Kesto::throwOnAssertFailIs(false);
}

// Sets or unsets an environment variable for the life of the object.
class EnvScope {
public:
  EnvScope(const char* name, const char* value) : name_(name) {
    if (const char* old = std::getenv(name))
      saved_ = old, had_ = true;
    value ? ::setenv(name, value, 1) : ::unsetenv(name);
  }
  ~EnvScope() { had_ ? ::setenv(name_, saved_.c_str(), 1) : ::unsetenv(name_); }

private:
  const char* name_;
  std::string saved_;
  bool had_ = false;
};

TEST_F(SocketTest, TheHeapCheckerIsLookedForOnlyWhenTheEnvironmentAsks) {
  EnvScope heapCheck("HEAPCHECK", nullptr);
  EnvScope dontDelete("HEAP_CHECK_KESTO_ENABLED_DONT_DELETE", nullptr);
  {
    KestoTest::TraceCapture trace({1, 5}, *handler_);
    EXPECT_EQ(Kesto::HeapChecker::resolveAllocSym(*handler_), nullptr);
    EXPECT_EQ(Kesto::HeapChecker::resolveFreeSym(*handler_), nullptr);
    EXPECT_EQ(trace.text(), "") << "nothing was looked up";
    EXPECT_EQ(Util::resolveSymError(), nullptr);
  }
  for (const char* variable : {"HEAPCHECK", "HEAP_CHECK_KESTO_ENABLED_DONT_DELETE"}) {
    EnvScope wanted(variable, "1");
    KestoTest::TraceCapture trace({1, 5}, *handler_);
    // No heap checker is preloaded here: the look-ups are made and fail.
    EXPECT_EQ(Kesto::HeapChecker::resolveAllocSym(*handler_), nullptr);
    EXPECT_NE(trace.text().find("symbolName:HeapChecker_RecordClientAlloc unable to resolve:"), std::string::npos)
        << variable;
    EXPECT_EQ(Kesto::HeapChecker::resolveFreeSym(*handler_), nullptr);
    const char* error = Util::resolveSymError();
    ASSERT_NE(error, nullptr) << variable;
    EXPECT_NE(std::string(error).find("HeapChecker_RecordClientFree"), std::string::npos) << error;
  }
}

// A heap checker in the global scope of the process (here loaded with
// RTLD_GLOBAL, where a real one is preloaded; the look-up cannot tell the
// two apart) is found, and what is found is its own entry point. In a child,
// so that the checker stays out of this process's scope for the other tests.
TEST_F(SocketTest, TheHeapCheckerInTheProcessIsFoundWhenTheEnvironmentAsks) {
  const int status = KestoTest::statusOfChild([&] {
    void* checker = ::dlopen(KESTO_UTIL_HEAP_CHECKER, RTLD_NOW | RTLD_GLOBAL);
    if (!checker)
      return 2;
    ::setenv("HEAPCHECK", "1", 1);
    ::unsetenv("HEAP_CHECK_KESTO_ENABLED_DONT_DELETE");
    void* alloc = ::dlsym(checker, "HeapChecker_RecordClientAlloc");
    void* free = ::dlsym(checker, "HeapChecker_RecordClientFree");
    std::string traced;
    void* foundAlloc = nullptr;
    void* foundFree = nullptr;
    {
      KestoTest::TraceCapture trace({1, 5}, *handler_);
      foundAlloc = Kesto::HeapChecker::resolveAllocSym(*handler_);
      foundFree = Kesto::HeapChecker::resolveFreeSym(*handler_);
      traced = trace.text();
    }
    if (!alloc || foundAlloc != alloc || foundFree != free)
      return 3;
    const std::string expected =
        line(5, "resolveSym", fmt::format("sym:HeapChecker_RecordClientAlloc found at {}", Kesto::DisplayPointer(alloc))) +
        "\n" +
        line(5, "resolveSym", fmt::format("sym:HeapChecker_RecordClientFree found at {}", Kesto::DisplayPointer(free))) +
        "\n";
    if (traced != expected)
      return 4;
    if (Util::resolveSymError() != nullptr)
      return 5;
    // The address is the checker's: a call through it is recorded there.
    reinterpret_cast<void (*)(void*, std::size_t)>(foundAlloc)(nullptr, 16);
    reinterpret_cast<void (*)(void*)>(foundFree)(nullptr);
    const auto count = [&](const char* name) {
      return reinterpret_cast<std::size_t (*)()>(::dlsym(checker, name))();
    };
    return count("recordingHeapCheckerAllocations") == 1 && count("recordingHeapCheckerFrees") == 1 ? 0 : 6;
  });
  EXPECT_TRUE(KestoTest::exitedWith(status, 0)) << status;
}

} // namespace
