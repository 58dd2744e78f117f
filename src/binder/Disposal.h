// Where the callbacks of the client's users, and what they captured, are destroyed: never under a lock of the library.
#pragma once

namespace orvel::service_apis {

// Holds objects of a user. Disposal alone destroys it.
class Disposable {
 public:
  virtual ~Disposable() = default;

 private:
  friend class Disposal;
  Disposable* m_next = nullptr;
};

// While one exists, what its thread disposes of lives on; the outermost one destroys it when it ends. It stands in front of the
// locks of its scope, so that they are free by then: a destructor of a user's may call every method of the client,
// shutdown() included.
class Disposal {
 public:
  Disposal();
  ~Disposal();
  Disposal(const Disposal&) = delete;
  Disposal& operator=(const Disposal&) = delete;

  // Destroys `object` at the end of the thread's outermost Disposal, or at once where there is none.
  static void dispose(Disposable* object) noexcept;
};

}  // namespace orvel::service_apis
