// cli_helpers.h - what the command-line program's tests share: the program,
// palettes, a scratch folder per test, and the check that damaged files fail
// with an error naming them.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "image_io.h"

namespace vkt {

inline std::string program() {
  if (const char* p = std::getenv("VKIMG")) return p;
  return VKIMG_PATH;
}

inline std::vector<vkimg::Colour> random_colours(size_t n, uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<vkimg::Colour> pal(n);
  for (auto& c : pal) c = vkimg::Colour{uint8_t(rng()), uint8_t(rng()), uint8_t(rng()), 0};
  return pal;
}

inline std::vector<vkimg::Colour> gray_colours(int bits) {
  std::vector<vkimg::Colour> pal(size_t(1) << bits);
  for (size_t i = 0; i < pal.size(); ++i) {
    const auto v = uint8_t(i * 255 / (pal.size() - 1));
    pal[i] = vkimg::Colour{v, v, v, 0};
  }
  return pal;
}

inline std::string slurp(const std::string& p) {
  std::ifstream in(p);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

// Every cut of `cuts` fails and `corruptions` single-byte changes (every
// `anywhere`-th anywhere, the others within the first `head` bytes) either
// decode or fail, always with an error
// that starts with the file's name; nothing reads outside the buffer (the
// sanitizer build runs this too).
inline void expect_damage_fails_cleanly(const std::vector<uint8_t>& bytes, vkimg::Format format,
                                        const std::vector<size_t>& cuts, int corruptions, int anywhere,
                                        size_t head, std::mt19937& rng) {
  for (size_t len : cuts) {
    try {
      vkimg::decode(std::vector<uint8_t>(bytes.begin(), bytes.begin() + ptrdiff_t(len)), format, "cut.file");
      ADD_FAILURE() << vkimg::format_name(format) << " truncated to " << len << " bytes decoded";
    } catch (const vkimg::IoError& e) {
      EXPECT_EQ(0u, std::string(e.what()).rfind("cut.file: ", 0)) << e.what();
    }
  }
  for (int k = 0; k < corruptions; ++k) {
    std::vector<uint8_t> bad = bytes;
    bad[rng() % (k % anywhere == 0 ? bad.size() : std::min(bad.size(), head))] = uint8_t(rng());
    try {
      vkimg::decode(bad, format, "bad.file");
    } catch (const vkimg::IoError& e) {
      EXPECT_EQ(0u, std::string(e.what()).rfind("bad.file: ", 0)) << e.what();
    }
  }
}

// A scratch folder of its own for each test.
class CliDir : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(std::filesystem::exists(program())) << program() << " not built";
    static int counter = 0;
    dir_ = std::filesystem::temp_directory_path() /
           ("vkimg_test_" + std::to_string(getpid()) + "_" + std::to_string(counter++));
    std::filesystem::create_directories(dir_);
  }
  void TearDown() override {
    if (!dir_.empty()) std::filesystem::remove_all(dir_);
  }
  std::string path(const std::string& name) const { return (dir_ / name).string(); }

  std::filesystem::path dir_;
};

}  // namespace vkt
