// A host's own implementation of the vorelhost interfaces, as small as it can
// be and still do the work: a fixed answer for every question about the
// machine, threads that are never moved (the requests are only noted), an
// assertion that names this host, and a pool whose threads take tasks from one
// queue.
#include "host.h"

#include <vorelhost/assertion.h>
#include <vorelhost/hostruntime.h>
#include <vorelhost/placement.h>
#include <vorelhost/tpcompletetask.h>
#include <vorelhost/tpthreadpool.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <system_error>
#include <utility>

namespace {

std::atomic<int> tasksRun{0}, resumes{0};
std::mutex placementMutex;
std::vector<unsigned> placements;
vorelhost::AssertHandler assertHandler = nullptr;

}  // namespace

namespace ownhost {

int TasksRun() { return tasksRun.load(); }
int Resumes() { return resumes.load(); }
std::vector<unsigned> Placements() {
  std::lock_guard<std::mutex> lock(placementMutex);
  return placements;
}

}  // namespace ownhost

namespace vorelhost {

AssertHandler SetAssertHandler(AssertHandler handler) noexcept {
  return std::exchange(assertHandler, handler);
}

void AssertFailed(const char* expression, const char* file, int line) {
  if (assertHandler != nullptr) assertHandler(expression, file, line);
  std::fprintf(stderr, "own host stops: %s (%s, line %d)\n", expression, file, line);
  std::abort();
}

int HostCacheKilobytes() { return 64; }
int HostThreadCount() { return 3; }
void HostResumeCaller() { ++resumes; }
int hostPhysicalCpuCount() { return 1; }
int hostCoresPerCpuCount() { return 2; }
int hostLogicalPerCoreCount() { return 1; }

ThreadHandle GetCurrentThread() noexcept { return {pthread_self()}; }

bool SetThreadIdealProcessor(ThreadHandle, unsigned cpu) {
  std::lock_guard<std::mutex> lock(placementMutex);
  placements.push_back(cpu);
  return false;
}

tpCompleteTask::tpCompleteTask(int count) : _expected(count) {}

// The waiter checks the count itself, so every signal and every new target
// wakes it.
bool tpCompleteTask::set(int count) {
  const bool valid = count >= 0;
  std::lock_guard<std::mutex> lock(_mutex);
  _expected = valid ? count : _expected;
  _allDone.notify_all();
  return valid;
}

void tpCompleteTask::TaskDone() {
  std::lock_guard<std::mutex> lock(_mutex);
  ++_finished;
  _allDone.notify_all();
}

void tpCompleteTask::TaskFailed(std::exception_ptr failure) noexcept {
  requestStop();
  {
    std::lock_guard<std::mutex> lock(_mutex);
    if (!_firstFailure) _firstFailure = std::move(failure);
  }
  TaskDone();
}

bool tpCompleteTask::waitAll() {
  std::unique_lock<std::mutex> lock(_mutex);
  while (_finished < _expected)
    _allDone.wait(lock);
  return !_firstFailure;
}

std::exception_ptr tpCompleteTask::firstFailure() const {
  std::lock_guard<std::mutex> lock(_mutex);
  return _firstFailure;
}

tpThreadPoolBase::tpThreadPoolBase(int threadCount, int stackKilobytes)
    : _threadCount(threadCount > 0 ? threadCount : 0), _stackKilobytes(stackKilobytes) {}

tpThreadPoolBase::~tpThreadPoolBase() {
  {
    std::lock_guard<std::mutex> lock(_mutex);
    _closing = true;
  }
  _wake.notify_all();
  for (pthread_t thread : _threads)
    pthread_join(thread, nullptr);
}

bool tpThreadPoolBase::init() { return !std::exchange(_initialised, true); }

// The system's default stack for every thread: this host asks for no size.
bool tpThreadPoolBase::startAll() {
  if (!_initialised || std::exchange(_started, true)) return false;
  for (int i = 0; i < _threadCount; ++i) {
    pthread_t thread;
    const int error = pthread_create(&thread, nullptr, &ThreadMain, this);
    if (error != 0) throw std::system_error(error, std::generic_category(), "own host pool");
    _threads.push_back(thread);
  }
  return true;
}

bool tpThreadPoolBase::invoke(tpTaskObject* task, void* arg, ThreadScope) {
  std::unique_ptr<tpTaskObject> owned(task);
  if (owned == nullptr || _threadCount == 0) return false;
  {
    std::lock_guard<std::mutex> lock(_mutex);
    _queue.push_back({std::move(owned), arg});
  }
  _wake.notify_one();
  return true;
}

// Each thread runs tasks until the pool closes and the queue is empty; a task
// that throws reports to its counter, or ends the process if it names none.
void* tpThreadPoolBase::ThreadMain(void* self) {
  auto& pool = *static_cast<tpThreadPoolBase*>(self);
  for (;;) {
    QueuedTask next;
    {
      std::unique_lock<std::mutex> lock(pool._mutex);
      pool._wake.wait(lock, [&pool] { return pool._closing || !pool._queue.empty(); });
      if (pool._queue.empty()) return nullptr;
      next = std::move(pool._queue.front());
      pool._queue.pop_front();
    }
    ++tasksRun;
    try {
      next.task->Run(next.arg);
    } catch (...) {
      tpCompleteTask* counter = next.task->getCompleteTask();
      if (counter == nullptr) std::terminate();
      next.task.reset();
      counter->TaskFailed(std::current_exception());
    }
  }
}

}  // namespace vorelhost
