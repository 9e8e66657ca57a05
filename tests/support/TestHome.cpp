#include "support/TestHome.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace kelvo::test {
namespace {
std::string homeDirectory;
}

const std::string& home() {
  return homeDirectory;
}
std::string library(const std::string& relativePath) {
  return homeDirectory + "/Library/" + relativePath;
}
std::string documents(const std::string& relativePath) {
  return homeDirectory + "/Documents/" + relativePath;
}

std::string contentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream content;
  content << file.rdbuf();
  return content.str();
}

void writeFileForTest(const std::string& path, const std::string& content) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

}  // namespace kelvo::test

/// Creates a home for this process and removes it at the end. Each test has its own process and thus its own home.
int main(int argc, char** argv) {
  std::string fresh = (std::filesystem::temp_directory_path() / "kelvo-test-XXXXXX").string();
  if (mkdtemp(fresh.data()) == nullptr) return 1;
  setenv("KELVO_HOME", fresh.c_str(), 1);
  unsetenv("KELVO_SERVER_BASE_URL");
  unsetenv("DO_NOT_TRACK");
  kelvo::test::homeDirectory = fresh;
  testing::InitGoogleTest(&argc, argv);
  const int result = RUN_ALL_TESTS();
  std::error_code inUse;  // ignored: a background write may still add a file
  std::filesystem::remove_all(fresh, inUse);
  return result;
}
