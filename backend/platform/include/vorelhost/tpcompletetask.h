// Thread library: tpCompleteTask, the counter a thread waits on until a set
// number of tasks have finished.
//
// A task finishes in one of two ways, and signals exactly one of them:
//  - TaskDone: it ran to its end;
//  - TaskFailed: an exception left it. The pool reports this on the task's
//    behalf (see tpTaskObject::setCompleteTask), so a task that throws still
//    counts and a waiter never waits for a signal that cannot come.
// The first failure is kept for the waiter to collect, and any failure (or a
// call of requestStop) raises a stop request that the tasks of the same run
// read at no cost with stopRequested(), so that they stop taking new work.
#pragma once

#include <atomic>
#include <condition_variable>
#include <exception>
#include <mutex>

namespace vorelhost {

class tpCompleteTask {
 public:
  // An idle counter that waits for `count` tasks; Driver starts it at 0.
  explicit tpCompleteTask(int count);
  tpCompleteTask(const tpCompleteTask&) = delete;
  tpCompleteTask& operator=(const tpCompleteTask&) = delete;

  // From now on waitAll waits for `count` finished tasks. False, and nothing
  // changes, when count is negative.
  bool set(int count);

  // Records one finished task. Called once per task, from the task's thread.
  void TaskDone();

  // Records one task that an exception ended, in place of its TaskDone. Keeps
  // `failure` if it is the first, and raises the stop request.
  void TaskFailed(std::exception_ptr failure) noexcept;

  // Blocks until as many tasks as were set have signalled. True when none of
  // them failed.
  bool waitAll();

  // Asks the tasks of this run to stop taking new work. One-way.
  void requestStop() noexcept { _stopRequested.store(true); }
  bool stopRequested() const noexcept { return _stopRequested.load(); }

  // The exception of the first TaskFailed, null when no task failed.
  std::exception_ptr firstFailure() const;

 private:
  mutable std::mutex _mutex;
  std::condition_variable _allDone;
  int _expected;
  int _finished = 0;
  std::exception_ptr _firstFailure;
  std::atomic<bool> _stopRequested{false};
};

}  // namespace vorelhost
