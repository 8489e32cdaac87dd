#include <Kesto/Core/PidMappings.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>

namespace Kesto {

namespace {

// Reads a hexadecimal or decimal number at the front of `text`; false when
// there is no digit or the number does not fit. Written by hand because the
// fields are not NUL-terminated and strtoul would read past them.
bool takeNumber(std::string_view& text, int base, unsigned long& out) {
  std::size_t i = 0;
  unsigned long value = 0;
  for (; i < text.size(); ++i) {
    const char c = text[i];
    unsigned digit;
    if (c >= '0' && c <= '9')
      digit = unsigned(c - '0');
    else if (base == 16 && c >= 'a' && c <= 'f')
      digit = unsigned(c - 'a' + 10);
    else if (base == 16 && c >= 'A' && c <= 'F')
      digit = unsigned(c - 'A' + 10);
    else
      break;
    // A wrapped address would make a line that names some other memory.
    if (value > (~0ul - digit) / unsigned(base))
      return false;
    value = value * unsigned(base) + digit;
  }
  if (i == 0)
    return false;
  out = value;
  text.remove_prefix(i);
  return true;
}

bool takeChar(std::string_view& text, char c) {
  if (text.empty() || text.front() != c)
    return false;
  text.remove_prefix(1);
  return true;
}

void skipBlanks(std::string_view& text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
    text.remove_prefix(1);
}

bool takeWord(std::string_view& text, std::string_view& word) {
  std::size_t i = 0;
  while (i < text.size() && text[i] != ' ' && text[i] != '\t')
    ++i;
  if (i == 0)
    return false;
  word = text.substr(0, i);
  text.remove_prefix(i);
  return true;
}

bool readWholeFile(const char* path, std::string& out) {
  const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0)
    return false;
  char buffer[16384];
  bool ok = true;
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n > 0) {
      out.append(buffer, static_cast<std::size_t>(n));
    } else if (n == 0) {
      break;
    } else if (errno != EINTR) {
      ok = false;
      break;
    }
  }
  ::close(fd);
  return ok;
}

} // namespace

unsigned int MappingInfo::flags() const noexcept {
  const std::string_view p = perms.view();
  unsigned int f = 0;
  if (p.size() > 0 && p[0] == 'r')
    f |= PROT_READ;
  if (p.size() > 1 && p[1] == 'w')
    f |= PROT_WRITE;
  if (p.size() > 2 && p[2] == 'x')
    f |= PROT_EXEC;
  return f;
}

// "start-end perms offset major:minor inode   path", the path optional and
// possibly holding blanks (or ending in " (deleted)"), which are kept.
bool MappingInfo::parse(std::string_view line, MappingInfo& out) {
  unsigned long start, end, offset, major, minor, inode;
  std::string_view perms;
  if (!takeNumber(line, 16, start) || !takeChar(line, '-') || !takeNumber(line, 16, end))
    return false;
  skipBlanks(line);
  if (!takeWord(line, perms))
    return false;
  skipBlanks(line);
  if (!takeNumber(line, 16, offset))
    return false;
  skipBlanks(line);
  if (!takeNumber(line, 16, major) || !takeChar(line, ':') || !takeNumber(line, 16, minor))
    return false;
  skipBlanks(line);
  if (!takeNumber(line, 10, inode))
    return false;
  skipBlanks(line);
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
    line.remove_suffix(1);
  out.start = start;
  out.end = end;
  out.perms = String(perms);
  out.offset = offset;
  out.major = static_cast<unsigned int>(major);
  out.minor = static_cast<unsigned int>(minor);
  out.inode = inode;
  out.path = String(line);
  return true;
}

MappingInfo MappingInfos::find(const void* address) const {
  const auto a = reinterpret_cast<unsigned long>(address);
  // The first mapping that ends above the address is the only candidate.
  auto it = std::upper_bound(mappings_.begin(), mappings_.end(), a,
                             [](unsigned long value, const MappingInfo& m) { return value < m.end; });
  if (it != mappings_.end() && it->contains(address))
    return *it;
  return MappingInfo();
}

MappingInfo MappingInfos::find(const String& path, unsigned long offset, unsigned int flags) const {
  for (const MappingInfo& m : mappings_)
    if (m.offset == offset && (flags == anyFlags || m.flags() == flags) && m.path == path)
      return m;
  return MappingInfo();
}

MappingInfos PidMappings::parse(std::string_view text) {
  std::vector<MappingInfo> mappings;
  while (!text.empty()) {
    const std::size_t eol = text.find('\n');
    const std::string_view line = text.substr(0, eol);
    text.remove_prefix(eol == std::string_view::npos ? text.size() : eol + 1);
    MappingInfo m;
    if (MappingInfo::parse(line, m))
      mappings.push_back(std::move(m));
  }
  // The kernel writes them in address order, none empty, none overlapping
  // another and none at address 0 (which the kernel keeps unmapped, and
  // which find() uses for "no mapping"); find() searches by halves and relies
  // on all of it. Text that breaks them is not a maps file: keep what is
  // consistent.
  if (!std::is_sorted(mappings.begin(), mappings.end(),
                      [](const MappingInfo& a, const MappingInfo& b) { return a.start < b.start; }))
    std::stable_sort(mappings.begin(), mappings.end(),
                     [](const MappingInfo& a, const MappingInfo& b) { return a.start < b.start; });
  unsigned long coveredTo = 0;
  std::erase_if(mappings, [&](const MappingInfo& m) {
    if (m.start == 0 || m.end <= m.start || m.start < coveredTo)
      return true;
    coveredTo = m.end;
    return false;
  });
  return MappingInfos(std::move(mappings));
}

MappingInfos PidMappings::populate(int pid) {
  const std::string path = pid == 0 ? std::string("/proc/self/maps") : "/proc/" + std::to_string(pid) + "/maps";
  std::string text;
  if (!readWholeFile(path.c_str(), text))
    return MappingInfos();
  return parse(text);
}

} // namespace Kesto
