// libvesk as a device serves over it, in the process of its client: vesk_service.h on top of the transport that the
// client has.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "VirtualTime.h"
#include "vesk/inprocess/InprocessVesk.h"
#include "vesk/inprocess/Messages.h"
#include "vesk/vesk_service.h"

namespace orvel::testing {

class DeviceTransport;

// One call of the client's: its thread waits in it, the device's thread answers it.
struct ClientCall {
  const vesk::inprocess::Transaction message;
  const std::uint64_t life;  // of the service
  VirtualTime::Wait wait{VirtualTime::Wait::Kind::kCall};
  vesk::inprocess::Reply reply{{}, -EPIPE};
  bool hung_up = false;
  bool is_late = false;  // the client has stopped waiting
  bool is_good = false;  // the answer is a success
};

}  // namespace orvel::testing

// An endpoint of the client's, as one connection knows it.
struct vesk_remote {
  orvel::testing::DeviceTransport& transport;
  const std::uint32_t connection;
  vesk_endpoint* const endpoint;
  int references = 0;
  std::vector<std::weak_ptr<const void>> transfers = {};
  void (*gone)(void* context, vesk_remote* remote) = nullptr;
  void* gone_context = nullptr;
  bool is_gone = false;
};

struct vesk_deferred {
  orvel::testing::DeviceTransport& transport;
  std::shared_ptr<orvel::testing::ClientCall> call;
};

namespace orvel::testing {

// Serves what registers with its runtime() to the client of this process. Everything that is not told by the client
// runs on the device's thread, which is the run-loop thread that vesk_service.h speaks of; so the client's threads wait
// for it in their calls, and it never waits for them.
class DeviceTransport : public vesk::inprocess::Device {
 public:
  explicit DeviceTransport(vesk::inprocess::InprocessVesk& vesk) : m_vesk(vesk) { m_vesk.attach(this); }

  [[nodiscard]] void* runtime() { return static_cast<vesk::inprocess::Device*>(this); }

  // ---- What the device asks of vesk.h and of vesk_service.h ----

  int serve(const char* name, vesk_endpoint* endpoint) override;
  int withdraw(const std::string& name);
  int find(const char* name, vesk_handle* out) override;
  int forget(const vesk_handle& handle) override;
  int watch(const vesk_handle& handle, vesk_death_callback* told) override;
  int call_name(const vesk_handle& handle, unsigned code, const vesk_payload& request);
  int send(const vesk_remote& remote, unsigned code, const vesk_payload& request);
  int ask(const vesk_remote& remote, unsigned code, const vesk_payload& request, vesk_completion completion,
          void* context);
  void release(vesk_remote* remote);
  void answer(ClientCall& call, int error, const vesk_payload* reply);
  void tell_gone(vesk_remote* remote);

  // ---- What became of the messages to the client ----

  // The number of the one that was sent last or, while its sender is told of an answer, of the one that is answered.
  [[nodiscard]] std::uint64_t current_message() const { return m_current_message; }
  // The text of what the client's callback threw at it, as far as that has run.
  [[nodiscard]] std::optional<std::string> thrown_at(std::uint64_t message) const;

  // ---- What the client does ----

  void loop_has_work(bool has) override;
  void step_begins() override;
  void looked_up(const std::string& service, bool found) override;
  void closed(std::uint32_t connection) override;
  void shut_down() override;

 private:
  struct Service {
    vesk_endpoint* endpoint;
    std::uint64_t life;
  };
  struct Found {
    std::string name;
    vesk_death_callback* told = nullptr;
  };
  struct Asked {
    std::uint64_t number;
    std::uint32_t connection;
    vesk_completion completion;
    void* context;
  };

  void send_to(const vesk::inprocess::Target& target, unsigned code, const vesk_payload& request);
  vesk::inprocess::Reply take_call(const vesk::inprocess::Transaction& message, std::uint64_t life);
  void dispatch(const std::shared_ptr<ClientCall>& call);
  vesk_remote* remote_of(const vesk::inprocess::Transaction& message, std::size_t index);
  void take_back(const ClientCall& call);
  void complete(std::uint64_t number, const vesk::inprocess::Reply& answer);
  void connection_closed(std::uint32_t connection);
  void names_withdrawn();

  vesk::inprocess::InprocessVesk& m_vesk;
  VirtualTime& m_time = VirtualTime::instance();
  std::map<std::string, Service> m_services;
  std::uint64_t m_last_life = 0;
  std::map<std::pair<std::uint32_t, vesk_endpoint*>, std::unique_ptr<vesk_remote>> m_remotes;
  std::map<std::uint32_t, Found> m_found;  // by the first word of the handle
  std::uint32_t m_last_found = 0;
  std::list<Asked> m_asked;
  std::uint64_t m_last_message = 0;
  std::uint64_t m_current_message = 0;
  std::map<std::uint64_t, std::string> m_thrown;  // by the number of the message
};

}  // namespace orvel::testing
