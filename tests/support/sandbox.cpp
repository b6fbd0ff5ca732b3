#include "tests/support/sandbox.h"

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include <stdlib.h>

namespace zibd::test {

namespace fs = std::filesystem;

TempDir::TempDir() {
  std::string tmpl = (fs::temp_directory_path() / "zibd-test-XXXXXX").string();
  if (!::mkdtemp(tmpl.data())) throw std::runtime_error("mkdtemp failed");
  // Canonical, to compare equal to what the code resolves with realpath.
  path_ = fs::canonical(tmpl).string();
}

TempDir::~TempDir() {
  std::error_code ec;
  // Read-only directories a test left behind are made removable first.
  for (auto it = fs::recursive_directory_iterator(path_, ec); !ec && it != fs::end(it);
       it.increment(ec)) {
    if (it->is_directory(ec) && !it->is_symlink(ec))
      fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ec);
  }
  fs::remove_all(path_, ec);
}

std::string TempDir::operator/(const std::string& relative) const { return path_ + "/" + relative; }

void TempDir::mkdirs(const std::string& relative) const { fs::create_directories(*this / relative); }

void TempDir::write(const std::string& relative, const std::string& content) const {
  const fs::path p = *this / relative;
  fs::create_directories(p.parent_path());
  std::ofstream out(p, std::ios::binary | std::ios::trunc);
  out << content;
  if (!out) throw std::runtime_error("cannot write " + p.string());
}

std::string TempDir::read(const std::string& relative) const { return readFile(*this / relative); }

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

}  // namespace zibd::test
