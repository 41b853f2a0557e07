// Thread library: tasks and the pool of threads that runs them.
//
// A task derives from tpTaskObject and overrides Run. tpThreadPool(n, stack)
// makes a pool of n threads; after init() and startAll() it runs each task
// handed to invoke() once, on the first free pool thread, so that n tasks
// given to a pool of n threads run side by side. invoke() takes the task over:
// the pool destroys it, on the thread that ran it, as soon as its Run has
// returned, and the pool's destructor returns only when every pool thread has
// ended and every task handed over has been destroyed.
//
// Exceptions out of Run. A pool thread has no caller to pass an exception to,
// so the pool catches whatever leaves a task's Run. If the task names a
// tpCompleteTask (setCompleteTask), the pool reports the exception there with
// TaskFailed: the task counts as finished, the first exception is kept for the
// waiter, and the stop request of that counter tells the task's fellows to
// stop taking work. A task that names no counter and throws ends the process
// with std::terminate, as an exception leaving a std::thread would.
//
// Shutdown. The destructor lets the threads finish every task already handed
// over, then joins them. It does not interrupt a running task: whoever owns
// the pool must first make its tasks come to an end (Driver raises the stop
// request of its counter before an exception takes it past its pool).
#pragma once

#include <pthread.h>

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

namespace vorelhost {

class tpCompleteTask;

// Where invoke runs a task: on a thread of this pool, the only place there is.
enum ThreadScope : int { tpScopePool = 1 };

// An object that carries one untyped datum for whoever owns it.
class tpPayloadBase {
 public:
  virtual ~tpPayloadBase() = default;
  virtual void* getPayload() const { return _payload; }
  virtual void setPayload(void* payload) { _payload = payload; }

 private:
  void* _payload = nullptr;
};

class tpTaskObject : public tpPayloadBase {
 public:
  // `taskPayload` is the task's own datum, kept for getTaskPayload.
  explicit tpTaskObject(void* taskPayload) : _taskPayload(taskPayload) {}
  tpTaskObject(const tpTaskObject&) = delete;
  tpTaskObject& operator=(const tpTaskObject&) = delete;

  virtual void setTaskPayload(void* taskPayload) { _taskPayload = taskPayload; }
  virtual void* getTaskPayload() const { return _taskPayload; }
  // The work of the task, called once on a pool thread with invoke's `arg`.
  virtual int Run(void* arg) = 0;

  // The counter that receives TaskFailed if an exception leaves Run. Null (the
  // default) means the task never throws out of Run.
  void setCompleteTask(tpCompleteTask* counter) { _completeTask = counter; }
  tpCompleteTask* getCompleteTask() const { return _completeTask; }

 private:
  void* _taskPayload;
  tpCompleteTask* _completeTask = nullptr;
};

// The machinery of a pool: its threads and its queue of handed-over tasks.
class tpThreadPoolBase {
 public:
  tpThreadPoolBase(const tpThreadPoolBase&) = delete;
  tpThreadPoolBase& operator=(const tpThreadPoolBase&) = delete;

  // Takes the room for the threads. False if the pool was initialised before.
  bool init();
  // Starts the threads. False if init has not run or the threads were started
  // before. Throws std::system_error if the system gives no thread at all;
  // with fewer threads than asked for the pool works with those it has.
  bool startAll();
  // Hands `task` over and has its Run(arg) called once on a pool thread. The
  // pool owns the task from this call on, even when it throws (bad_alloc) or
  // refuses it (a pool of no threads, or one past startAll that has none):
  // then it is destroyed at once and the result is false.
  bool invoke(tpTaskObject* task, void* arg, ThreadScope scope);

  int threadCount() const { return _threadCount; }

 protected:
  tpThreadPoolBase(int threadCount, int stackKilobytes);
  ~tpThreadPoolBase();

 private:
  struct QueuedTask {
    std::unique_ptr<tpTaskObject> task;
    void* arg;
  };
  static void* ThreadMain(void* pool);
  void ServeTasks();
  static void RunAndDestroy(QueuedTask queued);
  void StopAndJoin() noexcept;

  const int _threadCount;
  const int _stackKilobytes;
  std::mutex _mutex;
  std::condition_variable _wake;
  std::deque<QueuedTask> _queue;  // guarded by _mutex
  bool _initialised = false;
  bool _started = false;
  bool _closing = false;  // guarded by _mutex
  std::vector<pthread_t> _threads;
};

class tpThreadPool : public tpThreadPoolBase {
 public:
  // `threadCount` threads (none if below 1), each with a stack of
  // `stackKilobytes` (0 or less: the system's default size).
  tpThreadPool(int threadCount, int stackKilobytes)
      : tpThreadPoolBase(threadCount, stackKilobytes) {}
  ~tpThreadPool() = default;
};

}  // namespace vorelhost
