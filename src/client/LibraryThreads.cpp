#include "client/LibraryThreads.h"

#include <exception>
#include <utility>

#include "binder/OrvelLogger.h"
#include "binder/Process.h"
#include "binder/Waiting.h"

namespace orvel::service_apis {
namespace {

const OrvelLogger s_logger("LibraryThreads");

void run(const char* name, const std::function<void()>& body) {
  try {
    body();
  } catch (const std::exception& error) {
    s_logger.e("%s:The thread %s ends: %s", __func__, name, error.what());
  }
}

}  // namespace

bool LibraryThreads::start(const char* name, std::function<void()> body) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  // Under the lock: join() takes it when the interrupt is there, and so sees what was started before.
  if (waiting::interrupted()) return false;
  join_those_that_are_over();
  const auto over = std::make_shared<std::atomic<bool>>(false);
  const auto background = std::make_shared<waiting::Background>();  // from before the thread exists
  m_threads.push_back({start_library_thread(name,
                                            [name, body = std::move(body), over, background = background]() mutable {
                                              run(name, body);
                                              body = {};
                                              background.reset();
                                              *over = true;
                                            }),
                       over});
  return true;
}

void LibraryThreads::join() {
  std::list<Thread> threads;
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    threads.swap(m_threads);
  }
  for (Thread& each : threads) each.thread.join();
}

void LibraryThreads::join_those_that_are_over() {
  for (auto each = m_threads.begin(); each != m_threads.end();) {
    if (!*each->over) {
      ++each;
      continue;
    }
    each->thread.join();
    each = m_threads.erase(each);
  }
}

}  // namespace orvel::service_apis
