// What the library asks of its process: threads that take no signals, and word of forks.
#pragma once

#include <functional>
#include <thread>

namespace orvel::service_apis {

// Runs `body` on a new thread called `name` (a literal of at most 15 characters), to which the process's signals are not
// delivered: a program that waits for SIGTERM by signalfd would die of one, and a handler would run beside callbacks. What a
// fault of the thread itself raises, such as SIGSEGV, is not blocked, because the kernel would then end the process without the
// crash reporter's handler. Throws std::system_error.
std::thread start_library_thread(const char* name, std::function<void()> body);

// Says whether a client is initialised: a fork meanwhile leaves its threads, and the locks that they hold, behind.
void set_client_running(bool running);

// Whether this process was forked from one in which a client was initialised.
bool in_forked_child();

}  // namespace orvel::service_apis
