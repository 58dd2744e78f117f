// Destroys the callbacks of the client's users, and what they captured, under no lock of the library.
#pragma once

#include <utility>

#include "binder/RefCount.h"

namespace orvel::service_apis {

// Holds objects of a user, on the heap. The last DisposablePtr to it disposes of it.
class Disposable {
 public:
  virtual ~Disposable() = default;

 private:
  friend class Disposal;
  friend class DisposablePtr;
  vesk::RefCount m_ref_count;
  Disposable* m_next = nullptr;
};

// While one exists, what its thread disposes of lives on; the outermost one destroys it when it ends. It stands in
// front of the locks of its scope, so that they are free by then: a destructor of a user's object may call every method
// of the client, shutdown() included. Made, copied and destroyed on one thread; a copy is one more.
class Disposal {
 public:
  Disposal();
  Disposal(const Disposal&) : Disposal() {}
  Disposal& operator=(const Disposal&) = delete;
  ~Disposal();

  // Destroys `object` at the end of the thread's outermost Disposal, or at once where there is none.
  static void dispose(Disposable* object) noexcept;

 private:
  // Not inlined: its frame would be set up in each call, most of which dispose of nothing.
  [[gnu::noinline]] static void destroy_all();
};

// Owns one reference to a Disposable. Threads: any, one at a time.
class DisposablePtr {
 public:
  explicit DisposablePtr(Disposable* object) : m_object(object) { m_object->m_ref_count.acquire(); }
  DisposablePtr(const DisposablePtr& other) : m_object(other.m_object) {
    if (m_object) m_object->m_ref_count.acquire();
  }
  DisposablePtr(DisposablePtr&& other) noexcept : m_object(std::exchange(other.m_object, nullptr)) {}
  DisposablePtr& operator=(DisposablePtr other) noexcept {
    std::swap(m_object, other.m_object);
    return *this;
  }
  ~DisposablePtr() {
    if (m_object && m_object->m_ref_count.release()) Disposal::dispose(m_object);
  }

  Disposable* get() const { return m_object; }

 private:
  Disposable* m_object;
};

}  // namespace orvel::service_apis
