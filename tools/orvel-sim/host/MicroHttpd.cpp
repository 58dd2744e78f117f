#include "tools/orvel-sim/host/MicroHttpd.h"

#include <dlfcn.h>

#include <stdexcept>
#include <string>

namespace orvel::sim {
namespace {

class Library {
 public:
  Library() : m_library(dlopen("libmicrohttpd.so.12", RTLD_NOW | RTLD_LOCAL)) {
    if (m_library == nullptr) fail();
  }

  template <typename Function>
  void load(Function& function, const char* name) const {
    function = reinterpret_cast<Function>(dlsym(m_library, name));
    if (function == nullptr) fail();
  }

 private:
  [[noreturn]] static void fail() {
    const char* const why = dlerror();
    throw std::runtime_error(std::string("run: --web needs libmicrohttpd; install the package libmicrohttpd12 (") +
                             why + ")");
  }

  void* m_library;  // until the process ends
};

MicroHttpd load() {
  const Library library;
  MicroHttpd functions{};
  library.load(functions.start_daemon, "MHD_start_daemon");
  library.load(functions.stop_daemon, "MHD_stop_daemon");
  library.load(functions.get_daemon_info, "MHD_get_daemon_info");
  library.load(functions.get_timeout, "MHD_get_timeout");
  library.load(functions.run, "MHD_run");
  library.load(functions.get_connection_info, "MHD_get_connection_info");
  library.load(functions.get_connection_values, "MHD_get_connection_values");
  library.load(functions.create_response_from_buffer, "MHD_create_response_from_buffer");
  library.load(functions.create_response_from_callback, "MHD_create_response_from_callback");
  library.load(functions.add_response_header, "MHD_add_response_header");
  library.load(functions.queue_response, "MHD_queue_response");
  library.load(functions.destroy_response, "MHD_destroy_response");
  library.load(functions.suspend_connection, "MHD_suspend_connection");
  library.load(functions.resume_connection, "MHD_resume_connection");
  return functions;
}

}  // namespace

const MicroHttpd& microHttpd() {
  static const MicroHttpd functions = load();
  return functions;
}

}  // namespace orvel::sim
