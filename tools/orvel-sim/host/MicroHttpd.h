// libmicrohttpd, loaded when a page is to be served: with it come the libraries of TLS, which would add 2 ms to the
// start of every verb.
#pragma once

#include <microhttpd.h>

namespace orvel::sim {

// Its functions, by their names without "MHD_".
struct MicroHttpd {
  decltype(&MHD_start_daemon) start_daemon;
  decltype(&MHD_stop_daemon) stop_daemon;
  decltype(&MHD_get_daemon_info) get_daemon_info;
  decltype(&MHD_get_timeout) get_timeout;
  decltype(&MHD_run) run;
  decltype(&MHD_get_connection_info) get_connection_info;
  decltype(&MHD_get_connection_values) get_connection_values;
  decltype(&MHD_create_response_from_buffer) create_response_from_buffer;
  decltype(&MHD_create_response_from_callback) create_response_from_callback;
  decltype(&MHD_add_response_header) add_response_header;
  decltype(&MHD_queue_response) queue_response;
  decltype(&MHD_destroy_response) destroy_response;
  decltype(&MHD_suspend_connection) suspend_connection;
  decltype(&MHD_resume_connection) resume_connection;
};

// Throws std::runtime_error, which names the package, where the library is not installed.
const MicroHttpd& microHttpd();

}  // namespace orvel::sim
