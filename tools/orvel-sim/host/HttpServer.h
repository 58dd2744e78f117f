// HTTP on 127.0.0.1, within the run loop: no thread. It knows requests and answers, and nothing of what they are about.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "device/Timer.h"
#include "tools/orvel-sim/host/EventSource.h"
#include "tools/orvel-sim/host/MicroHttpd.h"

namespace orvel::sim {

struct HttpRequest {
  using Values = std::multimap<std::string, std::string>;

  std::string method;
  std::string path;
  Values parameters;  // behind the question mark
  Values headers;     // their names in small letters
  Values cookies;
  std::string body;

  // The only value of that name; nothing where there is none, or more than one.
  static std::optional<std::string> only(const Values& values, const std::string& name);
};

struct HttpReply {
  unsigned status = MHD_HTTP_OK;
  std::string type = "text/plain; charset=utf-8";
  std::string body;
  std::vector<std::pair<std::string, std::string>> headers = {};
};

// An answer that never ends by itself.
class HttpStream {
 public:
  HttpStream() = default;
  virtual ~HttpStream() = default;  // the client has gone, or the server ends
  HttpStream(const HttpStream&) = delete;
  HttpStream& operator=(const HttpStream&) = delete;

  // What is to be sent next, asked for when the client has taken what was sent before; empty: nothing until the
  // exchange is woken. Nothing at all: this is the end.
  virtual std::optional<std::string> next() = 0;
};

class HttpServer;

// One request, and what becomes of it.
class HttpExchange {
 public:
  HttpExchange(HttpServer& server, MHD_Connection* connection) : m_server(server), m_connection(connection) {}
  HttpExchange(const HttpExchange&) = delete;
  HttpExchange& operator=(const HttpExchange&) = delete;

  const HttpRequest& request() const { return m_request; }

  // One of the two, once; at any time while the exchange lives.
  void reply(HttpReply reply);
  void stream(std::unique_ptr<HttpStream> stream);

  // The stream has something.
  void wake();

 private:
  friend class HttpServer;

  MHD_Result queueReply();
  MHD_Result queueStream();
  ssize_t send(char* buffer, std::size_t room);
  void suspend();  // never twice: the library would lose the connection

  HttpServer& m_server;
  MHD_Connection* m_connection;
  HttpRequest m_request;
  bool m_isTaken = false;  // by the handler
  bool m_isSuspended = false;
  bool m_isTooLong = false;
  std::optional<HttpReply> m_reply;
  std::unique_ptr<HttpStream> m_stream;
  std::string m_sending;
  std::size_t m_sent = 0;
};

// Run-loop thread.
class HttpServer {
 public:
  struct Handler {
    // Called with the head of a request; what it gives is the answer, and the body is not read.
    std::function<std::optional<HttpReply>(const HttpRequest&)> refusal;
    // Called with the whole request. The exchange ends with the client, or with the server.
    std::function<void(const std::shared_ptr<HttpExchange>&)> take;
    // Every answer has them.
    std::vector<std::pair<std::string, std::string>> headers;
  };

  // Port 0: any that is free. Throws std::system_error for a port that is taken.
  HttpServer(void* runtime, std::uint16_t port, Handler handler);
  // What is ready to be sent is sent first, as far as clients take it at once.
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  std::uint16_t port() const { return m_port; }

 private:
  friend class HttpExchange;
  struct Stop {
    void operator()(MHD_Daemon* daemon) const { microHttpd().stop_daemon(daemon); }
  };

  // A connection that has no request yet.
  struct Waiting {
    int socket = -1;
    Clock::time_point since;
  };

  void startDaemon(int listener);
  void awaitRequest(MHD_Connection* connection);
  void endLate();
  void watch();
  void run();
  void runSoon();
  MHD_Result begin(MHD_Connection* connection, const char* path, const char* method, void** context);
  MHD_Result proceed(HttpExchange& exchange, const char* data, std::size_t* size);
  MHD_Result queue(MHD_Connection* connection, unsigned status, MHD_Response* response, const HttpReply* reply);

  void* m_runtime;
  Handler m_handler;
  std::uint16_t m_port = 0;
  std::map<const HttpExchange*, std::shared_ptr<HttpExchange>> m_exchanges;
  std::map<const MHD_Connection*, Waiting> m_waiting;
  Clock::time_point m_looked;  // at them
  std::unique_ptr<MHD_Daemon, Stop> m_daemon;
  SourcePtr m_source;
  bool m_wasFull = false;          // of connections
  bool m_isResumed = false;        // a connection, since the library ran
  std::unique_ptr<Timer> m_timer;  // for what the library does without news from the network
};

}  // namespace orvel::sim
