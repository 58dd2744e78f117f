// The serving side: the names of this process, and the connections that others make to it.
#pragma once

#include <sys/types.h>
#include <systemd/sd-event.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "IncomingConnection.h"
#include "Loop.h"
#include "Message.h"
#include "RuntimeDirectory.h"
#include "ThreadAnnotations.h"

namespace vesk {

// Names may be published and withdrawn on any thread; everything else runs on the loop's.
class Server {
 public:
  explicit Server(Loop& loop) : m_loop(loop) {}

  // Throw std::system_error as Seat does.
  void publish(const char* name, vesk_endpoint* endpoint);
  int withdraw(const char* name);

  // Withdraws every name and closes every connection.
  void close();

  // The endpoint published under an object path, or null.
  EndpointRef endpoint(const std::string& path);

  // Closes a connection that is out of service and tells those who wait for something from it.
  void remove(IncomingConnection& connection);

  [[nodiscard]] Loop& loop() { return m_loop; }

 private:
  struct Name {
    std::string file;
    EndpointRef endpoint;
  };

  // Where this process accepts connections; made for the first name, gone with shutdown.
  struct Listener {
    Server& server;
    Seat seat;
    SourcePtr source;  // both on the loop's thread only
    SourcePtr resume;
  };

  static void start_listening(const std::shared_ptr<Listener>& listener);
  void accept_some(Listener& listener);
  static void pause_accepting(Listener& listener);
  bool is_welcome(pid_t peer) const;
  void close_connections(const std::string* path, bool notify);

  Loop& m_loop;

  std::mutex m_mutex;                                             // held while the directory is changed
  std::shared_ptr<Listener> m_listener VESK_GUARDED_BY(m_mutex);  // null while nothing is published
  std::map<std::string, Name> m_names VESK_GUARDED_BY(m_mutex);   // by object path

  // The loop's thread only.
  std::map<IncomingConnection*, std::shared_ptr<IncomingConnection>> m_connections;
};

}  // namespace vesk
