// A host's own implementation of the vorelhost interfaces, as small as it can
// be and still do the work: a fixed answer for every question about the
// machine, threads that are never moved (the requests are only noted), an
// assertion that names this host, and a pool that starts a thread of its own
// for each task, up to its thread count.
#include "host.h"

#include <vorelhost/assertion.h>
#include <vorelhost/hostruntime.h>
#include <vorelhost/placement.h>
#include <vorelhost/tpcompletetask.h>
#include <vorelhost/tpthreadpool.h>

#include <atomic>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <memory>
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
  for (pthread_t thread : _threads)
    pthread_join(thread, nullptr);
}

bool tpThreadPoolBase::init() { return !std::exchange(_initialised, true); }

bool tpThreadPoolBase::startAll() { return _initialised && !std::exchange(_started, true); }

// The system's default stack for every thread: this host asks for no size.
bool tpThreadPoolBase::invoke(tpTaskObject* task, void* arg, ThreadScope) {
  auto queued = std::make_unique<QueuedTask>(QueuedTask{std::unique_ptr<tpTaskObject>(task), arg});
  if (task == nullptr || !_started || _threads.size() >= static_cast<std::size_t>(_threadCount))
    return false;
  pthread_t thread;
  const int error = pthread_create(&thread, nullptr, &ThreadMain, queued.get());
  if (error != 0) throw std::system_error(error, std::generic_category(), "own host pool");
  queued.release();
  _threads.push_back(thread);
  return true;
}

// Runs one task; a task that throws reports to its counter, or ends the
// process if it names none.
void* tpThreadPoolBase::ThreadMain(void* queued) {
  const std::unique_ptr<QueuedTask> next(static_cast<QueuedTask*>(queued));
  ++tasksRun;
  try {
    next->task->Run(next->arg);
  } catch (...) {
    tpCompleteTask* counter = next->task->getCompleteTask();
    if (counter == nullptr) std::terminate();
    next->task.reset();
    counter->TaskFailed(std::current_exception());
  }
  return nullptr;
}

}  // namespace vorelhost
