// What crosses the runtime inside a process.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "vesk/inprocess/Bytes.h"
#include "vesk/vesk.h"

namespace vesk::inprocess {

constexpr unsigned kAnyCode = ~0U;

// One call as it crossed the wire. `endpoints` are those that travelled in it; the service holds them when `result` is
// 0.
struct Transaction {
  std::string service;
  unsigned code = 0;
  Bytes request;
  std::vector<vesk_endpoint*> endpoints;
  int result = 0;
  std::vector<std::weak_ptr<const void>> transfers;  // what each endpoint travelled as: no later one has the same owner
  std::uint32_t connection = 0;                      // over which it went; no later one has its number
};

// What a service, or an endpoint of the client, answers.
struct Reply {
  Bytes bytes;
  int result = 0;
  std::optional<std::string> thrown = {};  // the text of what an endpoint threw
};

// Answers the calls of one service (buffer_of(call.request) reads one), on the calling thread and with no lock held. It
// may use the runtime: kill_service() of itself makes the call in progress fail.
using Handler = std::function<Reply(const Transaction& call)>;

// The receiver of a message from a service: an endpoint that the client sent, or a name under which it published one.
struct Target {
  Target(vesk_endpoint* sent) : endpoint(sent) {}                    // NOLINT(google-explicit-constructor)
  Target(std::string published) : name(std::move(published)) {}      // NOLINT(google-explicit-constructor)
  Target(const char* published) : Target(std::string(published)) {}  // NOLINT(google-explicit-constructor)
  explicit Target(std::weak_ptr<const void> sent) : transfer(std::move(sent)), by_transfer(true) {}

  vesk_endpoint* endpoint = nullptr;
  std::weak_ptr<const void> transfer;
  bool by_transfer = false;
  std::string name;
};

}  // namespace vesk::inprocess
