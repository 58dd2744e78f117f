/// @file
/// Callbacks in a loop of the program's own.
#pragma once

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <utility>

#include "orvel/Executor.h"

namespace orvel::service_apis {

/// Callbacks that wait for a loop of the program's, behind one descriptor.
///
///     CallbackQueue queue;
///     client.setExecutor(queue.executor());
///     ... poll(queue.fd()) ...  queue.dispatch();
///
/// The callbacks then run in dispatch(), on the thread that calls it, in the order in which they came, over all
/// subscriptions. The queue is bounded: when it is full, and the loop does not dispatch, the oldest callback is dropped,
/// so that the newest state is never lost; dropped() says how many there were.
///
/// Threads: executor() and what it returns on any, the rest on the loop's. May be destroyed while the client uses it:
/// what waits is dropped then, and so is what comes later, until setExecutor() is called again.
class CallbackQueue {
 public:
  /// As many callbacks as wait at most.
  static constexpr std::size_t kDefaultCapacity = 1024;

  /// A queue for `capacity` callbacks, at least one. Throws std::system_error when there is no descriptor left.
  explicit CallbackQueue(std::size_t capacity = kDefaultCapacity) : m_state(std::make_shared<State>(capacity)) {}
  ~CallbackQueue() { m_state->close(); }
  CallbackQueue(const CallbackQueue&) = delete;
  CallbackQueue& operator=(const CallbackQueue&) = delete;

  /// For OrvelDelegateClient::setExecutor().
  Executor executor() const {
    return [state = m_state](CallbackTask task) { state->add(std::move(task)); };
  }

  /// Readable while callbacks wait: for poll, epoll and every loop that watches descriptors. Belongs to the queue.
  int fd() const { return m_state->fd; }

  /// Runs the callbacks that wait now, and returns how many those were; what comes meanwhile is for the next time, so
  /// that a loop is never kept. Never waits. What a callback throws passes through, and the rest is for the next time.
  std::size_t dispatch() {
    std::size_t run = 0;
    for (std::size_t waiting = m_state->begin(); waiting > 0; --waiting, ++run) {
      const std::unique_ptr<CallbackTask> task = m_state->take();
      if (!task) break;
      (*task)();
    }
    return run;
  }

  /// How many callbacks were dropped since this was asked last, by the method they belong to.
  std::map<std::string, std::uint64_t> dropped() { return m_state->take_dropped(); }

 private:
  // Shared with the executor, which may outlive the queue.
  struct State {
    explicit State(std::size_t most) : capacity(most > 0 ? most : 1), fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
      if (fd < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
    }
    ~State() { ::close(fd); }
    State(const State&) = delete;
    State& operator=(const State&) = delete;

    void add(CallbackTask task) {
      std::deque<CallbackTask> out;  // destroyed behind the lock, since what callbacks captured may call the client
      const std::lock_guard<std::mutex> lock(mutex);
      if (closed) {
        out.push_back(std::move(task));
        return;
      }
      if (tasks.size() == capacity) {
        ++dropped[tasks.front().method()];
        out.push_back(std::move(tasks.front()));
        tasks.pop_front();
      }
      tasks.push_back(std::move(task));
      if (tasks.size() == 1) eventfd_write(fd, 1);
    }

    std::size_t begin() {
      const std::lock_guard<std::mutex> lock(mutex);
      return tasks.size();
    }

    std::unique_ptr<CallbackTask> take() {
      const std::lock_guard<std::mutex> lock(mutex);
      if (tasks.empty()) return nullptr;
      auto task = std::make_unique<CallbackTask>(std::move(tasks.front()));
      tasks.pop_front();
      eventfd_t ignored = 0;
      if (tasks.empty()) eventfd_read(fd, &ignored);
      return task;
    }

    std::map<std::string, std::uint64_t> take_dropped() {
      const std::lock_guard<std::mutex> lock(mutex);
      return std::exchange(dropped, {});
    }

    void close() {
      std::deque<CallbackTask> out;
      const std::lock_guard<std::mutex> lock(mutex);
      closed = true;
      out.swap(tasks);
    }

    const std::size_t capacity;
    const int fd;
    std::mutex mutex;  // guards what follows
    std::deque<CallbackTask> tasks;
    std::map<std::string, std::uint64_t> dropped;
    bool closed = false;
  };

  const std::shared_ptr<State> m_state;
};

}  // namespace orvel::service_apis
