#include "platform/tock.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <sstream>
#include <thread>

#include "tests/support/sandbox.h"

namespace {

class TockTest : public zibd::test::SandboxTest {
 protected:
  void SetUp() override { ::setenv("TOCK_EVENTS", log_.c_str(), 1); }
  std::vector<std::string> lines() const {  // the log must end in a whole line
    std::string all = zibd::test::readFile(log_);
    EXPECT_TRUE(all.empty() || all.back() == '\n') << "the log ends in a partial line";
    std::vector<std::string> out;
    std::istringstream in(all);
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
  }
  std::string log_ = sandbox_ / "events";
};

TEST_F(TockTest, EventsAreAppendedAsOneLineEachInOrderEscapedAndNeverCrash) {
  tock_t* a = tock_init("var/uuidmount/ab12", "/var/uuidmount/ab12", 0, 0, 0);
  tock_t* b = tock_init("var/uuidmount/cd34", "/var/uuidmount/cd34", 0, 0, 0);
  ASSERT_TRUE(a && b);
  EXPECT_EQ(tock_event(a, "/Media/film.mkv", 2), 0);
  EXPECT_EQ(tock_event(b, "", 2), 0);
  EXPECT_EQ(tock_event(a, "/a\tb\nc\\d", 7), 0);
  tock_fini(a);
  tock_fini(b);
  EXPECT_THAT(lines(), testing::ElementsAre("var/uuidmount/ab12\t2\t/Media/film.mkv", "var/uuidmount/cd34\t2\t",
                                            "var/uuidmount/ab12\t7\t/a\\tb\\nc\\\\d"));
  EXPECT_EQ(tock_init(nullptr, "/p", 0, 0, 0), nullptr);
  EXPECT_NE(tock_event(nullptr, "/x", 2), 0);
  tock_fini(nullptr);
  ::setenv("TOCK_EVENTS", (sandbox_ / "missing-dir/events").c_str(), 1);
  EXPECT_EQ(tock_init("p", "/p", 0, 0, 0), nullptr);
}

TEST_F(TockTest, ConcurrentProducersNeverInterleaveWithinALine) {
  std::vector<std::thread> threads;
  for (char t = '0'; t < '4'; ++t) {
    threads.emplace_back([t] {
      tock_t* p = tock_init((std::string("producer") + t).c_str(), "/", 0, 0, 0);
      const std::string path = "/" + std::string(200, t);
      for (int i = 0; i < 500; ++i) EXPECT_EQ(tock_event(p, path.c_str(), 2), 0);
      tock_fini(p);
    });
  }
  for (auto& th : threads) th.join();
  auto all = lines();
  ASSERT_EQ(all.size(), 2000u);
  for (const auto& line : all) ASSERT_EQ(line, "producer" + line.substr(8, 1) + "\t2\t/" + std::string(200, line[8]));
}

}  // namespace
