#include "tests/support/test_support.h"

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace le::test {

namespace {
std::string envOr(const char* name, const char* fallback) {
  const char* v = std::getenv(name);
  return (v && *v) ? v : fallback;
}
}  // namespace

std::string dataDir() { return envOr("LE_TEST_DATA", LE_TEST_DATA_DEFAULT); }
std::string dataPath(const std::string& rel) { return dataDir() + "/" + rel; }

TempDir::TempDir() {
  static std::atomic<int> serial{0};
  const fs::path root = envOr("LE_TEST_TMP", LE_TEST_TMP_DEFAULT);
  fs::create_directories(root);
  path_ = (root / ("t" + std::to_string(getpid()) + "_" + std::to_string(serial++))).string();
  fs::remove_all(path_);
  fs::create_directories(path_);
}

TempDir::~TempDir() {
  std::error_code ec;
  fs::remove_all(path_, ec);
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("test: cannot read " + path);
  std::ostringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

void writeFile(const std::string& path, const std::string& bytes) {
  const fs::path p(path);
  if (p.has_parent_path()) fs::create_directories(p.parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  if (!out) throw std::runtime_error("test: cannot write " + path);
}

void copyTree(const std::string& from, const std::string& to) {
  fs::create_directories(to);
  fs::copy(from, to, fs::copy_options::recursive | fs::copy_options::overwrite_existing);
}

bool exists(const std::string& path) {
  std::error_code ec;
  return fs::exists(fs::symlink_status(path, ec));
}

bool isDir(const std::string& path) {
  std::error_code ec;
  return fs::is_directory(path, ec);
}

std::vector<std::string> listFiles(const std::string& dir) {
  std::vector<std::string> out;
  for (const auto& e : fs::recursive_directory_iterator(dir))
    if (e.is_regular_file()) out.push_back(fs::relative(e.path(), dir).generic_string());
  std::sort(out.begin(), out.end());
  return out;
}

std::string errorOf(const std::function<void()>& fn) {
  try {
    fn();
  } catch (const std::exception& e) {
    return e.what();
  }
  return "(no exception)";
}

ScopedEnv::ScopedEnv(const char* name, const char* value) : name_(name) {
  if (const char* old = std::getenv(name)) {
    had_ = true;
    old_ = old;
  }
  if (value)
    setenv(name, value, 1);
  else
    unsetenv(name);
}

ScopedEnv::~ScopedEnv() {
  if (had_)
    setenv(name_.c_str(), old_.c_str(), 1);
  else
    unsetenv(name_.c_str());
}

}  // namespace le::test
