// A private temporary directory per test, removed with everything in it.
#pragma once

#include <gtest/gtest.h>

#include <string>

namespace zibd::test {

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  // Absolute and canonical (no symbolic link in it).
  const std::string& path() const { return path_; }
  // path() + "/" + relative
  std::string operator/(const std::string& relative) const;

  void mkdirs(const std::string& relative) const;
  // Creates or replaces a file, making its parents.
  void write(const std::string& relative, const std::string& content = "") const;
  std::string read(const std::string& relative) const;

 private:
  std::string path_;
};

class SandboxTest : public ::testing::Test {
 protected:
  TempDir sandbox_;
};

// A whole file; empty when unreadable.
std::string readFile(const std::string& path);

}  // namespace zibd::test
