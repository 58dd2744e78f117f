// orvelctl am: sends intents, and shows what runs.
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <variant>

#include "Commands.h"
#include "Reason.h"
#include "orvel/OrvelIntent.h"

namespace orvelctl {
namespace {

using orvel::service_apis::ComponentName;
using orvel::service_apis::OrvelIntent;

constexpr char kIntentFooter[] = R"(
TARGET is a URI (it has a colon: the data), a COMPONENT (it has a slash) or a PACKAGE. The last two bring the action
MAIN and the category LAUNCHER along where none is given. A COMPONENT is PACKAGE/CLASS; a class that begins with a dot
is one of that package.
A long integer among the extras is sent only when there is a string or another integer too: the client counts those.

The service takes an intent and does not say what becomes of it.)";

// The service's code for an argument that it does not take.
constexpr int kIllegalArgument = -3;

// Throws CLI::ValidationError.
ComponentName componentOf(const std::string& word) {
  if (const auto component = readComponent(word)) return *component;
  throw CLI::ValidationError("component", "expected PACKAGE/CLASS, not '" + word + "'");
}

// What the words of an intent are read into.
struct IntentOptions {
  OrvelIntent plain;  // what needs no reading
  std::int64_t flags = 0;
  std::string component;
  std::string target;
  KeyedWords texts;
  KeyedWords numbers;
  KeyedWords long_numbers;
  KeyedWords truths;

  // The intent that they make; throws CLI::ValidationError.
  OrvelIntent intent() const {
    OrvelIntent made = plain;
    made.flags = static_cast<int>(flags);  // as 32 bits, of which the platform's flags use the sign too
    if (!component.empty()) made.component = componentOf(component);
    if (!target.empty()) readTarget(made);
    const auto put = [&](const std::string& key, const auto& value) { return made.extras.put(key, value); };
    const auto put_truth = [&](const std::string& key, bool value) { return made.extras.put(key, value ? 1 : 0); };
    putAll("--es", texts, "text", readText, put);
    putAll("--ei", numbers, "a number of 32 bits", readNumber<int>, put);
    putAll("--el", long_numbers, "a number of 64 bits", readNumber<long long>, put);
    putAll("--ez", truths, "true or false", readTruth, put_truth);
    return made;
  }

 private:
  void readTarget(OrvelIntent& made) const {
    const auto expect_first = [&](bool empty, const char* option) {
      if (!empty) throw CLI::ValidationError("target", "'" + target + "' and " + option + " exclude each other");
    };
    if (target.find(':') != std::string::npos) {
      expect_first(made.data.empty(), "--data");
      made.data = target;
      return;
    }
    if (target.find('/') != std::string::npos) {
      expect_first(component.empty(), "--component");
      made.component = componentOf(target);
    } else {
      expect_first(made.package.empty(), "--package");
      made.package = target;
    }
    if (made.action.empty()) made.action = "android.intent.action.MAIN";
    if (made.categories.empty()) made.categories = {"android.intent.category.LAUNCHER"};
  }
};

void addIntentOptions(CLI::App* subcommand, IntentOptions& options) {
  const auto add = [&](const char* names, auto& value, const char* type, const char* about) {
    return subcommand->add_option(names, value, about)->type_name(type);
  };
  add("-a,--action", options.plain.action, "NAME", "what is to be done or has happened");
  add("-d,--data", options.plain.data, "URI", "what it is about");
  add("-t,--type", options.plain.text3, "MIME", "the MIME type of the data");
  add("-c,--category", options.plain.categories, "NAME", "a category; may be repeated")->allow_extra_args(false);
  add("-n,--component", options.component, "COMPONENT", "the component that it is for");
  add("-p,--package", options.plain.package, "PACKAGE", "the package that it is limited to");
  add("-f,--flags", options.flags, "NUMBER", "the platform's flags of intents, such as 0x10000000")
      ->check(CLI::Range(std::int64_t{INT32_MIN}, std::int64_t{UINT32_MAX}).description(""));
  add("-e,--es", options.texts, "KEY TEXT", "an extra, a string; may be repeated, as the others")
      ->allow_extra_args(false);
  add("--ei", options.numbers, "KEY NUMBER", "an extra, a 32-bit integer")->allow_extra_args(false);
  add("--el", options.long_numbers, "KEY NUMBER", "an extra, a 64-bit integer")->allow_extra_args(false);
  add("--ez", options.truths, "KEY true|false", "an extra, true or false")->allow_extra_args(false);
  add("target", options.target, "", "in place of -d, -n or -p");
  subcommand->footer(kIntentFooter + 1);
}

using Send = std::function<bool(Client& client, const OrvelIntent* intent)>;

// A subcommand that gives the client one intent, which must say what is to be done or by whom.
CLI::App* addSender(Commands& commands, const char* name, const char* about, const char* done, const Send& send) {
  const auto options = std::make_shared<IntentOptions>();
  const auto intent = std::make_shared<OrvelIntent>();
  CLI::App* sender = commands.add(name, about, [=](Session& session) {
    session.carryOut(
        name, Service::kDelegate, [&](Client& client) { return send(client, intent.get()); }, {{done, true}}, done);
  });
  addIntentOptions(sender, *options);
  sender->parse_complete_callback([=] {
    *intent = options->intent();
    if (intent->action.empty() && intent->package.empty() && intent->component.package_name.empty()) {
      throw CLI::ValidationError(name, "an action, a package or a component is expected");
    }
  });
  return sender;
}

void addBroadcasts(Commands& commands) {
  const auto permission = std::make_shared<std::string>();
  const auto send = [permission](Client& client, const OrvelIntent* intent) {
    return permission->empty() ? client.broadcastIntent(intent)
                               : client.broadcastIntentWithPermission(intent, *permission);
  };
  addSender(commands, "broadcast", "Broadcast an intent", "sent", send)
      ->add_option("--receiver-permission", *permission, "reach only receivers that hold the permission")
      ->type_name("NAME");

  struct OneNumber {
    std::string action;
    std::string component;
    std::string key;
    int value = 0;
  };
  const auto given = std::make_shared<OneNumber>();
  CLI::App* one =
      commands.add("broadcast-int", "Broadcast an action to one component, with one extra", [given](Session& session) {
        const auto [package, name] = componentOf(given->component);
        const auto call = [&, &package = package, &name = name](Client& client) {
          return client.broadcastIntentWithIntKey(given->action, package, name, given->key, given->value);
        };
        session.carryOut("broadcast-int", Service::kDelegate, call, {{"sent", true}}, "sent");
      });
  addText(one, "action,-a,--action", given->action, "");
  const auto check = [](const std::string& word) {
    return readComponent(word) ? "" : "expected PACKAGE/CLASS, not '" + word + "'";
  };
  addText(one, "component,-n,--component", given->component, "PACKAGE/CLASS")->check(check, "", "");
  addText(one, "key", given->key, "");
  one->add_option("value", given->value)->required()->type_name("NUMBER");
}

// That nothing was launched is worth a second question: which of the reasons it was.
void launch(Session& session, const std::string& package) {
  const std::string what = "launch " + package;
  const auto call = [&](Client& client) { return client.launchApplicationWithPackageName(package); };
  const std::variant<Json, Failure> answer = session.call(what, Service::kDelegate, call);
  if (session.status() != kSuccess) return;  // interrupted
  if (const Json* taken = std::get_if<Json>(&answer); taken != nullptr && *taken == Json(true)) {
    return session.print({{"launched", package}}, "launched");
  }
  const auto* failed = std::get_if<Failure>(&answer);
  Failure failure = failed != nullptr ? *failed : refusalOf(what, Service::kDelegate);
  if (isInstalled(session.client(), package) == false) {
    failure = notInstalled(what, package);
  } else if (failure.code == kIllegalArgument) {
    failure.message = "package " + package + " has nothing to launch";
    failure.reason = "nothing-to-launch";
  }
  session.fail(std::move(failure));
}

void addProcesses(Commands& commands) {
  commands.add("foreground", "List the packages of the processes in the foreground", [](Session& session) {
    showPackages(session, "foreground packages", Service::kActivity, Json::object(),
                 namesBy(&Client::getForegroundPackages));
  });

  const auto package = std::make_shared<std::string>();
  CLI::App* state = commands.add("process-state", "Show how the process of a package stands", [=](Session& session) {
    const auto query = [&](Client& client) {
      bool found = false;
      bool focused = false;
      int importance = 0;
      client.getAppProcessState(*package, found, importance, focused);
      return Json{{"package", *package}, {"running", found}, {"importance", importance}, {"focused", focused}};
    };
    if (const auto result = session.ask("process state of " + *package, Service::kActivity, query)) {
      std::string text = "not running";
      if (result->at("running")) {
        text = "importance " + result->at("importance").dump() + (result->at("focused") ? ", focused" : "");
      }
      session.print(*result, text);
    }
  });
  addText(state, "package", *package, "");
  state->footer("The importance is the platform's: 100 is the foreground, more is less; -1 when nothing runs.");
}

}  // namespace

void addActivityCommands(Commands& commands) {
  Commands group =
      commands.group("am", "Send intents and show what runs: broadcast, start, start-service, launch, ...");
  addBroadcasts(group);
  addSender(group, "start", "Start an activity", "sent", &Client::startActivity)->alias("start-activity");
  addSender(group, "start-service", "Start a service", "sent", &Client::startService)->alias("startservice");
  addSender(group, "start-foreground-service", "Start a service that stays in the foreground", "sent",
            &Client::startForegroundService);

  const auto package = std::make_shared<std::string>();
  addText(group.add("launch", "Start the main activity of a package",
                    [package](Session& session) { launch(session, *package); }),
          "package", *package, "");
  addProcesses(group);
}

}  // namespace orvelctl
