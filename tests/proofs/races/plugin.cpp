// Loads the client library as a plug-in does, uses it, and unloads it, twice. Run against a device.
#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>

namespace {

void require(bool holds, const char* promise) {
  if (holds) return;
  std::printf("orvel-races-plugin: broken: %s\n", promise);
  std::exit(1);
}

// A method as the dynamic loader gives it: a function whose first argument is the object.
template <typename Function>
Function* find(void* library, const char* name_and_arguments) {
  const std::string name = std::string("_ZN5orvel12service_apis19OrvelDelegateClient") + name_and_arguments;
  void* const address = dlsym(library, name.c_str());
  require(address != nullptr, name.c_str());
  return reinterpret_cast<Function*>(address);
}

// A client that was not shut down is there for the next load.
void load(const char* file, bool shut_down) {
  static void* s_client = nullptr;
  void* const library = dlopen(file, RTLD_NOW | RTLD_LOCAL);
  require(library != nullptr, "it loads");
  void* const client = find<void*()>(library, "9getClientEv")();
  auto* const device_name = find<std::string(void*)>(library, "13getDeviceNameB5cxx11Ev");
  require(s_client == nullptr || client == s_client, "the client is the same after an unload");
  s_client = client;
  require(find<bool(void*)>(library, "10initializeEv")(client), "it starts");
  require(!device_name(client).empty(), "it answers");
  auto* const on_screen =
      find<bool(void*, std::function<void(bool)>)>(library, "28registerForScreenStateChangeESt8functionIFvbEE");
  require(on_screen(client, [](bool) {}), "it registers");
  if (shut_down) find<void(void*)>(library, "8shutdownEv")(client);
  dlclose(library);
  require(dlopen(file, RTLD_NOW | RTLD_NOLOAD) != nullptr, "the library stays loaded");
  require(device_name(client).empty() == shut_down, "a client that is not shut down goes on after an unload");
}

}  // namespace

int main(int argc, char** argv) {
  require(argc == 2, "its argument is the library");
  load(argv[1], /*shut_down=*/true);
  load(argv[1], /*shut_down=*/false);
}
