// The page of the device: who may see it, and what it is given. Everything it changes, it changes by verbs of the
// command line (VerbProcess).
#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <string>

#include "tools/orvel-sim/host/HttpServer.h"
#include "tools/orvel-sim/host/VerbProcess.h"
#include "tools/orvel-sim/host/WebStreams.h"

namespace orvel::sim {

class Supervisor;

// Run-loop thread. To be destroyed before the supervisor stops.
class Web {
 public:
  // Port 0: any that is free. Throws std::exception for what keeps it from being served.
  Web(Supervisor& supervisor, std::uint16_t port);
  // Tells the pages that the device has ended.
  ~Web();
  Web(const Web&) = delete;
  Web& operator=(const Web&) = delete;

  // With the token, without which nothing is shown.
  std::string address() const;

 private:
  std::string origin() const { return "http://127.0.0.1:" + std::to_string(m_server.port()); }
  std::string cookie() const { return "orvel-" + std::to_string(m_server.port()); }  // cookies know no ports
  std::optional<HttpReply> refusal(const HttpRequest& request) const;
  std::optional<HttpReply> refusalOfPost(const HttpRequest& request, const std::string& host) const;
  void take(const std::shared_ptr<HttpExchange>& exchange);
  void runVerb(const std::shared_ptr<HttpExchange>& exchange);

  Supervisor& m_supervisor;
  const std::string m_token;
  std::list<std::unique_ptr<VerbProcess>> m_verbs;
  WebStreams m_streams;
  HttpServer m_server;  // last: its end ends the streams
};

}  // namespace orvel::sim
