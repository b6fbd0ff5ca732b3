// The daemon's threads use the library at once: the scanner through its bulk
// handle, the main thread with moves and deletes, the bus thread with
// short-lived handles. Run under ThreadSanitizer as well.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "tests/unit/kord/kord_fixture.h"

namespace zibd::test {
namespace {

TEST_F(KordTest, ScannerMainAndBusThreadsWorkSideBySide) {
  configure();
  ASSERT_EQ(kord_view_create("v"), 0);
  ASSERT_EQ(kord_view_set_cond("v", "@.s.tbp@ exists"), 0);
  std::atomic<int> failures{0};
  auto ok = [&](int rc) { failures.fetch_add(rc == 0 ? 0 : 1); };
  std::atomic<bool> scanned{false};
  std::thread scanner([&] {
    Handle h(kord_bulk_init());
    for (int i = 0; i < 300; ++i) {
      ok(kord_bulk_setpath(h.get(), at("p1/s/f" + std::to_string(i) + ".mp4").c_str()));
      ok(kord_bulk_settag(h.get(), ".s.tbp", "1"));
      ok(kord_bulk_commit(h.get()));
    }
    scanned = true;
  });
  std::thread main_thread([&] {
    for (int i = 0; i < 100; ++i) {
      const std::string from = at("p2/m/a" + std::to_string(i)), to = at("p2/m/b" + std::to_string(i));
      tag(from, {{".s.tbp", "1"}});
      ok(kord_move(from.c_str(), to.c_str()));
      if (i % 2) ok(kord_delete(to.c_str()));
    }
  });
  std::thread bus([&] {
    for (int i = 0, last = 0; !last; ++i) {  // the last round, after the scanner, hides all
      last = i >= 40 && scanned;
      Handle h(kord_bulk_init());
      ok(kord_bulk_setpath(h.get(), at("p1/s").c_str()));
      ok(kord_bulk_settag_recursive(h.get(), ".s.invisible", last || i % 2 ? "1" : "0"));
      ok(kord_bulk_commit(h.get()));
    }
  });
  char dir[100];
  for (int i = 0; i < 20; ++i) ok(kord_view_get_path("v", dir, sizeof dir) != 0 ? 0 : -1);
  scanner.join();
  main_thread.join();
  bus.join();
  EXPECT_EQ(failures.load(), 0) << kord::lastError().message;
  std::vector<std::string> pending;
  ASSERT_EQ(kord::query("@.s.tbp@ exists", &pending), kord::Status::kOk);
  EXPECT_EQ(pending.size(), 350u);
  EXPECT_EQ(files(at("p2/m")).size(), 50u);
  EXPECT_EQ(tagsOf(at("p1/s/f0.mp4")), ".s.invisible=1 .s.tbp=1");
  EXPECT_EQ(linkTargets(dir), pending) << "the view followed every commit";
}

}  // namespace
}  // namespace zibd::test
