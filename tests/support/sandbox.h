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

  // Creates the directory and its parents.
  void mkdirs(const std::string& relative) const;
  // Creates (or replaces) a file with the given content, making parents.
  void write(const std::string& relative, const std::string& content = "") const;
  std::string read(const std::string& relative) const;

 private:
  std::string path_;
};

// Fixture giving each test a TempDir.
class SandboxTest : public ::testing::Test {
 protected:
  TempDir sandbox_;
};

// Reads a whole file; empty when it cannot be read.
std::string readFile(const std::string& path);

}  // namespace zibd::test
