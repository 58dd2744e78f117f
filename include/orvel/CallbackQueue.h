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
#include <optional>
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
/// subscriptions. The queue is bounded: a callback that finds it full takes the place of the oldest, so that the newest
/// state is never lost; dropped() says which ones went, the outcomes of events among them.
///
/// What waits keeps what its callback captured, after shutdown() too, until it is dispatched or the queue is destroyed.
/// The queue may be destroyed while the client uses it, and in a callback that it runs: what waits is dropped then, and
/// so is what comes later, until setExecutor() is called again.
///
/// Threads: executor() and what it returns on any, the rest on the loop's. Not for the child of a fork, which shares
/// the descriptor with its parent.
class CallbackQueue {
 public:
  /// As many callbacks as wait at most.
  static constexpr std::size_t kDefaultCapacity = 1024;

  /// A queue for `capacity` callbacks, for one where that is 0. Throws std::system_error when there is no descriptor
  /// left.
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
  /// that the loop gets its turn. Never waits. What a callback throws passes through, and the rest is for the next
  /// time.
  std::size_t dispatch() {
    const std::shared_ptr<State> state = m_state;  // a callback may destroy the queue
    const std::size_t waiting = state->size();
    std::size_t run = 0;
    for (; run < waiting; ++run) {
      const std::optional<CallbackTask> task = state->take();
      if (!task) break;
      (*task)();
    }
    return run;
  }

  /// How many callbacks were dropped since this was asked last, by the method that they were given to.
  std::map<std::string, std::uint64_t> dropped() { return m_state->take_dropped(); }

 private:
  // Shared with the executor, which may outlive the queue. Tasks are destroyed behind the lock, because what callbacks
  // captured may call the client.
  struct State {
    explicit State(std::size_t most) : capacity(most > 0 ? most : 1), fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
      if (fd < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
    }
    ~State() { ::close(fd); }
    State(const State&) = delete;
    State& operator=(const State&) = delete;

    void add(CallbackTask task) {
      std::optional<CallbackTask> oldest;
      const std::lock_guard<std::mutex> lock(mutex);
      if (closed) return;
      if (tasks.size() == capacity) {
        ++dropped[tasks.front().method()];
        oldest = pop();
      }
      tasks.push_back(std::move(task));
      eventfd_write(fd, 1);  // each time: a loop may watch for changes only
    }

    std::size_t size() {
      const std::lock_guard<std::mutex> lock(mutex);
      return tasks.size();
    }

    std::optional<CallbackTask> take() {
      const std::lock_guard<std::mutex> lock(mutex);
      if (tasks.empty()) return std::nullopt;
      std::optional<CallbackTask> task = pop();
      eventfd_t ignored = 0;
      if (tasks.empty()) eventfd_read(fd, &ignored);
      return task;
    }

    std::map<std::string, std::uint64_t> take_dropped() {
      const std::lock_guard<std::mutex> lock(mutex);
      return std::exchange(dropped, {});
    }

    void close() {
      std::deque<CallbackTask> waiting;
      const std::lock_guard<std::mutex> lock(mutex);
      closed = true;
      waiting.swap(tasks);
    }

    std::optional<CallbackTask> pop() {
      std::optional<CallbackTask> oldest(std::move(tasks.front()));
      tasks.pop_front();
      return oldest;
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
