// Threads that take no signals, and the detection of forks.
#pragma once

#include <functional>
#include <thread>

namespace orvel::service_apis {

// Returns a new thread called `name` (a literal of at most 15 characters) that runs `body`. The process's signals are
// not delivered to it: a program that waits for SIGTERM by signalfd would die of one, and a handler would run beside
// callbacks. Signals that a fault of the thread itself raises, such as SIGSEGV, are not blocked, because the kernel
// would then end the process without the crash reporter's handler. Throws std::system_error.
std::thread start_quiet_thread(const char* name, std::function<void()> body);

// The same for a thread on which callbacks run, and for which a shutdown waits.
std::thread start_library_thread(const char* name, std::function<void()> body);

// True on one of the latter.
bool on_library_thread();

// Tells whether a client is initialised. The child of a fork has its locks, but not the threads that hold them.
void set_client_running(bool running);

// True when this process was forked from one in which a client was initialised.
bool in_forked_child();

}  // namespace orvel::service_apis
