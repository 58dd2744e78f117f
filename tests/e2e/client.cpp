// A client that lives as long as its standard input: each line there is a call, each line of output its result. The
// library's log goes to standard error. The clock of its library runs faster, so that its pauses pass quickly.
#include <android/log.h>

#include <cstdio>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "orvel/OrvelDelegateClient.h"
#include "orvel/TarselMetricEvent.h"
#include "vesk/vesk.h"

namespace {

using orvel::service_apis::OrvelDelegateClient;

// One message by hand. Words: a service name, a code, then numbers and, after an apostrophe, texts with _ for a blank.
// Prints the reply's numbers and texts as `shape` says: "i" a number, "s" a text.
void callByHand(std::istream& words) {
  std::string service;
  std::string shape;
  unsigned code = 0;
  words >> service >> code >> shape;
  vesk_payload* request = vesk_payload_alloc();
  vesk_buffer* reply = vesk_buffer_alloc();
  for (std::string word; words >> word;) {
    if (word[0] == '\'') {
      vesk_write_utf16_cstring(request, word.c_str() + 1);
    } else {
      vesk_write_i32(request, std::stoi(word));
    }
  }
  void* runtime = nullptr;
  vesk_handle handle{};
  vesk_get_runtime(&runtime);
  vesk_binder_servicemanager_get(runtime, service.c_str(), &handle);
  std::cout << "reply " << vesk_call(runtime, &handle, code, request, reply);
  for (const char kind : shape) {
    std::cout << ' ';
    if (kind == 'i') {
      std::cout << vesk_read_i32(reply);
    } else {
      unsigned length = 0;
      const std::uint16_t* units = vesk_read_utf16_string(reply, &length);
      for (unsigned i = 0; i < length; ++i) std::cout << static_cast<char>(units[i]);  // the tests' texts are ASCII
    }
  }
  std::cout << std::endl;
  vesk_service_unbind(runtime, &handle);
  vesk_buffer_free(reply);
  vesk_payload_free(request);
}

// How the library said that the last call of this thread failed: "vesk -110" or "exception -5".
thread_local std::string t_failure;

void noteFailure(const std::string& line) {
  const auto note = [&](const std::string& said, const char* kind) {
    const std::size_t at = line.find(said);
    if (at != std::string::npos) t_failure = kind + std::to_string(std::stoi(line.substr(at + said.size())));
  };
  note("call:VESK call failed with error ", "vesk ");
  note("exceptionOccurred:Received error: ", "exception ");
}

// One call of a service, by the way in which clients use it; what it gives, or for what clients never call, nothing.
std::string askService(OrvelDelegateClient& client, const std::string& service) {
  const auto noMatter = [](auto&&...) {};
  if (service == "delegate") return client.getDeviceName();
  if (service == "power") return client.isScreenOn() ? "on" : "off";
  if (service == "connectivity") return client.registerForNetworkConnectivityChange(noMatter) ? "taken" : "refused";
  if (service == "events")
    return client.sendEvent("N", "n", "", "", "", "", "", false, "", noMatter) ? "taken" : "refused";
  std::vector<std::string> names;
  if (service == "activity" && client.getForegroundPackages(names)) return std::to_string(names.size());
  if (service == "packages" && client.getInstalledPackageNames(names)) return std::to_string(names.size());
  if (service == "metrics") {
    const orvel::service_apis::TarselMetricEvent event;
    client.recordTarselMetricEvent(&event);
  }
  return "";
}

// Everything that a device tells its clients.
bool subscribe(OrvelDelegateClient& client) {
  const auto noMatter = [](auto&&...) {};
  bool good = client.registerForDeviceNameChange(noMatter) && client.registerForDeviceRegistrationChange(noMatter) &&
              client.registerForMaroConnectivityChange(noMatter) && client.registerForScreenStateChange(noMatter) &&
              client.registerForNetworkConnectivityChange(noMatter) && client.registerForTimeSync(noMatter) &&
              client.registerForSecureSettingIntChange("volume_alarm", 0, noMatter);
  for (const char* word : {"ADDED", "REMOVED", "FULLY_REMOVED", "REPLACED", "CHANGED"}) {
    good = client.registerForPackageAction(std::string("android.intent.action.PACKAGE_") + word, {}, {"package"},
                                           noMatter) &&
           good;
  }
  return good;
}

}  // namespace

int main() {
  __android_log_set_minimum_priority(ANDROID_LOG_INFO);
  __android_log_set_logger([](const __android_logger_data*, const char* text) {
    std::fprintf(stderr, "%s\n", text);
    noteFailure(text);
  });
  OrvelDelegateClient& client = OrvelDelegateClient::getClient();
  if (!client.initialize()) return 1;
  std::cout << "ready" << std::endl;
  for (std::string line; std::getline(std::cin, line);) {
    std::istringstream words(line);
    std::string verb;
    words >> verb;
    if (verb == "name") std::cout << "name [" << client.getDeviceName() << "]" << std::endl;
    if (verb == "screen") std::cout << "screen " << client.isScreenOn() << std::endl;
    if (verb == "call") callByHand(words);
    if (verb == "subscribe") std::cout << "subscribed " << subscribe(client) << std::endl;
    if (verb == "ask") {
      std::string service;
      words >> service;
      t_failure.clear();
      const std::string answer = askService(client, service);
      std::cout << "answer '" << answer << "' " << t_failure << std::endl;
    }
  }
  client.shutdown();
}
