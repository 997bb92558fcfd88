#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "CDirectInvoker.h"
#include "CThreadPoolInvoker.h"
#include "CThreadPoolInvokerImpl.h"
#include "Eventually.h"
#include "LogCapture.h"

using HXFramework::Test::Eventually;
using HXFramework::Test::WaitUntil;
using HXFramework::TPL::CDirectInvoker;
using HXFramework::TPL::CThreadPoolInvoker;
using HXFramework::TPL::CThreadPoolInvokerImpl;

namespace {

// A tiny latch: tests wait on conditions, never on time.
class Gate {
 public:
  // Notifies under the lock: the waiter may destroy the gate as soon as it sees it open.
  void Open() {
    std::lock_guard<std::mutex> lock(mutex_);
    open_ = true;
    cv_.notify_all();
  }
  bool Wait() {
    return WaitUntil(mutex_, cv_, [this] { return open_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable cv_;
  bool open_ = false;
};

}  // namespace

TEST(DirectInvoker, RunsAtOnceOnTheCallingThread) {
  std::thread::id ran_on;
  bool ran = false;
  CDirectInvoker::GetInstance().Invoke([&] {
    ran_on = std::this_thread::get_id();
    ran = true;
  });
  EXPECT_TRUE(ran);
  EXPECT_EQ(ran_on, std::this_thread::get_id());
}

TEST(DirectInvoker, EmptyFunctionThrowsBadFunctionCall) {
  EXPECT_THROW(CDirectInvoker::GetInstance().Invoke(std::function<void()>()),
               std::bad_function_call);
}

TEST(DirectInvoker, ExceptionsReachTheCaller) {
  EXPECT_THROW(CDirectInvoker::GetInstance().Invoke([] { throw std::runtime_error("x"); }),
               std::runtime_error);
}

TEST(ThreadPoolInvoker, NeverRunsTheTaskInsideInvoke) {
  Gate invoked;
  Gate done;
  std::thread::id ran_on;
  CThreadPoolInvoker::GetInstance().Invoke([&] {
    invoked.Wait();  // cannot pass until Invoke has returned
    ran_on = std::this_thread::get_id();
    done.Open();
  });
  invoked.Open();
  ASSERT_TRUE(done.Wait());
  EXPECT_NE(ran_on, std::this_thread::get_id());
}

TEST(ThreadPoolInvoker, TaskExceptionDoesNotEndThePoolThread) {
  CThreadPoolInvokerImpl pool(1);
  Gate done;
  pool.Invoke([] { throw std::runtime_error("task failure"); });
  pool.Invoke([] { throw 7; });
  pool.Invoke([&] { done.Open(); });
  EXPECT_TRUE(done.Wait());
}

TEST(ThreadPoolInvoker, EveryTaskFromManyThreadsRunsExactlyOnce) {
  constexpr int kThreads = 4;
  constexpr int kTasksPerThread = 2000;
  std::vector<std::atomic<int>> runs(kThreads * kTasksPerThread);
  std::mutex mutex;
  std::condition_variable cv;
  int finished = 0;
  std::vector<std::thread> posters;
  for (int t = 0; t < kThreads; ++t) {
    posters.emplace_back([&, t] {
      for (int i = 0; i < kTasksPerThread; ++i) {
        CThreadPoolInvoker::GetInstance().Invoke([&, index = t * kTasksPerThread + i] {
          runs[index].fetch_add(1);
          std::lock_guard<std::mutex> lock(mutex);
          ++finished;
          cv.notify_all();
        });
      }
    });
  }
  for (auto& poster : posters) poster.join();
  ASSERT_TRUE(WaitUntil(mutex, cv, [&] { return finished == kThreads * kTasksPerThread; }));
  for (auto& count : runs) EXPECT_EQ(count.load(), 1);
}

TEST(ThreadPoolInvoker, DestructionRunsWhatWasQueuedAndJoins) {
  std::atomic<int> ran{0};
  {
    CThreadPoolInvokerImpl pool(2);
    EXPECT_EQ(pool.ThreadCount(), 2u);
    for (int i = 0; i < 100; ++i) pool.Invoke([&] { ran.fetch_add(1); });
  }
  EXPECT_EQ(ran.load(), 100);
}

TEST(ThreadPoolInvoker, EmptyFunctionIsRefusedAtInvoke) {
  EXPECT_THROW(CThreadPoolInvoker::GetInstance().Invoke(std::function<void()>()),
               std::bad_function_call);
}

TEST(ThreadPoolInvoker, AFunctionAWorkerPostsAndThenBlocksForRunsOnAnotherWorker) {
  // A worker's posting into an empty queue wakes nobody (the worker takes it on return);
  // when the worker instead blocks until it has run, the standby worker takes it.
  CThreadPoolInvokerImpl pool(2);
  Gate posted_ran;
  Gate done;
  std::thread::id poster;
  std::thread::id runner;
  bool ran_in_time = false;
  ASSERT_TRUE(Eventually([&] { return pool.ParkedCount() == 2; }));
  pool.Invoke([&] {
    poster = std::this_thread::get_id();
    // The other worker parked, not spinning: only the standby's watch can run what follows.
    if (!Eventually([&] { return pool.ParkedCount() == 1; })) return;
    pool.Invoke([&] {
      runner = std::this_thread::get_id();
      posted_ran.Open();
    });
    ran_in_time = posted_ran.Wait();
    done.Open();
  });
  ASSERT_TRUE(done.Wait());
  EXPECT_TRUE(ran_in_time);
  EXPECT_NE(runner, poster);
}

TEST(ThreadPoolInvoker, AParkedWorkerTakesOverTheWatchWhileTheStandbyRunsWhatItTook) {
  // Regression: the standby took a continuation and woke a parked worker to watch in its
  // place, but that worker parked again; a second continuation posted while the first still
  // ran then waited for no one.
  Gate first_started;
  Gate release_first;
  Gate second_ran;
  Gate done;
  bool second_in_time = false;
  CThreadPoolInvokerImpl pool(3);  // stopped first: it runs what it accepted while the gates live
  ASSERT_TRUE(Eventually([&] { return pool.ParkedCount() == 3; }));
  pool.Invoke([&] {
    if (!Eventually([&] { return pool.ParkedCount() == 2; })) return;
    pool.Invoke([&] {  // left to the standby: its poster blocks until it has started
      first_started.Open();
      release_first.Wait();
    });
    if (first_started.Wait()) {
      pool.Invoke([&] { second_ran.Open(); });
      second_in_time = second_ran.Wait();
    }
    release_first.Open();
    done.Open();
  });
  ASSERT_TRUE(done.Wait());
  EXPECT_TRUE(second_in_time);
}
