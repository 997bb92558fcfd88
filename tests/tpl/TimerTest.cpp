#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "Eventually.h"
#include "ITimer.h"
#include "LogCapture.h"

using HXFramework::Test::Eventually;
using HXFramework::Test::WaitUntil;
using HXFramework::TPL::ITimer;

namespace {

constexpr uint32_t kNever = 3600 * 1000;  // an hour: never fires within a test

// Records handler runs; tests wait on it rather than on time.
struct Fired {
  std::mutex mutex;
  std::condition_variable cv;
  int count = 0;
  std::thread::id thread;
  void Hit() {
    std::lock_guard<std::mutex> lock(mutex);
    ++count;
    thread = std::this_thread::get_id();
    cv.notify_all();
  }
  bool WaitFor(int n) {
    return WaitUntil(mutex, cv, [&] { return count >= n; });
  }
};

}  // namespace

TEST(Timer, FiresOnceOnAnotherThreadAndNotBeforeItsTimeout) {
  std::unique_ptr<ITimer> timer(ITimer::Create("test"));
  Fired fired;
  const auto start = std::chrono::steady_clock::now();
  std::chrono::steady_clock::time_point fired_at;
  uint32_t id = timer->Start(
      [&] {
        fired_at = std::chrono::steady_clock::now();
        fired.Hit();
      },
      30);
  EXPECT_NE(id, 0u);
  ASSERT_TRUE(fired.WaitFor(1));
  EXPECT_GE(fired_at - start, std::chrono::milliseconds(30));
  EXPECT_NE(fired.thread, std::this_thread::get_id());
  timer.reset();
  std::lock_guard<std::mutex> lock(fired.mutex);
  EXPECT_EQ(fired.count, 1);
}

TEST(Timer, ZeroTimeoutFiresButNeverInsideStart) {
  std::unique_ptr<ITimer> timer(ITimer::Create("test"));
  Fired fired;
  timer->Start([&] { fired.Hit(); }, 0);
  ASSERT_TRUE(fired.WaitFor(1));
  EXPECT_NE(fired.thread, std::this_thread::get_id());
}

TEST(Timer, IdsAreNonZeroAndDistinct) {
  std::unique_ptr<ITimer> timer(ITimer::Create("test"));
  std::set<uint32_t> ids;
  for (int i = 0; i < 1000; ++i) ids.insert(timer->Start([] {}, kNever));
  EXPECT_EQ(ids.size(), 1000u);
  EXPECT_EQ(ids.count(0), 0u);
}

TEST(Timer, StopBeforeFiringCancelsAndReleasesTheHandler) {
  std::unique_ptr<ITimer> timer(ITimer::Create("test"));
  auto token = std::make_shared<int>(1);
  std::weak_ptr<int> watch = token;
  std::atomic<bool> ran{false};
  uint32_t id = timer->Start([token, &ran] { ran = true; }, kNever);
  token.reset();
  EXPECT_FALSE(watch.expired());  // the armed shot holds its handler
  timer->Stop(id);
  EXPECT_TRUE(watch.expired());  // released by the time Stop returns
  EXPECT_FALSE(ran.load());
}

TEST(Timer, StoppedShotNeverFiresWhileOthersDo) {
  std::unique_ptr<ITimer> timer(ITimer::Create("test"));
  Fired fired;
  std::atomic<bool> stopped_ran{false};
  uint32_t stopped = timer->Start([&] { stopped_ran = true; }, 20);
  timer->Stop(stopped);
  timer->Start([&] { fired.Hit(); }, 40);  // fires after the stopped one would have
  ASSERT_TRUE(fired.WaitFor(1));
  EXPECT_FALSE(stopped_ran.load());
}

TEST(Timer, UnknownAndZeroIdsAreIgnored) {
  std::unique_ptr<ITimer> timer(ITimer::Create("test"));
  std::unique_ptr<ITimer> other(ITimer::Create("other"));
  Fired fired;
  uint32_t id = timer->Start([&] { fired.Hit(); }, 10);
  timer->Stop(0);
  timer->Stop(id + 1000000);
  other->Stop(id);  // a shot belongs to its own timer
  EXPECT_TRUE(fired.WaitFor(1));
  timer->Stop(id);  // already fired: nothing happens
}

TEST(Timer, StopFromInsideItsOwnHandlerIsSafe) {
  std::unique_ptr<ITimer> timer(ITimer::Create("test"));
  Fired fired;
  uint32_t id = 0;
  std::mutex id_mutex;
  {
    std::lock_guard<std::mutex> lock(id_mutex);
    id = timer->Start(
        [&] {
          {
            std::lock_guard<std::mutex> inner(id_mutex);
            timer->Stop(id);
          }
          fired.Hit();  // last: the test may end as soon as it sees this
        },
        5);
  }
  EXPECT_TRUE(fired.WaitFor(1));
}

TEST(Timer, DeletedFromInsideItsOwnHandlerWithoutLeakingTheHandler) {
  ITimer* timer = ITimer::Create("self-deleting");
  auto token = std::make_shared<int>(1);
  std::weak_ptr<int> watch = token;
  Fired fired;
  timer->Start(
      [timer, token, &fired] {
        delete timer;
        fired.Hit();
      },
      5);
  token.reset();
  ASSERT_TRUE(fired.WaitFor(1));
  EXPECT_TRUE(Eventually([&] { return watch.expired(); }));
}

TEST(Timer, DeletedWhileItsHandlerRunsWithoutCrashOrLeak) {
  ITimer* timer = ITimer::Create("busy");
  auto token = std::make_shared<int>(1);
  std::weak_ptr<int> watch = token;
  std::mutex mutex;
  std::condition_variable cv;
  bool running = false;
  bool may_finish = false;
  Fired fired;
  timer->Start(
      [&, token] {
        std::unique_lock<std::mutex> lock(mutex);
        running = true;
        cv.notify_all();
        cv.wait(lock, [&] { return may_finish; });
        fired.Hit();
      },
      5);
  token.reset();
  ASSERT_TRUE(WaitUntil(mutex, cv, [&] { return running; }));
  delete timer;  // the handler is running on the timer facility right now
  {
    std::lock_guard<std::mutex> lock(mutex);
    may_finish = true;
  }
  cv.notify_all();
  ASSERT_TRUE(fired.WaitFor(1));
  EXPECT_TRUE(Eventually([&] { return watch.expired(); }));
}

TEST(Timer, DeletingATimerStopsAllItsArmedShots) {
  auto token = std::make_shared<int>(1);
  std::weak_ptr<int> watch = token;
  std::atomic<int> ran{0};
  {
    std::unique_ptr<ITimer> timer(ITimer::Create("test"));
    for (int i = 0; i < 10; ++i) timer->Start([token, &ran] { ran++; }, kNever);
    token.reset();
    EXPECT_FALSE(watch.expired());
  }
  EXPECT_TRUE(watch.expired());
  EXPECT_EQ(ran.load(), 0);
}

TEST(Timer, StartAndStopFromManyThreadsAtOnce) {
  constexpr int kThreads = 4;
  constexpr int kShots = 2000;
  std::unique_ptr<ITimer> timer(ITimer::Create("shared"));
  Fired fired;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < kShots; ++i) {
        uint32_t id = timer->Start([&] { fired.Hit(); }, i % 2 == 0 ? 1 : kNever);
        if (i % 2 != 0) timer->Stop(id);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_TRUE(fired.WaitFor(kThreads * kShots / 2));
}

TEST(Timer, AMillionArmedShotsWorkAndAreAllReleased) {
  constexpr int kShots = 1000000;
  auto token = std::make_shared<int>(1);
  std::weak_ptr<int> watch = token;
  std::unique_ptr<ITimer> timer(ITimer::Create("many"));
  std::vector<uint32_t> ids;
  ids.reserve(kShots);
  for (int i = 0; i < kShots; ++i) {
    ids.push_back(timer->Start([token] {}, kNever + static_cast<uint32_t>(i)));
  }
  token.reset();
  for (int i = 0; i < kShots; i += 2) timer->Stop(ids[i]);
  Fired fired;
  timer->Start([&] { fired.Hit(); }, 1);  // still on time with a million armed
  EXPECT_TRUE(fired.WaitFor(1));
  EXPECT_FALSE(watch.expired());
  timer.reset();
  EXPECT_TRUE(watch.expired());
}
