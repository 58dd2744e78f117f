// A client that lives as long as its standard input: each line there is a call ("ask METHOD", as in the table of
// methods), each line of output its result. The library's log goes to standard error. The clock of its library runs
// faster, so that its pauses pass quickly.
#include <android/log.h>

#include <cstdio>
#include <iostream>
#include <sstream>
#include <string>

#include "orvel/OrvelDelegateClient.h"
#include "support/Methods.h"
#include "vesk/vesk.h"

namespace {

using orvel::test::Client;

// One message by hand. Words: a service name, a code, then numbers and, after an apostrophe, texts. Prints the status,
// and of the reply the exception code and the text behind it.
void callByHand(std::istream& words) {
  std::string service;
  unsigned code = 0;
  words >> service >> code;
  const orvel::test::PayloadPtr request(vesk_payload_alloc());
  const orvel::test::BufferPtr reply(vesk_buffer_alloc());
  for (std::string word; words >> word;) {
    if (word[0] == '\'') {
      vesk_write_utf16_cstring(request.get(), word.c_str() + 1);
    } else {
      vesk_write_i32(request.get(), std::stoi(word));
    }
  }
  void* runtime = nullptr;
  vesk_handle handle{};
  vesk_get_runtime(&runtime);
  vesk_binder_servicemanager_get(runtime, service.c_str(), &handle);
  std::cout << "reply " << vesk_call(runtime, &handle, code, request.get(), reply.get());
  std::cout << ' ' << vesk_read_i32(reply.get());
  std::cout << ' ' << orvel::test::read_ascii(reply.get()) << std::endl;
  vesk_service_unbind(runtime, &handle);
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

}  // namespace

int main() {
  __android_log_set_minimum_priority(ANDROID_LOG_INFO);
  __android_log_set_logger([](const __android_logger_data*, const char* text) {
    std::fprintf(stderr, "%s\n", text);
    noteFailure(text);
  });
  Client& client = Client::getClient();
  if (!client.initialize()) return 1;
  std::cout << "ready" << std::endl;
  for (std::string line; std::getline(std::cin, line);) {
    std::istringstream words(line);
    std::string verb;
    words >> verb;
    if (verb == "call") callByHand(words);
    if (verb == "ask") {
      std::string method;
      words >> method;
      t_failure.clear();
      const std::string answer = orvel::test::method(method).call(client, {});
      std::cout << "answer '" << answer << "' " << t_failure << std::endl;
    }
  }
  client.shutdown();
}
