// A service in another process, as the contract of libvesk sees one, in two forms. With InprocessVesk it is a scripted
// service (InprocessPeer.cpp), with the host runtime a real process (ProcessPeer.cpp runs vesk_peer.cpp).
#pragma once

#include <memory>
#include <string>

#include "vesk/vesk.h"

namespace orvel::test {

// What the peer does, by transaction code. Numbers are 32-bit, replies too; "kept" is the endpoint that kKeep brought
// last.
enum PeerCode : unsigned {
  kEcho = 1,  // answers with the request
  kFail,      // answers with an error
  kHang,      // (endpoint or none) takes the call and keeps the endpoint; answers late, before any other request
  kDie,       // ends the process at once, while what it has forked lives on
  kKeep,      // (endpoint) keeps one more reference; answers whether it equals the one kept before
  kLetGo,     // gives one reference to the kept endpoint back
  kSend,      // (n) sends kNews 0 to n-1 to the kept endpoint, one-way, until one is refused; answers how many were not
  kAskAll,    // (n) calls the kept endpoint with kNews 0 to n-1, and waits for none of the answers
  kAsk,       // (value) calls the kept endpoint with kNews; answers 0 and its answer, or 1
  kSendToName,  // (value, name) sends kNews to what is published under the name, one-way
  kAskName,     // (value, name) calls it; answers like kAsk
  kAskInHaste,  // like kAsk, with a limit of 1 ms; by a process only
};

// The code of what the peer sends: one number.
constexpr unsigned kNews = 70;

// Runs from construction until kill() or destruction.
class Peer {
 public:
  explicit Peer(std::string name);
  ~Peer();
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  [[nodiscard]] const char* name() const { return m_name.c_str(); }

  // Ends the process; it is gone when this returns.
  void kill();

  // Waits until the peer has taken a kHang.
  void wait_for_hanging_call();
  // Lets the call limit pass for the hanging call.
  void pass_call_limit();

 private:
  struct Form;

  std::string m_name;
  std::unique_ptr<Form> m_form;
};

}  // namespace orvel::test
