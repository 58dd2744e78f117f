// Writes the device's name, now and whenever it changes, from a main loop of GLib's. Ctrl-C ends it.
#include <glib-unix.h>

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

  GMainLoop* const loop = g_main_loop_new(nullptr, FALSE);
  const auto dispatch = [](int, GIOCondition, void* data) -> gboolean {
    static_cast<CallbackQueue*>(data)->dispatch();
    return G_SOURCE_CONTINUE;
  };
  const auto end = [](int, GIOCondition, void* data) -> gboolean {
    g_main_loop_quit(static_cast<GMainLoop*>(data));
    return G_SOURCE_REMOVE;
  };
  g_unix_fd_add(queue.fd(), G_IO_IN, dispatch, &queue);
  g_unix_fd_add(session.fd(), G_IO_IN, end, loop);
  g_main_loop_run(loop);
  g_main_loop_unref(loop);
}
