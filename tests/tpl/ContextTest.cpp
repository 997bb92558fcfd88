#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <future>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "CDirectInvoker.h"
#include "CThreadPoolInvoker.h"
#include "Eventually.h"
#include "LogCapture.h"
#include "TPLContext"

using HXFramework::CException;
using HXFramework::Test::Eventually;
using HXFramework::Test::LogCapture;
using HXFramework::Test::WaitUntil;
using HXFramework::TPL::CContext;
using HXFramework::TPL::CDirectInvoker;
using HXFramework::TPL::CThreadPoolInvoker;

namespace {

// A minimal owner: what every context-owning class of the core looks like.
class CTestOwner : public CContext<CTestOwner> {
 public:
  static std::shared_ptr<CTestOwner> Create() {
    auto owner = std::make_shared<CTestOwner>();
    owner->weak_this_ = owner;
    return owner;
  }
  void SetOwner(const std::shared_ptr<CTestOwner>& owner) { weak_this_ = owner; }
  void OnTerminate(const Task& handler) { _SetTerminateHandler(handler); }
  bool OnOwnContext() const { return _OnOwnContext(); }

  // Runs `fn` as a task of this context.
  template <typename Invoker>
  void Post(std::function<void()> fn, Invoker& invoker) {
    InvokeTask([fn](const std::shared_ptr<CTestOwner>&) { fn(); }, invoker);
  }
};

// Counts, records and lets tests wait for what tasks did.
struct Journal {
  std::mutex mutex;
  std::condition_variable cv;
  std::vector<std::string> entries;
  void Add(const std::string& entry) {
    std::lock_guard<std::mutex> lock(mutex);
    entries.push_back(entry);
    cv.notify_all();
  }
  bool WaitSize(size_t n) {
    return WaitUntil(mutex, cv, [&] { return entries.size() >= n; });
  }
  std::vector<std::string> Get() {
    std::lock_guard<std::mutex> lock(mutex);
    return entries;
  }
};

// A gate a task can block on until the test opens it.
struct Gate {
  std::mutex mutex;
  std::condition_variable cv;
  bool open = false;
  bool entered = false;
  void Enter() {  // called by the blocked task
    std::unique_lock<std::mutex> lock(mutex);
    entered = true;
    cv.notify_all();
    cv.wait(lock, [&] { return open; });
  }
  bool WaitEntered() {
    return WaitUntil(mutex, cv, [&] { return entered; });
  }
  void Open() {
    std::lock_guard<std::mutex> lock(mutex);
    open = true;
    cv.notify_all();
  }
};

std::string Pointer(const void* p) {
  char text[32];
  std::snprintf(text, sizeof text, "%p", p);
  return text;
}

auto& Direct() {
  return CDirectInvoker::GetInstance();
}
auto& Pool() {
  return CThreadPoolInvoker::GetInstance();
}

}  // namespace

TEST(TPLContext, InitiateNamesTheContextAfterItsOwnerType) {
  LogCapture capture;
  auto owner = CTestOwner::Create();
  owner->Initiate(Direct());
  const std::string name = typeid(CTestOwner).name();
  auto line = capture.Find("Initiate\n");
  EXPECT_EQ(line.tag, "HXF_TPL_CONTEXT");
  EXPECT_EQ(line.priority, DLOG_INFO);
  EXPECT_NE(line.text.find(")  [" + name + "] Initiate\n"), std::string::npos);
  EXPECT_TRUE(capture.Contains(")  Initiating\n"));
  EXPECT_TRUE(capture.Contains(")  InitiateJob created\n"));
  EXPECT_TRUE(capture.Contains(")  InitiateJob destroyed\n"));
  EXPECT_TRUE(capture.Traces().empty());  // context lines never reach the trace hook
}

TEST(TPLContext, AJobThrowingOutOfADirectDrainLeavesTheNextDrainAlone) {
  // One thread drains on itself jobs that throw; another posts to the pool at the same time,
  // so that its drain often starts just as a throwing drain ends. Jobs of one context must
  // never overlap, whoever started their drain.
  auto owner = CTestOwner::Create();
  owner->Initiate(Direct());
  std::atomic<int> running{0};
  std::atomic<bool> overlapped{false};
  const auto enter = [&] {
    if (running.fetch_add(1) != 0) overlapped = true;
  };
  const auto leave = [&] { running.fetch_sub(1); };
  constexpr int kRounds = 2000;
  std::atomic<int> pooled_done{0};
  std::thread poster([&] {
    for (int i = 0; i < kRounds; ++i) {
      owner->Post(
          [&] {
            enter();
            leave();
            ++pooled_done;
          },
          Pool());
    }
  });
  int thrown = 0;
  for (int i = 0; i < kRounds; ++i) {
    try {
      owner->Post(
          [&] {
            enter();
            leave();
            throw std::runtime_error("job failed");
          },
          Direct());
    } catch (const std::runtime_error&) {
      ++thrown;
    }
  }
  poster.join();
  // A drain that a job threw out of leaves the jobs behind it queued until the next posting
  // (and a throwing job still queued strands those behind it again): post until all ran.
  EXPECT_TRUE(Eventually([&] {
    owner->Post([] {}, Pool());
    return pooled_done.load() == kRounds;
  }));
  EXPECT_FALSE(overlapped.load());
  std::printf("direct drains that threw: %d of %d\n", thrown, kRounds);
  owner->TerminateSync(Direct());
}

TEST(TPLContext, OnlyItsOwnJobsRunOnTheContextNotTheCallerNorAnotherContextsJob) {
  auto owner = CTestOwner::Create();
  auto other = CTestOwner::Create();
  owner->Initiate(Direct());
  other->Initiate(Direct());
  EXPECT_FALSE(owner->OnOwnContext());  // the test's own thread, outside any job
  std::vector<bool> seen;
  owner->Post(
      [&] {
        seen.push_back(owner->OnOwnContext());
        // Another context drained on the direct invoker, inside this job: its job is its own.
        other->Post([&] { seen.push_back(owner->OnOwnContext() || !other->OnOwnContext()); },
                    Direct());
        seen.push_back(owner->OnOwnContext());  // back in the outer job
      },
      Direct());
  EXPECT_EQ(seen, (std::vector<bool>{true, false, true}));
  EXPECT_FALSE(owner->OnOwnContext());
  std::promise<bool> on_pool;
  owner->Post([&] { on_pool.set_value(owner->OnOwnContext()); }, Pool());
  auto answer = on_pool.get_future();
  ASSERT_EQ(answer.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_TRUE(answer.get());
  owner->TerminateSync(Direct());
  other->TerminateSync(Direct());
}

TEST(TPLContext, DirectInvokerRunsTasksBeforeInvokeTaskReturnsInPostingOrder) {
  auto owner = CTestOwner::Create();
  owner->Initiate(Direct());
  std::vector<int> order;
  for (int i = 0; i < 5; ++i) owner->Post([&, i] { order.push_back(i); }, Direct());
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4}));
}

TEST(TPLContext, TaskPostedFromRunningTaskRunsAfterItInTheSameDrainNeverNested) {
  auto owner = CTestOwner::Create();
  owner->Initiate(Direct());
  std::vector<std::string> order;
  owner->Post(
      [&] {
        order.push_back("outer begin");
        owner->Post([&] { order.push_back("inner"); }, Direct());
        order.push_back("outer end");
      },
      Direct());
  EXPECT_EQ(order, (std::vector<std::string>{"outer begin", "outer end", "inner"}));
}

TEST(TPLContext, InvokeTaskAfterTerminateSyncThrowsAndLogsContextIsTerminated) {
  auto owner = CTestOwner::Create();
  owner->Initiate(Direct());
  EXPECT_TRUE(owner->TerminateSync(Direct()));
  LogCapture capture;
  bool ran = false;
  try {
    owner->Post([&] { ran = true; }, Direct());
    FAIL() << "InvokeTask did not throw";
  } catch (const CException& e) {
    EXPECT_STREQ(e.what(), "InvokeTask Fail!!(error:2)");
    EXPECT_EQ(e.code, HXF_ERROR_OPERATION_FAILED);
  }
  EXPECT_FALSE(ran);
  auto line = capture.Find("context is terminated");
  EXPECT_EQ(line.priority, DLOG_ERROR);
  EXPECT_NE(line.text.find(")  context is terminated [" +
                           Pointer(static_cast<CContext<CTestOwner>*>(owner.get())) + "]\n"),
            std::string::npos);
}

TEST(TPLContext, TerminateSyncOnIdleContextDrainsOnCallingThreadAndReturnsTrue) {
  auto owner = CTestOwner::Create();
  owner->Initiate(Direct());
  std::thread::id terminated_on;
  owner->OnTerminate(
      [&](const std::shared_ptr<CTestOwner>&) { terminated_on = std::this_thread::get_id(); });
  LogCapture capture;
  EXPECT_TRUE(owner->TerminateSync(Direct()));
  EXPECT_EQ(terminated_on, std::this_thread::get_id());
  EXPECT_EQ(capture.Find("Sync result").text.substr(capture.Find("Sync result").text.find(")  ")),
            ")  Sync result(1)\n");
  // The sync job logs its base's lines around its own.
  std::vector<std::string> job_lines;
  for (const auto& line : capture.Lines()) {
    for (const char* text : {"TerminateJob created", "CTerminateJobSync created",
                             "CTerminateJobSync destroyed", "TerminateJob destroyed"}) {
      if (line.text.find(std::string(")  ") + text + "\n") != std::string::npos)
        job_lines.push_back(text);
    }
  }
  EXPECT_EQ(job_lines,
            (std::vector<std::string>{"TerminateJob created", "CTerminateJobSync created",
                                      "CTerminateJobSync destroyed", "TerminateJob destroyed"}));
}

TEST(TPLContext, TerminateSyncWhileAnotherThreadsTaskRunsReturnsFalseAtOnce) {
  auto owner = CTestOwner::Create();
  owner->Initiate(Direct());
  Gate gate;
  std::atomic<bool> queued_ran{false};
  std::atomic<int> terminations{0};
  owner->OnTerminate([&](const std::shared_ptr<CTestOwner>&) { terminations++; });
  owner->Post([&] { gate.Enter(); }, Pool());
  ASSERT_TRUE(gate.WaitEntered());
  owner->Post([&] { queued_ran = true; }, Pool());  // queued behind the running task
  LogCapture capture;
  EXPECT_FALSE(owner->TerminateSync(Direct()));  // no wait: the gate is still closed
  EXPECT_EQ(terminations.load(), 1);
  auto line = capture.Find("already invoked but do terminate job");
  EXPECT_EQ(line.priority, DLOG_INFO);
  EXPECT_NE(line.text.find("[" + Pointer(static_cast<CContext<CTestOwner>*>(owner.get())) + "]\n"),
            std::string::npos);
  EXPECT_FALSE(capture.Contains("Sync result"));
  gate.Open();
  // The drain ends after the running task; wait for it by posting until refused... the
  // context is terminated, so a posting is refused at once:
  EXPECT_THROW(owner->Post([] {}, Direct()), CException);
  // Wait for the drain to finish (it discards the queue), then check nothing else ran.
  std::weak_ptr<CTestOwner> watch = owner;
  owner.reset();
  EXPECT_TRUE(Eventually([&] { return watch.expired(); }));
  EXPECT_FALSE(queued_ran.load());
  EXPECT_EQ(terminations.load(), 1);  // the discarded sync job never terminated again
}

TEST(TPLContext, ALongQueueIsDiscardedJobByJobWithoutExhaustingTheStack) {
  // The queue links its jobs through the jobs: released as one chain, 300000 of them would
  // unwind recursively and overflow a thread's stack.
  constexpr int kQueued = 300000;
  auto owner = CTestOwner::Create();
  owner->Initiate(Direct());
  Gate gate;
  std::atomic<int> ran{0};
  owner->Post([&] { gate.Enter(); }, Pool());
  ASSERT_TRUE(gate.WaitEntered());
  for (int i = 0; i < kQueued; ++i) owner->Post([&] { ran++; }, Pool());
  EXPECT_FALSE(owner->TerminateSync(Direct()));  // busy: terminated at once
  gate.Open();
  std::weak_ptr<CTestOwner> watch = owner;
  owner.reset();
  EXPECT_TRUE(Eventually([&] { return watch.expired(); }));  // the drain discarded the rest
  EXPECT_EQ(ran.load(), 0);
}

namespace {

// Leaves `owner` idle with `leftover` queued: a task posted by another thread fails while
// `leftover` waits behind it, so the failed drain ends with `leftover` still queued.
template <typename QueueLeftover>
void LeaveQueuedBehindAFailedDrain(const std::shared_ptr<CTestOwner>& owner,
                                   QueueLeftover&& leftover) {
  Gate gate;
  std::thread poster([&] {
    EXPECT_THROW(owner->Post(
                     [&] {
                       gate.Enter();
                       throw std::runtime_error("task failed");
                     },
                     Direct()),
                 std::runtime_error);
  });
  ASSERT_TRUE(gate.WaitEntered());
  leftover();  // joins the running drain
  gate.Open();
  poster.join();
}

// TerminateSync on its own thread, so that a test can give up on a wait of 20 s.
std::future<bool> TerminateSyncAsync(const std::shared_ptr<CTestOwner>& owner) {
  return std::async(std::launch::async, [owner] { return owner->TerminateSync(Direct()); });
}

}  // namespace

TEST(TPLContext, TerminateSyncDiscardedByAnEarlierTerminateInItsOwnDrainReturnsAtOnce) {
  auto owner = CTestOwner::Create();
  owner->Initiate(Direct());
  std::atomic<int> terminations{0};
  owner->OnTerminate([&](const std::shared_ptr<CTestOwner>&) { terminations++; });
  LeaveQueuedBehindAFailedDrain(owner, [&] { owner->Terminate(Direct()); });
  ASSERT_EQ(terminations.load(), 0);  // the asynchronous terminate is still queued
  LogCapture capture;
  // Its drain runs the earlier terminate first, which discards the synchronous one.
  std::future<bool> result = TerminateSyncAsync(owner);
  ASSERT_EQ(result.wait_for(std::chrono::seconds(5)), std::future_status::ready)
      << "TerminateSync waited for a job that could no longer run";
  EXPECT_FALSE(result.get());
  EXPECT_TRUE(capture.Contains("Sync result(0)\n"));
  EXPECT_EQ(terminations.load(), 1);
  EXPECT_THROW(owner->Post([] {}, Direct()), CException);
}

TEST(TPLContext, TerminateSyncWhoseDrainMeetsAFailingEarlierTaskTerminatesAndReturnsFalse) {
  auto owner = CTestOwner::Create();
  owner->Initiate(Direct());
  std::atomic<int> terminations{0};
  owner->OnTerminate([&](const std::shared_ptr<CTestOwner>&) { terminations++; });
  bool later_ran = false;
  LeaveQueuedBehindAFailedDrain(owner, [&] {
    owner->Post([] { throw std::runtime_error("queued task failed"); }, Direct());
    owner->Post([&] { later_ran = true; }, Direct());
  });
  LogCapture capture;
  std::future<bool> result = TerminateSyncAsync(owner);
  ASSERT_EQ(result.wait_for(std::chrono::seconds(5)), std::future_status::ready);
  EXPECT_FALSE(result.get());  // and no exception of another job's
  EXPECT_TRUE(capture.Contains(")  Exception !! - queued task failed\n"));
  EXPECT_EQ(terminations.load(), 1);
  EXPECT_FALSE(later_ran);
  EXPECT_THROW(owner->Post([] {}, Direct()), CException);
}

TEST(TPLContext, AsyncTerminateRunsTheHandlerAndRefusesLaterTasks) {
  auto owner = CTestOwner::Create();
  owner->Initiate(Direct());
  Journal journal;
  owner->OnTerminate([&](const std::shared_ptr<CTestOwner>& self) {
    journal.Add(self.get() == owner.get() ? "terminated with owner" : "wrong owner");
  });
  owner->Terminate(Pool());
  ASSERT_TRUE(journal.WaitSize(1));
  EXPECT_EQ(journal.Get()[0], "terminated with owner");
  EXPECT_THROW(owner->Post([] {}, Direct()), CException);
}

TEST(TPLContext, InitiateAgainRestartsATerminatedContext) {
  auto owner = CTestOwner::Create();
  owner->Initiate(Direct());
  owner->TerminateSync(Direct());
  owner->Initiate(Direct());
  bool ran = false;
  owner->Post([&] { ran = true; }, Direct());
  EXPECT_TRUE(ran);
}

TEST(TPLContext, TasksBeforeInitiationAreDropped) {
  auto owner = CTestOwner::Create();
  bool ran = false;
  owner->Post([&] { ran = true; }, Direct());
  EXPECT_FALSE(ran);
  owner->Initiate(Direct());
  owner->Post([&] { ran = true; }, Direct());
  EXPECT_TRUE(ran);
}

TEST(TPLContext, TaskOnAContextWhoseOwnerIsReleasedThrowsBadWeakPtr) {
  CTestOwner owner;  // kept alive by the test; the context's owner reference is released
  auto reference = std::shared_ptr<CTestOwner>(&owner, [](CTestOwner*) {});
  owner.SetOwner(reference);
  owner.Initiate(Direct());
  reference.reset();
  bool ran = false;
  EXPECT_THROW(owner.Post([&] { ran = true; }, Direct()), std::bad_weak_ptr);
  EXPECT_FALSE(ran);
  // The failed drain was cleared: with an owner again, the queued task runs.
  auto again = std::shared_ptr<CTestOwner>(&owner, [](CTestOwner*) {});
  owner.SetOwner(again);
  owner.Post([] {}, Direct());
  EXPECT_TRUE(ran);
}

TEST(TPLContext, ExceptionFromATaskReachesTheDirectPosterAndTheNextPostingDrainsAgain) {
  auto owner = CTestOwner::Create();
  owner->Initiate(Direct());
  EXPECT_THROW(owner->Post([] { throw std::runtime_error("task failed"); }, Direct()),
               std::runtime_error);
  bool ran = false;
  owner->Post([&] { ran = true; }, Direct());
  EXPECT_TRUE(ran);
}

TEST(TPLContext, TwoPostingsFromTwoThreadsToAnIdleContextStartExactlyOneDrain) {
  auto owner = CTestOwner::Create();
  owner->Initiate(Direct());
  Gate gate;
  Journal journal;
  LogCapture capture;
  owner->Post(
      [&] {
        gate.Enter();
        journal.Add("first");
      },
      Pool());
  std::thread second([&] { owner->Post([&] { journal.Add("second"); }, Pool()); });
  second.join();
  ASSERT_TRUE(gate.WaitEntered());
  gate.Open();
  ASSERT_TRUE(journal.WaitSize(2));
  EXPECT_EQ(journal.Get(), (std::vector<std::string>{"first", "second"}));
  int drains = 0;
  for (const auto& line : capture.Lines())
    drains += line.text.find("task is invoked") != std::string::npos;
  EXPECT_EQ(drains, 1);
  EXPECT_TRUE(capture.Contains("already invoked ["));
}

TEST(TPLContext, ConcurrentPostersNeverOverlapAndKeepEachThreadsOrder) {
  constexpr int kThreads = 4;
  constexpr int kTasks = 500;
  auto owner = CTestOwner::Create();
  owner->Initiate(Direct());
  std::atomic<int> running{0};
  std::atomic<bool> overlapped{false};
  std::vector<std::vector<int>> seen(kThreads);  // only touched by the context's tasks
  Journal done;
  std::vector<std::thread> posters;
  for (int t = 0; t < kThreads; ++t) {
    posters.emplace_back([&, t] {
      for (int i = 0; i < kTasks; ++i) {
        owner->Post(
            [&, t, i] {
              if (running.fetch_add(1) != 0) overlapped = true;
              seen[t].push_back(i);
              running.fetch_sub(1);
              if (i == kTasks - 1) done.Add("thread done");
            },
            Pool());
      }
    });
  }
  for (auto& poster : posters) poster.join();
  ASSERT_TRUE(done.WaitSize(kThreads));
  EXPECT_FALSE(overlapped.load());
  for (int t = 0; t < kThreads; ++t) {
    ASSERT_EQ(seen[t].size(), static_cast<size_t>(kTasks));
    for (int i = 0; i < kTasks; ++i) EXPECT_EQ(seen[t][i], i);
  }
}

TEST(TPLContext, TwoContextsRunInParallelOnThePool) {
  auto first = CTestOwner::Create();
  auto second = CTestOwner::Create();
  first->Initiate(Direct());
  second->Initiate(Direct());
  Gate first_running;
  Journal journal;
  // The first context's task can only finish once the second context's task has run,
  // which is possible only if both run at the same time on different pool threads.
  first->Post(
      [&] {
        first_running.Enter();
        journal.Add("first");
      },
      Pool());
  ASSERT_TRUE(first_running.WaitEntered());
  second->Post(
      [&] {
        journal.Add("second");
        first_running.Open();
      },
      Pool());
  ASSERT_TRUE(journal.WaitSize(2));
  EXPECT_EQ(journal.Get(), (std::vector<std::string>{"second", "first"}));
}
