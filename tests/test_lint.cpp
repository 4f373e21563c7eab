// Source checks that keep the library's own rules: every allocation goes
// through the library allocators (so fault injection reaches it), and no
// throwing standard container sneaks into library code.  The operating-system
// layer (platform/) is the one place allowed to call the system allocator.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

std::string source_dir() {
  const char* d = std::getenv("VK_SOURCE_DIR");
  return d ? d : "";
}

// Drops // and /* */ comments and string literals so that prose does not trip the patterns.
std::string strip(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text.compare(i, 2, "//") == 0) {
      while (i < text.size() && text[i] != '\n') ++i;
      out += '\n';
    } else if (text.compare(i, 2, "/*") == 0) {
      const size_t end = text.find("*/", i + 2);
      for (size_t j = i; j < (end == std::string::npos ? text.size() : end + 2); ++j)
        if (text[j] == '\n') out += '\n';
      i = end == std::string::npos ? text.size() : end + 1;
    } else if (text[i] == '"') {
      out += "\"\"";
      for (++i; i < text.size() && text[i] != '"'; ++i)
        if (text[i] == '\\') ++i;
    } else {
      out += text[i];
    }
  }
  return out;
}

TEST(Lint, LibraryCodeAllocatesOnlyThroughItsAllocators) {
  const std::string root = source_dir();
  if (root.empty()) GTEST_SKIP() << "VK_SOURCE_DIR not set (run through ctest)";
  const std::regex forbidden(
      R"((\bnew\s+[A-Za-z_:<>]+\s*[\(\[\{;])|(\bnew\s+[A-Za-z_])|(\b(malloc|calloc|realloc|free|strdup)\s*\()|(std::(vector|string|map|unordered_map|list|deque|set|make_unique|make_shared|function)\b))");
  std::vector<std::string> hits;
  for (const char* folder : {"core", "color", "reduce", "geometry", "host"}) {
    const fs::path dir = fs::path(root) / folder;
    if (!fs::exists(dir)) continue;
    for (const auto& entry : fs::recursive_directory_iterator(dir)) {
      const auto ext = entry.path().extension();
      if (ext != ".cpp" && ext != ".h") continue;
      if (entry.path().filename() == "alloc.cpp") continue;  // the allocators themselves
      std::ifstream in(entry.path());
      std::stringstream ss;
      ss << in.rdbuf();
      std::istringstream lines(strip(ss.str()));
      std::string line;
      for (int n = 1; std::getline(lines, line); ++n) {
        // Placement new into library-allocated memory is how objects are built.
        if (line.find("new (") != std::string::npos) continue;
        if (std::regex_search(line, forbidden))
          hits.push_back(entry.path().string() + ":" + std::to_string(n) + ": " + line);
      }
    }
  }
  std::string report;
  for (const auto& h : hits) report += h + "\n";
  EXPECT_TRUE(hits.empty()) << report;
}

}  // namespace
