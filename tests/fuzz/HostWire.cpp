// The host runtime's messages between processes: any message of the bus, taken for a request or an answer, and names as
// object paths.
#include "vesk/host/Wire.h"

#include <sys/socket.h>

#include <cstdlib>
#include <string>

#include "Fuzz.h"

namespace {

using namespace orvel::fuzz;  // NOLINT(google-build-using-namespace)

sd_bus* bus() {
  static int sockets[2] = {-1, -1};
  static auto& instance = *new vesk::BusPtr([] {
    require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, sockets) == 0, "there are sockets");
    return vesk::start_bus(vesk::UniqueFd(sockets[0]), vesk::HandshakeRole::kConnecting, nullptr, nullptr);
  }());
  return instance.get();
}

// Appends values of types that the input chooses.
void fill(sd_bus_message* message, Choices& choices) {
  for (int values = choices.byte() % 6; values > 0; --values) {
    switch (choices.byte() % 6) {
      case 0:
        vesk::check(sd_bus_message_append(message, "i", choices.number<std::int32_t>()));
        break;
      case 1:
        vesk::check(sd_bus_message_append(message, "u", choices.number<std::uint32_t>()));
        break;
      case 2:
        vesk::check(sd_bus_message_append(message, "t", choices.number<std::uint64_t>()));
        break;
      case 3: {
        const std::string bytes = choices.bytes();
        vesk::check(sd_bus_message_append_array(message, 'y', bytes.data(), bytes.size()));
        break;
      }
      case 4: {
        const std::uint64_t numbers[] = {choices.byte(), choices.byte()};
        vesk::check(sd_bus_message_append_array(message, 't', numbers, sizeof(numbers)));
        break;
      }
      default:
        vesk::check(sd_bus_message_append(message, "s", choices.byte() % 2 == 0 ? "" : "text"));
    }
  }
}

void checkMessage(Choices& choices) {
  const bool twoWay = choices.byte() % 2 == 1;
  const char* const member = choices.byte() % 2 == 0 ? vesk::kMemberCall : vesk::kMemberRelease;
  const vesk::MessagePtr message = vesk::new_call(bus(), "/service/x", member, twoWay);
  fill(message.get(), choices);
  vesk::check(sd_bus_message_seal(message.get(), 1, 0));
  const std::string signature = sd_bus_message_get_signature(message.get(), 1);

  require(vesk::expects_reply(message.get()) == twoWay, "only a two-way call is answered");
  require(vesk::is_call(message.get(), member, nullptr), "a call is known by its member");
  require(vesk::is_call(message.get(), vesk::kMemberCall, "uay") == (member == vesk::kMemberCall && signature == "uay"),
          "a call is known by its member and its signature");
  int status = 77;
  vesk::Parcel parcel;
  vesk::check(sd_bus_message_rewind(message.get(), 1));
  require(vesk::read_answer(message.get(), &status, &parcel) == (signature == "iay"), "an answer has one form");
  require(signature == "iay" || (status == 77 && parcel.bytes().empty()), "nothing is taken from what is no answer");
  vesk::check(sd_bus_message_rewind(message.get(), 1));
  require(vesk::read_bytes(message.get(), &parcel) == (signature.rfind("ay", 0) == 0), "bytes are an array of bytes");
}

void checkName(Choices& choices) {
  const std::string name = asC(choices.bytes());
  const std::string path = vesk::object_path(name.c_str());
  require(sd_bus_object_path_is_valid(path.c_str()) > 0, "every name has a path");
  char* decoded = nullptr;
  require(sd_bus_path_decode(path.c_str(), "/service", &decoded) > 0 && decoded == name, "no two names have one path");
  std::free(decoded);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Choices choices({data, size});
  choices.byte() % 4 == 0 ? checkName(choices) : checkMessage(choices);
  return 0;
}
