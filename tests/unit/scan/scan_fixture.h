// A sandboxed tag store (tests/unit/kord/kord_fixture.h) with a file-type map,
// fake index rules and the tools to make media trees and profiler scripts.
#pragma once

#include <sys/stat.h>
#include <sys/time.h>

#include <cstdio>
#include <string>

#include "scan/file_type_map.h"
#include "scan/tagging.h"
#include "tests/unit/kord/kord_fixture.h"
#include "tests/unit/scan/scan_fakes.h"

namespace zibd::test {

class ScanTest : public KordTest {
 protected:
  void SetUp() override {
    KordTest::SetUp();
    configure();
    loadMap("mkv,avi:STDVIDEO:true:\nmp3:STDAUDIO:true:\njpg:STDIMAGE:true:\n");
    rules_.rules[at("p1")] = kCategoryMovies | kCategoryMusic;
  }

  void loadMap(const std::string& text) {
    types_.clear();
    sandbox_.write("types.ini", text);
    std::FILE* file = std::fopen((sandbox_ / "types.ini").c_str(), "re");
    ASSERT_NE(file, nullptr);
    ASSERT_EQ(types_.load(file), 0);
    std::fclose(file);
  }
  // An executable shell script below the sandbox; its path.
  std::string script(const std::string& name, const std::string& body) {
    sandbox_.write(name, "#!/bin/sh\n" + body);
    EXPECT_EQ(::chmod((sandbox_ / name).c_str(), 0755), 0);
    return sandbox_ / name;
  }
  // A file below the tag store's root, modified at mtime (seconds) unless -1.
  std::string media(const std::string& relative, long mtime = -1) {
    sandbox_.write("uuidmount/" + relative, "x");
    if (mtime >= 0) setMtime(at(relative), mtime);
    return at(relative);
  }
  static void setMtime(const std::string& path, long seconds) {
    struct timeval times[2] = {{seconds, 0}, {seconds, 0}};
    ASSERT_EQ(::utimes(path.c_str(), times), 0);
  }
  static std::string timeText(long seconds) {
    char text[20];
    formatTagTime(static_cast<std::time_t>(seconds), text, sizeof text);
    return text;
  }
  FileTypeRecord& typeRecord(const std::string& type) {
    for (const auto& r : types_.records())
      if (r->type == type) return *r;
    ADD_FAILURE() << "no type " << type;
    return *types_.records().front();
  }

  FileTypeMap types_;
  FakeRules rules_;
  FakeStorage storage_;
  FakeReports reports_;
};

}  // namespace zibd::test
