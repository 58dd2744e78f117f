#include "device/Runner.h"

#include <unistd.h>

#include <system_error>
#include <utility>

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

pid_t InProcessRunner::pid() const {
  return m_service ? getpid() : 0;
}

void InProcessRunner::start(Done done) {
  try {
    auto service = type().make(type(), m_host);
    service->publish();
    m_service = std::move(service);
  } catch (const std::system_error& error) {
    return done(error.what());
  }
  done({});
}

void InProcessRunner::kill(Done done) {
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

}  // namespace orvel::sim
