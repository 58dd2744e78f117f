#include "device/Runner.h"

#include <unistd.h>

#include <system_error>
#include <utility>

#include "device/Traffic.h"

namespace orvel::sim {

Done gather(Done done) {
  struct Outcome {
    Done done;
    std::string errors;
    ~Outcome() { done(errors); }
  };
  const auto outcome = std::make_shared<Outcome>();
  outcome->done = std::move(done);
  return [outcome](const std::string& error) {
    if (!error.empty()) outcome->errors += (outcome->errors.empty() ? "" : "; ") + error;
  };
}

Json failure(const std::string& what) {
  return {{"error", what}};
}

void Runner::start(Done done) {
  ++m_lives;
  m_since = millisecondsSince1970();
  launch(std::move(done));
  if (pid() != 0) tell(true);
}

void Runner::kill(Done done) {
  m_since = millisecondsSince1970();
  tell(false);  // while it has a process
  end(std::move(done));
}

void Runner::tell(bool alive) {
  if (m_told) m_told(alive);
}

pid_t InProcessRunner::pid() const {
  return m_service ? getpid() : 0;
}

void InProcessRunner::launch(Done done) {
  try {
    auto service = type().make(type(), m_host);
    service->publish();
    m_service = std::move(service);
  } catch (const std::system_error& error) {
    return done(error.what());
  }
  done({});
}

void InProcessRunner::end(Done done) {
  m_service.reset();
  done({});
}

void InProcessRunner::update(const Update& update, Done done) {
  if (m_service) m_service->changed(update.differences);
  done({});
}

void InProcessRunner::event(const Json& event, Answer answer) {
  answer(m_service->event(event));
}

void InProcessRunner::clients(Answer answer) {
  answer(m_service->clients());
}

}  // namespace orvel::sim
