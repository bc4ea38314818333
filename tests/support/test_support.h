// Shared helpers of the test programs: where the generated data lives, and
// private scratch directories.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace le::test {

// Root of the data written by tools/gen/gen_bundles.py.
std::string dataDir();
std::string dataPath(const std::string& rel);

// A fresh directory that is removed with the object. Unique per process and
// per call, so cases may run in parallel.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string operator/(const std::string& rel) const { return path_ + "/" + rel; }

 private:
  std::string path_;
};

std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& bytes);  // makes parents
void copyTree(const std::string& from, const std::string& to);
bool exists(const std::string& path);
bool isDir(const std::string& path);

// Sorted relative paths of the regular files under a directory.
std::vector<std::string> listFiles(const std::string& dir);

// The text of the exception fn throws, or "(no exception)".
std::string errorOf(const std::function<void()>& fn);

// Runs fn while capturing what it writes to standard error.
template <class Fn>
std::string captureStderr(Fn&& fn);

// Sets or unsets an environment variable for the life of the object.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value);  // value null: unset
  ~ScopedEnv();
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  std::string name_;
  bool had_ = false;
  std::string old_;
};

}  // namespace le::test

#include <gtest/gtest.h>

template <class Fn>
std::string le::test::captureStderr(Fn&& fn) {
  ::testing::internal::CaptureStderr();
  fn();
  return ::testing::internal::GetCapturedStderr();
}
