// What services tell the endpoints of their clients.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "device/Timer.h"
#include "device/Wire.h"

namespace orvel::sim {

class Host;

// A method of an interface that clients implement.
struct CallbackMethod {
  unsigned code;
  std::string name;
  std::string descriptor;  // of the interface
  bool answered;           // a two-way call, or one without an answer
  void (*write)(vesk_payload* payload, const Json& arguments);
};

// One call of such a method, for as many receivers as there are.
struct Notification {
  Notification(std::string fromService, const CallbackMethod& calledMethod, Json callArguments);

  std::string service;
  const CallbackMethod& method;
  Json arguments;
  PayloadPtr payload;
  std::size_t size = 0;  // of the payload
};

// Takes notifications to clients, never waits for one, and records each delivery in the traffic. What goes to one
// process arrives in the order sent. It outlives the services, since what they sent may be answered after they died.
// Run-loop thread.
//
// A client that reads slowly gets its notifications as it reads. One that takes or answers none for kPatience is told
// of on standard error, once until it has caught up, which is told too, with how many were lost: what waited that long
// is dropped. Its endpoints stay registered.
class Deliveries {
 public:
  explicit Deliveries(Host& host) : m_host(host) {}

  void send(const std::shared_ptr<const Notification>& notification, const std::vector<RemotePtr>& receivers);

  // Drops what is on its way; before vesk_shutdown.
  void stop() { m_clients.clear(); }

 private:
  struct Delivery {
    std::shared_ptr<const Notification> notification;
    RemotePtr receiver;
    Clock::time_point start;
    Json moment;  // of its start, by the host
  };
  struct Unanswered {
    Deliveries* deliveries;
    pid_t client;
    Delivery delivery;
    std::unique_ptr<Timer> patience;  // null once it has run out and the delivery counts as failed
    std::list<Unanswered>::iterator self;
  };
  struct Client {
    std::deque<Delivery> waiting;
    std::size_t waitingBytes = 0;
    std::list<Unanswered> unanswered;
    std::unique_ptr<Timer> pause;  // set while something waits
    bool reported = false;         // that it takes nothing
    bool takes = false;            // what was sent last
    std::uint64_t lost = 0;        // since it was reported
  };

  void transmit(pid_t pid);
  int call(pid_t pid, const Delivery& delivery);
  void answered(std::list<Unanswered>::iterator call, int error);
  void giveUp(std::list<Unanswered>::iterator call);
  void finish(Client& client, const Delivery& delivery, int error);
  static void complain(pid_t pid, Client& client, const Notification& notification, int error);
  void forgetIfIdle(pid_t pid);

  Host& m_host;
  std::map<pid_t, Client> m_clients;  // those that something is on its way to, or that take nothing
};

}  // namespace orvel::sim
