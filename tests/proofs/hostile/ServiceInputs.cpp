// What services do to their clients that breaks the rules. Each plays the delegate service for one life of a client, which
// asks for a name, registers two receivers, and asks another service whether the screen is on.
#include <sys/socket.h>

#include <chrono>
#include <thread>

#include "Inputs.h"

namespace orvel::hostile {
namespace {

using namespace std::string_literals;

constexpr std::uint32_t kDeliver = 1;
constexpr std::size_t kMostBytes = std::size_t{8} << 20;

std::string good_result() {
  return Words().i32(0).text("Rogue").bytes();
}

// What a good service says until the first answer is out.
std::string conversation(std::uint32_t serial) {
  return kAnswer + answer_of(serial, 0, good_result()).bytes();
}

void add_conversations(std::vector<ServiceInput>& inputs) {
  constexpr std::uint32_t kFirstCall = 2;  // the first message of a client has no answer
  const std::size_t size = conversation(kFirstCall).size();
  // One that hangs up before the handshake is over refuses the bind, which the client then tries again for minutes.
  for (std::size_t n = kAnswer.size(); n <= size; ++n) {
    inputs.push_back({"service/conversation/cut-at-" + std::to_string(n), [n](Visit& visit) {
                        visit.line.send(kAnswer.substr(0, n));
                        if (n < kAnswer.size()) return;
                        if (const auto call = visit.next_call()) {
                          visit.line.send(
                              answer_of(call->serial, 0, good_result()).bytes().substr(0, n - kAnswer.size()));
                        }
                      }});
  }
  for (const std::size_t n :
       {std::size_t{0}, std::size_t{3}, kAnswer.size() - 1, kAnswer.size(), kAnswer.size() + 20}) {
    inputs.push_back({"service/conversation/silent-after-" + std::to_string(n), [n](Visit& visit) {
                        visit.line.send(kAnswer.substr(0, n));
                        if (n >= kAnswer.size()) {
                          if (const auto call = visit.next_call()) {
                            visit.line.send(
                                answer_of(call->serial, 0, good_result()).bytes().substr(0, n - kAnswer.size()));
                          }
                        }
                        visit.serve_nothing();
                      }});
  }
  inputs.push_back({"service/conversation/a-byte-at-a-time", [](Visit& visit) {
                      for (const char byte : kAnswer) visit.line.send({&byte, 1});
                      while (const auto call = visit.next_call()) {
                        for (const char byte : answer_of(call->serial, 0, good_result()).bytes())
                          visit.line.send({&byte, 1});
                      }
                    }});
  for (const auto& [what, text] : nonsense()) {
    inputs.push_back({std::string("service/handshake/") + what, [text = text](Visit& visit) {
                        visit.line.send(text);
                        visit.line.send("\r\n");
                        visit.line.is_dropped(100);
                      }});
  }
  const std::pair<const char*, std::string> answers[] = {
      {"rejected", "REJECTED EXTERNAL\r\n"},
      {"ok-without-data", "OK 0123456789abcdef0123456789abcdef\r\nAGREE_UNIX_FD\r\n"},
      {"a-short-identity", "DATA\r\nOK 0123\r\nAGREE_UNIX_FD\r\n"},
      {"an-identity-that-is-none", "DATA\r\nOK zzzzzzzzzzzzzzzzzzzzzzzzzzzzzzzz\r\nAGREE_UNIX_FD\r\n"},
      {"no-descriptors", "DATA\r\nOK 0123456789abcdef0123456789abcdef\r\nERROR\r\n"},
      {"twice", kAnswer + kAnswer},
      {"a-message-at-once", kAnswer + answer_of(2, 0, "").bytes()},
      {"a-call-at-once", kAnswer + call_of(kDelegate, 1, 33, "").bytes()},
  };
  for (const auto& [what, text] : answers) {
    inputs.push_back({std::string("service/handshake/") + what, [text = text](Visit& visit) {
                        visit.line.send(text);
                        visit.serve_well();
                      }});
  }
}

void add_answers(std::vector<ServiceInput>& inputs) {
  const auto add = [&](const std::string& what, const std::function<std::string(const Received&)>& make) {
    inputs.push_back({"service/answer/" + what, [make](Visit& visit) {
                        visit.line.send(kAnswer);
                        while (const auto call = visit.next_call()) {
                          if (!visit.line.send(make(*call))) return;
                        }
                      }});
  };
  using Change = std::function<void(Message&)>;
  const auto add_changed = [&](const std::string& what, const Change& change) {
    add(what, [change](const Received& call) {
      Message answer = answer_of(call.serial, 0, good_result());
      change(answer);
      return answer.bytes() + std::string(64, '\0');
    });
  };
  add("good", [](const Received& call) { return answer_of(call.serial, 0, good_result()).bytes(); });
  add("twice", [](const Received& call) {
    return answer_of(call.serial, 0, good_result()).bytes() + answer_of(call.serial, 0, good_result()).bytes();
  });
  add("of-another-call", [](const Received& call) { return answer_of(call.serial + 1, 0, good_result()).bytes(); });
  add("of-another-call-first", [](const Received& call) {
    return answer_of(call.serial + 1, 0, good_result()).bytes() + answer_of(call.serial, 0, good_result()).bytes();
  });
  add("to-the-opening", [](const Received&) { return answer_of(1, 0, good_result()).bytes(); });
  add("with-the-next-ones-too", [](const Received& call) {
    std::string answers;
    for (std::uint32_t n = 0; n < 50; ++n) answers += answer_of(call.serial + n, 0, good_result()).bytes();
    return answers;
  });
  for (const std::int32_t status : {1, -1, -110, INT32_MAX, INT32_MIN}) {
    add("status-" + std::to_string(status),
        [status](const Received& call) { return answer_of(call.serial, status, good_result()).bytes(); });
  }
  for (std::size_t size = 0; size < good_result().size(); size += 3) {
    add("result-cut-to-" + std::to_string(size),
        [size](const Received& call) { return answer_of(call.serial, 0, good_result().substr(0, size)).bytes(); });
  }
  const std::pair<const char*, Words> results[] = {
      {"endless-text", Words().i32(0).i32(INT32_MAX)},
      {"negative-text", Words().i32(0).i32(-2).i32(7)},
      {"text-without-an-end", Words().i32(0).i32(1).i32(-1)},
      {"exception", Words().i32(-3).text("no").i32(0)},
      {"exception-with-a-trace", Words().i32(-3).text("no").i32(1).text("at line 7")},
      {"exception-cut", Words().i32(-3)},
      {"exception-with-an-endless-message", Words().i32(-3).i32(INT32_MAX)},
      {"exception-with-a-lost-trace", Words().i32(-3).text("no").i32(INT32_MAX)},
      {"format-marks", Words().i32(-3).text("%s%n%s%n%d").i32(1).text("%n%n%s")},
      {"a-reference", Words().i32(0).endpoint(0)},
  };
  for (const auto& [what, words] : results) {
    add("result-"s + what,
        [bytes = words.bytes()](const Received& call) { return answer_of(call.serial, 0, bytes).bytes(); });
  }
  for (const std::size_t more : {std::size_t{0}, std::size_t{1}, kMostBytes}) {
    add("of-8-mib-and-" + std::to_string(more), [more](const Received& call) {
      return answer_of(call.serial, 0, std::string(kMostBytes + more, '\0')).bytes();
    });
  }
  for (const std::uint32_t length : {0U, 4U, 127U << 20U, 128U << 20U, 0x80000000U, UINT32_MAX}) {
    add_changed("body-of-" + std::to_string(length), [length](Message& answer) { answer.body_length = length; });
    add_changed("fields-of-" + std::to_string(length), [length](Message& answer) { answer.fields_length = length; });
    add_changed("array-of-" + std::to_string(length),
                [length](Message& answer) { answer.body = Body().u32(0).u32(length).bytes(); });
  }
  for (const char endian : {'B', 'L', '\0'}) {
    add_changed("endianness-" + std::to_string(endian), [endian](Message& answer) { answer.endian = endian; });
  }
  for (const int type : {0, 1, 3, 4, 5, 255}) {
    add_changed("type-" + std::to_string(type),
                [type](Message& answer) { answer.type = static_cast<std::uint8_t>(type); });
  }
  for (const int version : {0, 2, 255}) {
    add_changed("version-" + std::to_string(version),
                [version](Message& answer) { answer.version = static_cast<std::uint8_t>(version); });
  }
  for (const char* signature : {"", "i", "ay", "ayi", "iayi", "s", "v", "iaay", "uay", "xay", "((", "\xFF"}) {
    add_changed("signature-" + (*signature == '\xFF' ? "ff"s : signature),
                [signature](Message& answer) { answer.signature = signature; });
  }
  add_changed("serial-0", [](Message& answer) { answer.serial = 0; });
  add_changed("to-serial-0", [](Message& answer) { answer.reply_serial = 0; });
  add_changed("to-nothing", [](Message& answer) { answer.reply_serial.reset(); });
  add_changed("descriptors-that-do-not-come", [](Message& answer) { answer.descriptors = 1; });
  add_changed("with-a-path", [](Message& answer) { answer.path = "/a"; });
  add_changed("with-a-bad-path", [](Message& answer) { answer.path = "a b"; });
  add("error-message", [](const Received& call) {
    Message error = answer_of(call.serial, 0, "");
    error.type = kError;
    error.extra_fields = "\4\1s\0\3\0\0\0a.b\0"s;
    return error.bytes();
  });
  add("nonsense", [](const Received&) { return std::string(256, '\xFF'); });
  add("a-call", [](const Received&) { return call_of(kDelegate, 9, 33, "").bytes(); });
  inputs.push_back({"service/answer/with-descriptors", [](Visit& visit) {
                      visit.line.send(kAnswer);
                      while (const auto call = visit.next_call()) {
                        Message answer = answer_of(call->serial, 0, good_result());
                        answer.descriptors = 100;
                        visit.line.send(answer.bytes(), std::vector<int>(100, STDIN_FILENO));
                      }
                    }});
  inputs.push_back({"service/answer/descriptors-unannounced",
                    [](Visit& visit) {
                      visit.line.send(kAnswer);
                      while (const auto call = visit.next_call()) {
                        visit.line.send(answer_of(call->serial, 0, good_result()).bytes(),
                                        std::vector<int>(100, STDIN_FILENO));
                      }
                      // sd-bus 252 passes over a message that is not what it says, and forgets what came with it. The client's
                      // four calls run into their limit one after the other.
                    },
                    400});
  // Every byte comes in time, and the whole does not.
  inputs.push_back({"service/answer/127-mib-a-byte-at-a-time", [](Visit& visit) {
                      visit.line.send(kAnswer);
                      if (const auto call = visit.next_call()) {
                        Message answer = answer_of(call->serial, 0, good_result());
                        answer.body_length = 127U << 20U;
                        visit.line.send(answer.bytes());
                        while (visit.line.send("x")) {
                        }
                      }
                    }});
  inputs.push_back({"service/answer/8-mib-in-small-pieces-and-slowly", [](Visit& visit) {
                      visit.line.send(kAnswer);
                      if (const auto call = visit.next_call()) {
                        const std::string bytes = answer_of(call->serial, 0, std::string(kMostBytes, '\0')).bytes();
                        for (std::size_t at = 0; visit.line.send(bytes.substr(at, 16)) && at < bytes.size(); at += 16) {
                          std::this_thread::sleep_for(std::chrono::milliseconds(5));
                        }
                      }
                    }});
  inputs.push_back({"service/answer/never-reads", [](Visit& visit) {
                      visit.line.send(kAnswer);
                      std::this_thread::sleep_for(std::chrono::milliseconds(1200));
                    }});
}

// ---- Callbacks ----

Message callback_of(std::uint32_t serial, std::uint64_t endpoint, std::uint32_t code, std::string_view bytes,
                    bool answered) {
  Message call;
  call.serial = serial;
  call.path = "/";
  call.member = "Call";
  call.signature = "tuay";
  call.flags = answered ? 0 : kNoReplyExpected;
  call.body = Body().u64(endpoint).u32(code).array(bytes).bytes();
  return call;
}

Message release_of(std::uint64_t endpoint, std::uint32_t count) {
  Message release;
  release.serial = 50;
  release.path = "/";
  release.member = "Release";
  release.signature = "tu";
  release.flags = kNoReplyExpected;
  release.body = Body().u64(endpoint).u32(count).bytes();
  return release;
}

std::string setting_news() {
  return Words()
      .i32(0)
      .i32(-1)
      .i32(0x53595354)
      .text("com.quarlo.orveldelegate.ISettingsReceiver")
      .text("volume_alarm")
      .text("7")
      .bytes();
}

void add_callbacks(std::vector<ServiceInput>& inputs) {
  const auto add = [&](const std::string& what, const std::function<void(Visit&, Line&)>& run) {
    inputs.push_back({"service/callback/" + what, [run](Visit& visit) {
                        visit.line.send(kAnswer);
                        if (auto channel = visit.wait_for_channel()) {
                          run(visit, *channel);
                          visit.serve_well();
                        }
                      }});
  };
  const auto add_bytes = [&](const std::string& what, const std::string& bytes) {
    add(what, [bytes](Visit&, Line& channel) { channel.send(bytes); });
  };
  add("good", [](Visit&, Line& channel) {
    channel.send(callback_of(1, 1, kDeliver, setting_news(), true).bytes());
    const auto answer = channel.receive(5000);
    if (!answer || answer->type != kReturn) throw Broken("a good callback was not answered");
  });
  for (const std::uint64_t number : {std::uint64_t{0}, std::uint64_t{99}, UINT64_MAX}) {
    add_bytes("unknown-endpoint-" + std::to_string(number),
              callback_of(1, number, kDeliver, setting_news(), true).bytes());
    add_bytes("gives-back-unknown-" + std::to_string(number), release_of(number, 1).bytes());
  }
  for (const std::uint32_t count : {0U, 2U, UINT32_MAX})
    add_bytes("gives-back-" + std::to_string(count), release_of(1, count).bytes());
  add_bytes("gives-back", release_of(1, 1).bytes());
  add_bytes("gives-back-twice", release_of(1, 1).bytes() + release_of(1, 1).bytes());
  add_bytes("calls-what-it-gave-back",
            release_of(1, 1).bytes() + callback_of(1, 1, kDeliver, setting_news(), true).bytes());
  for (const std::uint32_t code : {0U, 2U, UINT32_MAX})
    add_bytes("code-" + std::to_string(code), callback_of(1, 1, code, setting_news(), true).bytes());
  add_bytes("one-way-where-it-is-answered", callback_of(1, 1, kDeliver, setting_news(), false).bytes());
  for (std::size_t size = 0; size < setting_news().size(); size += 8) {
    add_bytes("news-cut-to-" + std::to_string(size),
              callback_of(1, 1, kDeliver, setting_news().substr(0, size), true).bytes());
  }
  for (const std::size_t more : {std::size_t{0}, std::size_t{1}}) {
    add_bytes("of-8-mib-and-" + std::to_string(more),
              callback_of(1, 1, kDeliver, std::string(kMostBytes + more, '\0'), true).bytes());
  }
  const std::pair<const char*, void (*)(Message&)> changes[] = {
      {"another-member", [](Message& call) { call.member = "Open"; }},
      {"another-interface", [](Message& call) { call.interface = "org.freedesktop.DBus.Peer"; }},
      {"another-path", [](Message& call) { call.path = "/else"; }},
      {"another-signature", [](Message& call) { call.signature = "tus"; }},
      {"no-signature", [](Message& call) { call.signature.reset(); }},
      {"a-signal", [](Message& call) { call.type = kSignal; }},
      {"an-endless-array", [](Message& call) { call.body = Body().u64(1).u32(1).u32(UINT32_MAX).bytes(); }},
      {"an-endless-body", [](Message& call) { call.body_length = 127U << 20U; }},
      {"descriptors-that-do-not-come", [](Message& call) { call.descriptors = 1; }},
  };
  for (const auto& [what, change] : changes) {
    Message call = callback_of(1, 1, kDeliver, setting_news(), true);
    change(call);
    add_bytes(what, call.bytes());
  }
  add_bytes("an-answer-to-nothing", answer_of(7, 0, "").bytes());
  add_bytes("nonsense", std::string(256, '\xFF'));
  add_bytes("half-a-callback", callback_of(1, 1, kDeliver, setting_news(), true).bytes().substr(0, 40));
  add("with-descriptors", [](Visit&, Line& channel) {
    Message call = callback_of(1, 1, kDeliver, setting_news(), true);
    call.descriptors = 50;
    channel.send(call.bytes(), std::vector<int>(50, STDIN_FILENO));
  });
  add("channel-closed", [](Visit&, Line& channel) { channel.close(); });
  add("many-and-no-answer-read", [](Visit&, Line& channel) {
    for (std::uint32_t n = 0; n < 20'000; ++n) {
      const std::string call = callback_of(n + 1, 1, kDeliver, setting_news(), true).bytes();
      if (::send(channel.descriptor(), call.data(), call.size(), MSG_NOSIGNAL | MSG_DONTWAIT) < 0 && errno == EPIPE)
        return;
    }
  });
  add("ten-thousand-at-once", [](Visit&, Line& channel) {
    std::string calls;
    for (std::uint32_t n = 0; n < 10'000; ++n) calls += callback_of(n + 1, 99, kDeliver, "", false).bytes();
    channel.send(calls);
  });
  // Its hang-up must be noticed whatever it still says.
  add("endless-after-the-hang-up", [](Visit& visit, Line& channel) {
    std::string calls;
    for (std::uint32_t n = 0; n < 100; ++n) calls += callback_of(n + 1, 1, kDeliver, setting_news(), false).bytes();
    ::shutdown(visit.line.descriptor(), SHUT_RDWR);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    while (channel.send(calls)) {
      if (std::chrono::steady_clock::now() > end)
        throw Broken("callbacks are taken without end after the service hung up");
    }
  });
  inputs.push_back({"service/callback/no-greeting-on-the-channel", [](Visit& visit) {
                      visit.line.send(kAnswer);
                      visit.serve_well();
                    }});
  for (const auto& [what, text] : nonsense()) {
    inputs.push_back({std::string("service/callback/greets-with-") + what, [text = text](Visit& visit) {
                        visit.line.send(kAnswer);
                        while (const auto call = visit.next_call()) {
                          for (const vesk::UniqueFd& channel : visit.line.received_descriptors()) {
                            ::send(channel.get(), text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
                          }
                          visit.answer(*call, 0, good_result());
                        }
                      }});
  }
  inputs.push_back({"service/callback/descriptor-closed-before-the-answer", [](Visit& visit) {
                      visit.line.send(kAnswer);
                      while (const auto call = visit.next_call()) {
                        visit.line.received_descriptors().clear();
                        visit.answer(*call, 0, good_result());
                      }
                    }});
}

void add_mutations(std::vector<ServiceInput>& inputs, int count) {
  for (int n = 0; n < count; ++n) {
    inputs.push_back({"service/mutated/" + std::to_string(n), [n](Visit& visit) {
                        if (n % 3 == 0) {
                          visit.line.send(mutated(kAnswer, visit.random));
                          visit.line.is_dropped(100);  // a hang-up before the bind has stopped waiting would refuse it
                          return;
                        }
                        visit.line.send(kAnswer);
                        if (n % 3 == 1) {
                          if (const auto call = visit.next_call()) {
                            visit.line.send(mutated(answer_of(call->serial, 0, good_result()).bytes(), visit.random));
                            visit.line.is_dropped(20);
                          }
                        } else if (auto channel = visit.wait_for_channel()) {
                          channel->send(
                              mutated(callback_of(1, 1, kDeliver, setting_news(), true).bytes(), visit.random));
                          visit.serve_well();
                        }
                      }});
  }
}

}  // namespace

std::vector<ServiceInput> service_inputs(int count) {
  std::vector<ServiceInput> inputs;
  add_conversations(inputs);
  add_answers(inputs);
  add_callbacks(inputs);
  add_mutations(inputs, count);
  return inputs;
}

}  // namespace orvel::hostile
