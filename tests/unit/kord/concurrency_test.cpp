// The daemon's threads use the library at once: the scanner through its bulk
// handle, the main thread with moves and deletes, the bus thread with
// short-lived handles. Run under ThreadSanitizer as well.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "tests/unit/kord/kord_fixture.h"

namespace zibd::test {
namespace {

constexpr int kScannerFiles = 300;
constexpr int kMovedFiles = 100;
constexpr int kBusRounds = 40;

class KordConcurrencyTest : public KordTest {};

TEST_F(KordConcurrencyTest, ScannerMainAndBusThreadsWorkSideBySide) {
  configure();
  const std::string view = "zibprof.1.STDVIDEO.0.1";
  ASSERT_EQ(kord_view_create(view.c_str()), 0);
  ASSERT_EQ(kord_view_set_cond(view.c_str(), "@.s.tbp@ exists"), 0);
  std::atomic<int> failures{0};
  auto check = [&](bool ok) {
    if (!ok) failures.fetch_add(1);
  };

  std::atomic<bool> scanner_done{false};
  std::thread scanner([&] {
    Handle h(kord_bulk_init());
    char mdt[20];
    for (int i = 0; i < kScannerFiles; ++i) {
      std::string path = at("p1/s/f" + std::to_string(i) + ".mp4");
      check(kord_bulk_setpath(h.get(), path.c_str()) == 0);
      check(kord_bulk_gettag(h.get(), ".s.mdt", mdt, sizeof mdt) != 0);
      check(kord_bulk_settag(h.get(), ".s.tbp", "1") == 0);
      check(kord_bulk_settag(h.get(), ".s.filetype", "STDVIDEO") == 0);
      check(kord_bulk_commit(h.get()) == 0);
    }
    scanner_done.store(true);
  });
  std::thread main_thread([&] {
    for (int i = 0; i < kMovedFiles; ++i) {
      std::string from = at("p2/m/a" + std::to_string(i) + ".mp4");
      std::string to = at("p2/m/b" + std::to_string(i) + ".mp4");
      Handle h(kord_bulk_init());
      check(kord_bulk_setpath(h.get(), from.c_str()) == 0);
      check(kord_bulk_settag(h.get(), ".s.tbp", "1") == 0);
      check(kord_bulk_commit(h.get()) == 0);
      h.reset();
      check(kord_move(from.c_str(), to.c_str()) == 0);
      if (i % 2) check(kord_delete(to.c_str()) == 0);
    }
  });
  std::thread bus([&] {
    // Keeps going while the scanner runs; the last round, after it, hides all.
    for (int i = 0;; ++i) {
      bool last = i >= kBusRounds && scanner_done.load();
      Handle h(kord_bulk_init());
      check(kord_bulk_setpath(h.get(), at("p1/s").c_str()) == 0);
      check(kord_bulk_settag_recursive(h.get(), ".s.invisible", last || i % 2 ? "1" : "0") == 0);
      check(kord_bulk_commit(h.get()) == 0);
      if (last) break;
    }
  });
  char path[100];
  for (int i = 0; i < 20; ++i) check(kord_view_get_path(view.c_str(), path, sizeof path) != 0);
  scanner.join();
  main_thread.join();
  bus.join();
  EXPECT_EQ(failures.load(), 0) << kord::lastError().message;

  std::vector<std::string> pending;
  ASSERT_EQ(kord::query("@.s.tbp@ exists", &pending), kord::Status::kOk);
  EXPECT_EQ(pending.size(), static_cast<std::size_t>(kScannerFiles + kMovedFiles / 2));
  EXPECT_EQ(files(at("p2/m")).size(), static_cast<std::size_t>(kMovedFiles / 2));
  EXPECT_EQ(tagsOf(at("p2/m/b0.mp4")), ".s.tbp=1");
  EXPECT_EQ(tagsOf(at("p2/m/a0.mp4")), "unknown");
  EXPECT_EQ(tagsOf(at("p1/s/f0.mp4")), ".s.filetype=STDVIDEO .s.invisible=1 .s.tbp=1");
  // The view followed every one of those commits.
  EXPECT_EQ(linkTargets(path), pending);
}

}  // namespace
}  // namespace zibd::test
