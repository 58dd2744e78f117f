// A client that lives as long as its standard input: each line there is a call, each line of output its result. The
// library's log goes to standard error. The clock of its library runs faster, so that its pauses pass quickly.
#include <android/log.h>

#include <cstdio>
#include <iostream>
#include <sstream>
#include <string>

#include "orvel/OrvelDelegateClient.h"
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

}  // namespace

int main() {
  __android_log_set_minimum_priority(ANDROID_LOG_INFO);
  __android_log_set_logger([](const __android_logger_data*, const char* text) { std::fprintf(stderr, "%s\n", text); });
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
  }
  client.shutdown();
}
