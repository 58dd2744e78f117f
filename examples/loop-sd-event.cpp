// Writes the device's name, now and whenever it changes, from an event loop of systemd's. Ctrl-C ends it.
#include <systemd/sd-event.h>

#include <iostream>
#include <string>
#include <thread>

#include "orvel/CallbackQueue.h"
#include "orvel/Session.h"

using orvel::service_apis::CallbackQueue;

int main() {
  CallbackQueue queue;
  orvel::Session session;
  if (!session) return session.wasEnded() ? 0 : 1;
  session->setExecutor(queue.executor());
  const auto tell = [loop = std::this_thread::get_id()](const std::string& name) {
    std::cout << name << (std::this_thread::get_id() == loop ? "" : ", on another thread") << std::endl;
  };
  const auto names = session->subscribeDeviceNameChange(tell);
  tell(session->getDeviceName());

  sd_event* loop = nullptr;
  if (sd_event_new(&loop) < 0) return 1;
  const auto dispatch = [](sd_event_source*, int, std::uint32_t, void* data) {
    static_cast<CallbackQueue*>(data)->dispatch();
    return 0;
  };
  const auto end = [](sd_event_source* source, int, std::uint32_t, void*) {
    return sd_event_exit(sd_event_source_get_event(source), 0);
  };
  sd_event_add_io(loop, nullptr, queue.fd(), EPOLLIN, dispatch, &queue);
  sd_event_add_io(loop, nullptr, session.fd(), EPOLLIN, end, nullptr);
  sd_event_loop(loop);
  sd_event_unref(loop);
}
