// Loads the client library as a plug-in does, uses it, and unloads it, twice. Run against a device.
#include <dlfcn.h>

#include <cstdio>
#include <functional>
#include <string>

namespace {

// The client and its methods as the dynamic loader gives them. A method is a function whose first argument is the object.
struct Loaded {
  void* library = nullptr;

  template <typename Function>
  Function* find(const char* symbol) const {
    void* const address = dlsym(library, symbol);
    if (address == nullptr) std::printf("broken: no %s\n", symbol);
    return reinterpret_cast<Function*>(address);
  }
};

#define CLIENT_METHOD(name_and_arguments) "_ZN5orvel12service_apis19OrvelDelegateClient" name_and_arguments

int g_broken = 0;

void require(bool condition, const char* promise) {
  if (condition) return;
  ++g_broken;
  std::printf("broken: %s\n", promise);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: orvel-races-plugin LIBRARY\n");
    return 2;
  }
  void* first_client = nullptr;
  for (int round = 1; round <= 2; ++round) {
    const Loaded loaded{dlopen(argv[1], RTLD_NOW | RTLD_LOCAL)};
    if (loaded.library == nullptr) {
      std::printf("broken: %s\n", dlerror());
      return 1;
    }
    auto* const get_client = loaded.find<void*()>(CLIENT_METHOD("9getClientEv"));
    auto* const initialize = loaded.find<bool(void*)>(CLIENT_METHOD("10initializeEv"));
    auto* const shut_down = loaded.find<void(void*)>(CLIENT_METHOD("8shutdownEv"));
    auto* const device_name = loaded.find<std::string(void*)>(CLIENT_METHOD("13getDeviceNameB5cxx11Ev"));
    auto* const on_screen = loaded.find<bool(void*, std::function<void(bool)>)>(
        CLIENT_METHOD("28registerForScreenStateChangeESt8functionIFvbEE"));
    if (!get_client || !initialize || !shut_down || !device_name || !on_screen) return 1;

    void* const client = get_client();
    require(first_client == nullptr || client == first_client, "the client is the same after an unload");
    first_client = client;
    require(initialize(client), "it starts");
    require(!device_name(client).empty(), "it answers");
    require(on_screen(client, [](bool) {}), "it registers");
    if (round == 1) shut_down(client);
    dlclose(loaded.library);
    require(dlopen(argv[1], RTLD_NOW | RTLD_NOLOAD) != nullptr, "the library stays loaded");
    if (round == 2) require(!device_name(client).empty(), "a client that nobody stopped goes on after an unload");
  }
  std::printf("orvel-races-plugin: 2 loads; %d promises broken\n", g_broken);
  return g_broken == 0 ? 0 : 1;
}
