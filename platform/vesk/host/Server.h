// The serving side: the names of this process, and the connections that others make to it.
#pragma once

#include <sys/types.h>
#include <systemd/sd-event.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "IncomingConnection.h"
#include "Loop.h"
#include "Seat.h"
#include "ThreadAnnotations.h"
#include "vesk/message/Message.h"

namespace vesk {

// Names may be published and withdrawn on any thread; everything else runs on the loop's. m_seat_mutex is taken before
// m_names_mutex, which every message that comes in takes; no thread waits for the directory's lock with either.
class Server : private IncomingConnection::Acceptor {
 public:
  explicit Server(Loop& loop) : m_loop(loop) {}

  // Says that a device lives in the runtime directory, which is made where it is missing. Throws std::system_error.
  void serve_device();

  // Throws std::system_error as DirectoryLock and Seat do.
  void publish(const char* name, vesk_endpoint* endpoint);
  int withdraw(const char* name);

  // Calls `found` for each open connection to the name; -ENOENT when it is not served. Loop's thread.
  int each_connection(const char* name, const std::function<void(pid_t peer, std::uint64_t opened_us)>& found);

  // Withdraws every name and closes every connection. Waits for no other process.
  void close();

 private:
  struct Name {
    std::string file;
    EndpointRef endpoint;
    bool given_up = false;  // another process serves it since this one lost its link
  };

  // Where this process accepts connections.
  struct Listener {
    Server& server;
    const std::string file;
    UniqueFd socket;
    SourcePtr source;  // both on the loop's thread only
    SourcePtr resume;
  };
  using ListenerPtr = std::shared_ptr<Listener>;

  Loop& loop() override { return m_loop; }
  EndpointRef endpoint(const std::string& path) override;
  void remove(IncomingConnection& connection) override;

  ListenerPtr take_seat(int directory) VESK_REQUIRES(m_seat_mutex);
  void listen(const ListenerPtr& fresh);
  bool is_current(const Listener& listener);
  void accept_some(Listener& listener);
  static void pause_accepting(Listener& listener);
  bool is_welcome(pid_t peer) const;
  void close_connections(const std::string* path, bool notify);

  void look_after_seat();
  void check_seat_after(std::uint64_t usec);
  void check_seat();
  bool mend_seat(ListenerPtr* fresh);
  std::vector<std::string> files_to_keep();
  bool give_way(int directory) VESK_REQUIRES(m_seat_mutex);

  Loop& m_loop;

  std::mutex m_seat_mutex;  // held while this process's files are changed
  Seat m_seat VESK_GUARDED_BY(m_seat_mutex);

  std::mutex m_names_mutex;
  std::map<std::string, Name> m_names VESK_GUARDED_BY(m_names_mutex);  // by object path

  // The loop's thread only.
  std::map<IncomingConnection*, std::shared_ptr<IncomingConnection>> m_connections;
  ListenerPtr m_listener;  // null while nothing is published
  SourcePtr m_seat_timer;
  int m_failed_checks = 0;  // one after the other
};

}  // namespace vesk
