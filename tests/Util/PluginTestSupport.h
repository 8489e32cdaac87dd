// What the plugin and counters tests share: trace capture of the
// "KestoPlugin" handler, and the helper program.
//
// runPluginChild runs the plugin helper program in a child process whose
// dynamic linker searches the folder of the test plugins (or a folder the
// test chooses), with the "KestoPlugin" trace levels 0 to 3 on and a prefix
// of handler name and level. The child's standard output and standard error come back as
// one text, lines in the order they were written.
#pragma once

#include <KestoSupport/TraceCapture.h>

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdio>
#include <string>
#include <vector>

namespace KestoTest {

struct PluginChildResult {
  int exitCode = -1;
  std::string output;

  // Where the whole line `line` first stands in the output, or npos.
  std::size_t lineAt(const std::string& line) const { return ("\n" + output).find("\n" + line + "\n"); }
  bool hasLine(const std::string& line) const { return lineAt(line) != std::string::npos; }
  // The rest of the first line that starts with `prefix`, or "" if none does.
  std::string afterPrefix(const std::string& prefix) const {
    const std::size_t at = ("\n" + output).find("\n" + prefix);
    if (at == std::string::npos)
      return std::string();
    const std::size_t start = at + prefix.size();
    return output.substr(start, output.find('\n', start) - start);
  }
};

inline PluginChildResult runPluginChild(const std::vector<std::string>& args,
                                        const std::string& libraryPath = KESTO_UTIL_PLUGIN_DIR) {
  std::string command = "env -u TRACEFILE LD_LIBRARY_PATH='" + libraryPath +
                        "' TRACE='KestoPlugin/0123' TRACEFORMAT='handle,level' '" KESTO_UTIL_PLUGIN_CHILD "'";
  for (const std::string& arg : args)
    command += " '" + arg + "'";
  command += " 2>&1";
  PluginChildResult result;
  FILE* pipe = ::popen(command.c_str(), "r");
  if (!pipe) {
    ADD_FAILURE() << "popen failed: " << command;
    return result;
  }
  char buffer[4096];
  std::size_t n;
  while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0)
    result.output.append(buffer, n);
  const int status = ::pclose(pipe);
  result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

} // namespace KestoTest
