// The network namespace helper: names under /run/netns entered by the
// calling thread alone, and the failure text of each thread.
#include "NamedNetns.h"
#include "UtilTestSupport.h"

#include <KestoNetns/Netns.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <thread>

namespace {

using KestoTest::NamedNetns;
using KestoTest::nsInode;
using KestoTest::openDescriptorCount;
using KestoTest::threadNetNsInode;

constexpr int cloneNewNet = 0x40000000;

TEST(Netns, NamesLiveUnderRunNetnsAndTheDefaultIsCalledDefault) {
  EXPECT_STREQ(NETNS_RUN_DIR, "/run/netns");
  EXPECT_STREQ(DEFAULT_NS, "default");
  std::string fresh = "unread";
  std::thread([&] { fresh = netnsGetTracebuffer(); }).join();
  EXPECT_EQ(fresh, "") << "a thread that has not failed has no failure text";
}

TEST(Netns, AMissingNameFailsAndTheThreadStaysWhereItWas) {
  const std::string name = KestoTest::uniqueNetnsName("missing");
  const ino_t before = threadNetNsInode();
  const int descriptors = openDescriptorCount();
  errno = 0;
  EXPECT_EQ(setnsByName(name.c_str(), cloneNewNet), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(std::string(netnsGetTracebuffer()),
            "open(/run/netns/" + name + ") failed: No such file or directory");
  EXPECT_EQ(threadNetNsInode(), before);
  EXPECT_EQ(openDescriptorCount(), descriptors);
}

TEST(Netns, NamesThatAreNoPlainNameFailWithEinval) {
  const std::string tooLong(300, 'n');
  const int descriptors = openDescriptorCount();
  for (const char* name : {"", ".", "..", "a/b", "../../proc/1/ns/net", tooLong.c_str()}) {
    errno = 0;
    EXPECT_EQ(setnsByName(name, cloneNewNet), -1) << name;
    EXPECT_EQ(errno, EINVAL) << name;
    EXPECT_EQ(std::string(netnsGetTracebuffer()), std::string("invalid namespace name '") + name + "'");
  }
  errno = 0;
  EXPECT_EQ(setnsByName(nullptr, cloneNewNet), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_STREQ(netnsGetTracebuffer(), "invalid namespace name '(null)'");
  EXPECT_EQ(openDescriptorCount(), descriptors);
}

TEST(Netns, EachThreadKeepsItsOwnFailureText) {
  const std::string first = KestoTest::uniqueNetnsName("first");
  const std::string second = KestoTest::uniqueNetnsName("second");
  ASSERT_EQ(setnsByName(first.c_str(), cloneNewNet), -1);
  std::string seenByOther;
  std::thread([&] {
    setnsByName(second.c_str(), cloneNewNet);
    seenByOther = netnsGetTracebuffer();
  }).join();
  EXPECT_NE(std::string(netnsGetTracebuffer()).find(first), std::string::npos) << netnsGetTracebuffer();
  EXPECT_NE(seenByOther.find(second), std::string::npos) << seenByOther;
}

TEST(Netns, ANamedNamespaceIsEnteredByTheCallingThreadAlone) {
  SKIP_WITHOUT_NETNS_PRIVILEGE();
  const std::unique_ptr<NamedNetns> ns = NamedNetns::create(KestoTest::uniqueNetnsName("enter"));
  ASSERT_TRUE(ns);
  const ino_t mainBefore = threadNetNsInode();
  ASSERT_NE(ns->inode(), mainBefore);
  const int descriptors = openDescriptorCount();
  int result = -1;
  ino_t inside = 0;
  std::thread([&] {
    result = setnsByName(ns->name().c_str(), cloneNewNet);
    inside = threadNetNsInode();
  }).join();
  EXPECT_EQ(result, 0) << netnsGetTracebuffer();
  EXPECT_EQ(inside, ns->inode());
  EXPECT_EQ(threadNetNsInode(), mainBefore) << "another thread was moved";
  EXPECT_EQ(openDescriptorCount(), descriptors) << "the namespace file stayed open";
}

TEST(Netns, ANamespaceOfAnotherTypeIsRefused) {
  SKIP_WITHOUT_NETNS_PRIVILEGE();
  const std::unique_ptr<NamedNetns> ns = NamedNetns::create(KestoTest::uniqueNetnsName("type"));
  ASSERT_TRUE(ns);
  const ino_t before = threadNetNsInode();
  const int descriptors = openDescriptorCount();
  errno = 0;
  EXPECT_EQ(setnsByName(ns->name().c_str(), CLONE_NEWUTS), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(std::string(netnsGetTracebuffer()),
            "setns(" + ns->path() + ", 0x4000000) failed: Invalid argument");
  EXPECT_EQ(threadNetNsInode(), before);
  EXPECT_EQ(openDescriptorCount(), descriptors);
}

TEST(Netns, AFileThatHoldsNoNamespaceIsRefused) {
  SKIP_WITHOUT_NETNS_PRIVILEGE();
  const std::string name = KestoTest::uniqueNetnsName("plain");
  const std::string path = std::string(NETNS_RUN_DIR) + "/" + name;
  KestoTest::writeFile(path, "not a namespace");
  struct Remove {
    std::string path;
    ~Remove() { ::unlink(path.c_str()); }
  } remove{path};
  const ino_t before = threadNetNsInode();
  errno = 0;
  EXPECT_EQ(setnsByName(name.c_str(), cloneNewNet), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(std::string(netnsGetTracebuffer()), "setns(" + path + ", 0x40000000) failed: Invalid argument");
  EXPECT_EQ(threadNetNsInode(), before);
}

// The names are those of iproute2: what `ip netns add` makes is entered.
TEST(Netns, ANamespaceMadeByIpNetnsAddIsEntered) {
  SKIP_WITHOUT_NETNS_PRIVILEGE();
  if (std::system("command -v ip >/dev/null 2>&1") != 0)
    GTEST_SKIP() << "iproute2's ip is not installed";
  const std::string name = KestoTest::uniqueNetnsName("ip");
  struct Delete {
    std::string name;
    ~Delete() { std::system(("ip netns delete " + name + " 2>/dev/null").c_str()); }
  } remove{name};
  // ip takes the lock of NetnsDirLock itself.
  ASSERT_EQ(std::system(("ip netns add " + name).c_str()), 0);
  const ino_t named = nsInode(std::string(NETNS_RUN_DIR) + "/" + name);
  ASSERT_NE(named, 0u);
  int result = -1;
  ino_t inside = 0;
  std::thread([&] {
    result = setnsByName(name.c_str(), cloneNewNet);
    inside = threadNetNsInode();
  }).join();
  EXPECT_EQ(result, 0) << netnsGetTracebuffer();
  EXPECT_EQ(inside, named);
  EXPECT_NE(inside, threadNetNsInode());
}

} // namespace
