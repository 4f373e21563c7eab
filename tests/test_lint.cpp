// Source checks that keep the library's own rules: every allocation goes
// through the library allocators (so fault injection reaches it), no
// throwing standard container sneaks into library code, and the layers depend
// one way only.  The operating-system layer (platform/) is the one place
// allowed to call the system allocator.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
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

// The layers from the bottom up; a file may include headers of, and call V_
// functions implemented in, its own folder or one below it.
constexpr const char* kLayers[] = {"platform", "core", "host", "color", "reduce", "geometry"};

std::string read_file(const fs::path& p) {
  std::ifstream in(p);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

TEST(Lint, LayersDependOneWay) {
  const std::string root = source_dir();
  if (root.empty()) GTEST_SKIP() << "VK_SOURCE_DIR not set (run through ctest)";
  struct Source {
    fs::path path;
    int layer;
    std::string raw, text;  // as written; without comments and string contents
  };
  std::vector<Source> sources;
  std::map<std::string, int> header_layer, function_layer;
  const std::regex definition(R"(VK_CALL\s+(V_\w+)\s*\([^;]*?\)\s*\{)");
  for (int layer = 0; layer < int(std::size(kLayers)); ++layer) {
    const fs::path dir = fs::path(root) / kLayers[layer];
    if (!fs::exists(dir)) continue;
    for (const auto& entry : fs::recursive_directory_iterator(dir)) {
      const auto ext = entry.path().extension();
      if (ext != ".cpp" && ext != ".h") continue;
      const std::string raw = read_file(entry.path());
      sources.push_back({entry.path(), layer, raw, strip(raw)});
      if (ext == ".h") header_layer[entry.path().filename().string()] = layer;
      const std::string& text = sources.back().text;
      for (std::sregex_iterator m(text.begin(), text.end(), definition), end; m != end; ++m)
        function_layer[(*m)[1]] = layer;
    }
  }
  ASSERT_FALSE(function_layer.empty());

  const std::regex include(R"re(^\s*#\s*include\s*"([^"]+)")re"), call(R"re(\b(V_\w+)\s*\()re");
  std::vector<std::string> hits;
  for (const Source& s : sources) {
    const std::string file = s.path.filename().string();
    auto above = [&](const std::map<std::string, int>& where, const std::string& name) {
      const auto it = where.find(name);
      return it != where.end() && it->second > s.layer ? kLayers[it->second] : nullptr;
    };
    // Stripping keeps the line breaks, so both forms number lines alike.
    std::istringstream lines(s.text), raw_lines(s.raw);
    std::string line, raw_line;
    for (int n = 1; std::getline(lines, line) && std::getline(raw_lines, raw_line); ++n) {
      const std::string at = s.path.string() + ":" + std::to_string(n) + ": ";
      std::smatch m;
      if (std::regex_search(raw_line, m, include))
        if (const char* up = above(header_layer, fs::path(m[1].str()).filename().string()))
          hits.push_back(at + "includes " + m[1].str() + " from " + up + "/");
      for (std::sregex_iterator c(line.begin(), line.end(), call), end; c != end; ++c)
        if (const char* up = above(function_layer, (*c)[1]))
          hits.push_back(at + "calls " + (*c)[1].str() + " of " + up + "/");
    }
  }
  std::string report;
  for (const auto& h : hits) report += h + "\n";
  EXPECT_TRUE(hits.empty()) << report;
}

}  // namespace
