#include <Kesto/Core/String.h>
#include <Kesto/Core/System.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <future>
#include <thread>

namespace {

// Runs `check` in a forked child of the calling thread and returns its exit
// status: 0 when the check held.
template <typename Check>
int inForkedChild(Check check) {
  const pid_t child = ::fork();
  if (child == 0)
    ::_exit(check() ? 0 : 1);
  int status = -1;
  ::waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 2;
}

} // namespace

TEST(System, TypeNameDemangles) {
  EXPECT_EQ(Kesto::typeName("_ZN5Kesto6StringE"), "Kesto::String");
  EXPECT_EQ(Kesto::typeName<Kesto::String>(), "Kesto::String");
  EXPECT_EQ(Kesto::typeName<int>(), "int");
  EXPECT_EQ(Kesto::typeName(typeid(std::string_view)), "std::basic_string_view<char, std::char_traits<char> >");
}

TEST(System, TypeNameReturnsWhatDoesNotDemangle) {
  EXPECT_EQ(Kesto::typeName("not a mangled name"), "not a mangled name");
  EXPECT_EQ(Kesto::typeName("_ZN5Kesto"), "_ZN5Kesto");
  EXPECT_EQ(Kesto::typeName(""), "");
  EXPECT_EQ(Kesto::typeName(static_cast<const char*>(nullptr)), "");
}

TEST(System, StrerrorGivesTheText) {
  EXPECT_EQ(Kesto::strerror(ENOENT), "No such file or directory");
  EXPECT_EQ(Kesto::strerror(EAGAIN), "Resource temporarily unavailable");
  EXPECT_FALSE(Kesto::strerror(123456).empty()); // unknown numbers still give a text
}

TEST(System, GettidEqualsPidOnTheMainThread) {
  EXPECT_EQ(Kesto::gettid(), ::getpid());
  EXPECT_EQ(Kesto::gettid(), Kesto::gettid()); // cached, stable
  EXPECT_TRUE(Kesto::isMainThread());
}

TEST(System, GettidDiffersAcrossThreads) {
  const pid_t mine = Kesto::gettid();
  auto a = std::async(std::launch::async, [] { return std::make_pair(Kesto::gettid(), Kesto::isMainThread()); });
  auto b = std::async(std::launch::async, [] { return std::make_pair(Kesto::gettid(), Kesto::isMainThread()); });
  const auto ra = a.get(), rb = b.get();
  EXPECT_NE(ra.first, mine);
  EXPECT_NE(rb.first, mine);
  EXPECT_NE(ra.first, rb.first);
  EXPECT_FALSE(ra.second);
  EXPECT_FALSE(rb.second);
  EXPECT_TRUE(Kesto::isMainThread());
}

TEST(System, ForkedChildSeesItsOwnIds) {
  ASSERT_EQ(Kesto::gettid(), ::getpid()); // fill the cache before forking
  EXPECT_EQ(inForkedChild([] { return Kesto::gettid() == ::getpid() && Kesto::isMainThread(); }), 0);
}

TEST(System, ChildForkedFromAThreadIsItsMainThread) {
  auto result = std::async(std::launch::async, [] {
    const bool wasMain = Kesto::isMainThread(); // caches "not main" in this thread
    const int status = inForkedChild([] { return Kesto::gettid() == ::getpid() && Kesto::isMainThread(); });
    return std::make_pair(wasMain, status);
  });
  const auto [wasMain, status] = result.get();
  EXPECT_FALSE(wasMain);
  EXPECT_EQ(status, 0);
}

TEST(System, PlatformFacts) {
  EXPECT_EQ(Kesto::cmd_F_OFD_SETLK(), F_OFD_SETLK);
  EXPECT_TRUE(Kesto::hasThreadLocalSingletons());
}
