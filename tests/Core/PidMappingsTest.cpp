#include <Kesto/Core/PidMappings.h>

#include <gtest/gtest.h>

#include <limits.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

using Kesto::MappingInfo;
using Kesto::MappingInfos;
using Kesto::PidMappings;
using Kesto::String;

namespace {

// A function of this test executable whose code the mappings must place.
__attribute__((noinline)) int functionOfTheTest(int x) { return x * 3 + 1; }

std::string ownExecutable() {
  char buffer[PATH_MAX];
  const ssize_t n = ::readlink("/proc/self/exe", buffer, sizeof buffer);
  return n > 0 ? std::string(buffer, static_cast<std::size_t>(n)) : std::string();
}

const void* codeAddress() { return reinterpret_cast<const void*>(&functionOfTheTest); }

} // namespace

TEST(PidMappings, FunctionOfTheTestIsInAnExecutableMappingOfTheTestFile) {
  ASSERT_EQ(functionOfTheTest(1), 4);
  const MappingInfos maps = PidMappings::populate(0);
  ASSERT_FALSE(maps.empty());
  const MappingInfo m = maps.find(codeAddress());
  ASSERT_TRUE(m.found());
  EXPECT_NE(m.start, 0ul);
  EXPECT_TRUE(m.contains(codeAddress()));
  EXPECT_LE(m.start, reinterpret_cast<unsigned long>(codeAddress()));
  EXPECT_GT(m.end, reinterpret_cast<unsigned long>(codeAddress()));
  ASSERT_EQ(m.perms.size(), 4u);
  EXPECT_EQ(m.perms[0], 'r');
  EXPECT_EQ(m.perms[2], 'x');
  EXPECT_EQ(m.flags(), unsigned(PROT_READ | PROT_EXEC));
  EXPECT_EQ(m.path.view(), ownExecutable());
  EXPECT_NE(m.inode, 0ul);
  EXPECT_EQ(m.offset % ::getpagesize(), 0ul);
}

TEST(PidMappings, FindByPathOffsetAndFlagsFindsItAgain) {
  const MappingInfos maps = PidMappings::populate(0);
  const MappingInfo m = maps.find(codeAddress());
  ASSERT_TRUE(m.found());
  const MappingInfo again = maps.find(m.path, m.offset, m.flags());
  EXPECT_EQ(again.start, m.start);
  EXPECT_EQ(again.end, m.end);
  EXPECT_EQ(again.perms, m.perms);
  const MappingInfo any = maps.find(m.path, m.offset, MappingInfos::anyFlags);
  EXPECT_EQ(any.start, m.start);
  // The same file and offset with other flags, or another offset, is not it.
  EXPECT_NE(maps.find(m.path, m.offset, PROT_READ | PROT_WRITE).start, m.start);
  EXPECT_FALSE(maps.find(m.path, m.offset + 1, m.flags()).found());
  EXPECT_FALSE(maps.find(String("/no/such/file"), m.offset, m.flags()).found());
}

TEST(PidMappings, UnmappedAddressGivesNone) {
  const long page = ::getpagesize();
  void* p = ::mmap(nullptr, std::size_t(page), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(p, MAP_FAILED);
  const MappingInfo mapped = PidMappings::populate(0).find(p);
  EXPECT_TRUE(mapped.found());
  EXPECT_EQ(mapped.flags(), unsigned(PROT_READ | PROT_WRITE));
  ASSERT_EQ(::munmap(p, std::size_t(page)), 0);
  const MappingInfos after = PidMappings::populate(0);
  const MappingInfo none = after.find(p);
  EXPECT_EQ(none.start, 0ul);
  EXPECT_FALSE(none.found());
  EXPECT_EQ(after.find(reinterpret_cast<const void*>(8)).start, 0ul);
  EXPECT_EQ(after.find(reinterpret_cast<const void*>(~0ul)).start, 0ul);
}

TEST(PidMappings, OwnPidEqualsSelf) {
  const MappingInfo bySelf = PidMappings::populate(0).find(codeAddress());
  const MappingInfo byPid = PidMappings::populate(::getpid()).find(codeAddress());
  EXPECT_EQ(bySelf.start, byPid.start);
  EXPECT_EQ(bySelf.path, byPid.path);
}

TEST(PidMappings, UnreadableProcessGivesEmpty) {
  EXPECT_TRUE(PidMappings::populate(-5).empty());
  EXPECT_TRUE(PidMappings::populate(0x3fffffff).empty()); // above the kernel's pid limit
}

TEST(PidMappings, ParsesEveryFieldOfALine) {
  MappingInfo m;
  ASSERT_TRUE(MappingInfo::parse(
      "7f1c2a3b4000-7f1c2a3b9000 r-xs 0001a000 fd:01 1234567                    /usr/lib/with blank.so (deleted)",
      m));
  EXPECT_EQ(m.start, 0x7f1c2a3b4000ul);
  EXPECT_EQ(m.end, 0x7f1c2a3b9000ul);
  EXPECT_EQ(m.perms, "r-xs");
  EXPECT_EQ(m.offset, 0x1a000ul);
  EXPECT_EQ(m.major, 0xfdu);
  EXPECT_EQ(m.minor, 0x01u);
  EXPECT_EQ(m.inode, 1234567ul);
  EXPECT_EQ(m.path, "/usr/lib/with blank.so (deleted)");
  EXPECT_EQ(m.flags(), unsigned(PROT_READ | PROT_EXEC));
}

TEST(PidMappings, ParsesAnonymousAndNamedMemory) {
  const MappingInfos maps = PidMappings::parse("55d0c8a00000-55d0c8a21000 rw-p 00000000 00:00 0 \n"
                                               "55d0c8a21000-55d0c8a42000 rw-p 00000000 00:00 0          [heap]\n"
                                               "not a mapping line\n"
                                               "\n"
                                               "ffffffffff600000-ffffffffff601000 --xp 00000000 00:00 0  [vsyscall]");
  ASSERT_EQ(maps.size(), 3u);
  EXPECT_EQ(maps[0].path, "");
  EXPECT_EQ(maps[1].path, "[heap]");
  EXPECT_EQ(maps[2].path, "[vsyscall]");
  EXPECT_EQ(maps[2].start, 0xffffffffff600000ul);
  EXPECT_EQ(maps[2].flags(), unsigned(PROT_EXEC));
  EXPECT_EQ(maps.find(reinterpret_cast<const void*>(0x55d0c8a21000ul)).path, "[heap]"); // start is inside
  EXPECT_EQ(maps.find(reinterpret_cast<const void*>(0x55d0c8a20fffull)).path, "");
  EXPECT_FALSE(maps.find(reinterpret_cast<const void*>(0x55d0c8a42000ul)).found()); // end is outside
}

TEST(PidMappings, RejectsMalformedLines) {
  MappingInfo m;
  EXPECT_FALSE(MappingInfo::parse("", m));
  EXPECT_FALSE(MappingInfo::parse("1000-2000", m));
  EXPECT_FALSE(MappingInfo::parse("1000 2000 r--p 0 00:00 0", m));
  EXPECT_FALSE(MappingInfo::parse("1000-2000 r--p 0 0000 0", m));
  EXPECT_FALSE(MappingInfo::parse("1000-2000 r--p zz 00:00 0", m));
}

// Found by the maps fuzzer: a number of more than 16 hexadecimal digits used
// to wrap, and the line then named some other memory.
TEST(PidMappings, RejectsNumbersThatDoNotFitInsteadOfWrapping) {
  MappingInfo m;
  EXPECT_TRUE(MappingInfo::parse("ffffffffffffffff-ffffffffffffffff r--p 0 00:00 0", m));
  EXPECT_EQ(m.start, ~0ul);
  EXPECT_FALSE(MappingInfo::parse("55ed3355ed331e6000-55ed331e8000 r--p 00000000 fe:00 1 /x", m));
  EXPECT_FALSE(MappingInfo::parse("1000-10000000000000000 r--p 00000000 fe:00 1 /x", m));
  EXPECT_FALSE(MappingInfo::parse("1000-2000 r--p 100000000000000000 fe:00 1 /x", m));
  EXPECT_FALSE(MappingInfo::parse("1000-2000 r--p 0 fe:00 99999999999999999999 /x", m));
}

// Found by the maps fuzzer: find() searches by halves, which gave wrong
// answers over mappings that overlap; and a mapping at 0 could not be told
// from "no mapping". None of these is in a maps file the kernel writes.
TEST(PidMappings, LeavesOutMappingsThatAreEmptyOverlapOrStartAtZero) {
  const MappingInfos all = PidMappings::parse("0-1000 r--p 0 00:00 0 /zero\n"
                                              "3000-3000 r--p 0 00:00 0 /empty\n"
                                              "5000-4000 r--p 0 00:00 0 /backwards\n"
                                              "1000-9000 r--p 0 00:00 0 /wide\n"
                                              "2000-3000 r--p 0 00:00 0 /inside\n"
                                              "9000-a000 r--p 0 00:00 0 /next\n");
  ASSERT_EQ(all.size(), 2u);
  EXPECT_EQ(all[0].path, "/wide");
  EXPECT_EQ(all[1].path, "/next");
  EXPECT_EQ(all.find(reinterpret_cast<const void*>(0x2800)).path, "/wide");
  EXPECT_EQ(all.find(reinterpret_cast<const void*>(0x9000)).path, "/next");
  EXPECT_FALSE(all.find(reinterpret_cast<const void*>(0x800)).found());
}

TEST(PidMappings, SortsLinesOutOfOrderBeforeDroppingOverlaps) {
  const MappingInfos all = PidMappings::parse("8000-9000 r--p 0 00:00 0 /high\n"
                                              "1000-2000 r--p 0 00:00 0 /low\n"
                                              "1800-2800 r--p 0 00:00 0 /overlap\n");
  ASSERT_EQ(all.size(), 2u);
  EXPECT_EQ(all[0].path, "/low");
  EXPECT_EQ(all[1].path, "/high");
  EXPECT_EQ(all.find(reinterpret_cast<const void*>(0x8fff)).path, "/high");
}
