// orvelctl pm: shows what is installed.
#include <unistd.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "Commands.h"

namespace orvelctl {
namespace {

// The platform's GET_META_DATA, without which an application's record comes without its metadata.
constexpr std::int64_t kGetMetaData = 0x80;

// What the subcommands are asked about; each takes what it needs.
struct Options {
  std::string name;  // of a package, a feature or an action; of packages to list, a part
  std::string key;
  std::optional<std::string> fallback;
  bool number = false;
  int resource = 0;
  std::optional<int> uid;
  std::optional<std::int64_t> flags;
};

// The names of those in which the text stands.
NamesQuery holding(const std::string& text, const NamesQuery& query) {
  return [text, query](Client& client) {
    Names names;
    for (const std::string& name : query(client)) {
      if (name.find(text) != std::string::npos) names.push_back(name);
    }
    return names;
  };
}

void listPackages(Session& session, const Options& options) {
  if (!options.uid) {
    showPackages(session, "installed packages", Service::kPackages, Json::object(),
                 holding(options.name, namesBy(&Client::getInstalledPackageNames)));
    return;
  }
  const auto query = [&](Client& client) { return client.getPackageNamesForUid(*options.uid); };
  showPackages(session, "packages of uid " + std::to_string(*options.uid), Service::kDelegate, {{"uid", *options.uid}},
               holding(options.name, query));
}

void listReceivers(Session& session, const Options& options) {
  const auto query = [&](Client& client) {
    return client.getBroadcastReceiverPackageNames(options.name, options.flags.value_or(0));
  };
  showPackages(session, "receivers of " + options.name, Service::kDelegate, {{"action", options.name}}, query);
}

std::string textOf(const Json& value) {
  return value.is_string() ? value.get<std::string>() : value.dump();
}

// What `query` gives of a package; nothing, and the failure is said, for one that is not installed, which is worth a
// second question where `nothing` is the answer.
std::optional<Json> askPackage(Session& session, const std::string& what, const std::string& package,
                               const std::function<Json(Client&)>& query, const Json& nothing = "") {
  auto value = session.ask(what, Service::kDelegate, query);
  if (value == nothing && isInstalled(session.client(), package) == false) {
    session.fail(notInstalled(what, package));
    value.reset();
  }
  return value;
}

// A version, as `key` of the object.
using Version = std::string (Client::*)(const std::string& package, long long flags);

std::function<void(Session&, const Options&)> showVersion(const char* key, Version version) {
  return [=](Session& session, const Options& options) {
    const auto query = [&](Client& client) { return (client.*version)(options.name, options.flags.value_or(0)); };
    if (const auto value = askPackage(session, "version of " + options.name, options.name, query)) {
      session.print({{"package", options.name}, {key, *value}}, textOf(*value));
    }
  };
}

void showMetaData(Session& session, const Options& options) {
  const std::int64_t flags = options.flags.value_or(kGetMetaData);
  // Two defaults tell an entry from none.
  const auto show = [&](const auto& fallback, const auto& other) {
    const auto query = [&](const auto& absent) {
      return [&](Client& client) -> Json {
        return client.getApplicationInfoMetaData(options.name, flags, options.key, absent);
      };
    };
    const std::string what = "metadata of " + options.name;
    const auto value = options.fallback ? session.ask(what, Service::kDelegate, query(fallback))
                                        : askPackage(session, what, options.name, query(fallback), fallback);
    if (!value) return;
    session.print({{"package", options.name}, {"key", options.key}, {"value", *value}}, textOf(*value));
    if (options.fallback || *value != Json(fallback) || query(other)(session.client()) != Json(other)) return;
    Session::note("package " + options.name + " has no entry " + options.key + (options.number ? "; 0 counts" : ""));
  };
  if (options.number) {
    const int fallback = readFallback(options.fallback);
    show(fallback, fallback == 0 ? 1 : 0);
  } else {
    show(options.fallback.value_or(""), std::string("?"));
  }
}

void showResource(Session& session, const Options& options) {
  const auto query = [&](Client& client) { return client.getRawResourceAsString(options.name, options.resource); };
  const auto text = askPackage(session, "resource of " + options.name, options.name, query);
  if (!text) return;
  // A document has lines of its own; only a terminal must be protected from it.
  const Json object = {{"package", options.name}, {"id", options.resource}, {"text", *text}};
  if (isatty(STDOUT_FILENO) == 0) return session.printAsIs(object, text->get<std::string>());
  std::istringstream document(text->get<std::string>());
  std::vector<std::string> lines;
  for (std::string line; std::getline(document, line);) lines.push_back(line);
  session.print(object, lines);
}

void showFeature(Session& session, const Options& options) {
  const auto query = [&](Client& client) { return client.hasSystemFeature(options.name); };
  if (const auto available = session.ask("feature " + options.name, Service::kDelegate, query)) {
    session.print({{"feature", options.name}, {"available", *available}}, textOf(*available));
  }
}

}  // namespace

void addPackageCommands(Commands& commands) {
  Commands group = commands.group("pm", "Show what is installed: list packages, version-code, has-feature, ...");
  const auto options = std::make_shared<Options>();
  const auto add = [&](Commands& parent, const char* name, const char* about,
                       const std::function<void(Session&, const Options&)>& run) {
    return parent.add(name, about, [options, run](Session& session) { run(session, *options); });
  };
  const auto addFlags = [&](CLI::App* subcommand) {
    subcommand->add_option("--flags", options->flags, "the flags of the platform's package manager, such as 0x80")
        ->type_name("NUMBER");
    return subcommand;
  };
  const auto addPackage = [&](CLI::App* subcommand) {
    addText(subcommand, "package", options->name, "");
    return subcommand;
  };

  Commands lists = group.group("list", "List what is installed");
  CLI::App* packages = add(lists, "packages", "List the installed packages", listPackages);
  packages->add_option("filter", options->name, "only those in whose name this text stands")->type_name("");
  packages->add_option("--uid", options->uid, "only those that share the user id")->type_name("NUMBER");

  addFlags(addPackage(add(group, "version-code", "Show the version of a package, a number",
                          showVersion("versionCode", &Client::getPackageVersionCode))));
  addFlags(addPackage(add(group, "version-name", "Show the version of a package, as people read it",
                          showVersion("versionName", &Client::getPackageVersionName))));

  CLI::App* data = addPackage(add(group, "meta-data", "Show an entry of an application's metadata", showMetaData));
  addText(data, "key", options->key, "");
  data->add_flag("--int", options->number, "an entry that is an integer; else one that is a string");
  data->add_option("--default", options->fallback, "what counts where there is no such entry")->type_name("VALUE");
  data->parse_complete_callback([options] {
    if (options->number) readFallback(options->fallback);  // says what is wrong while there is no device yet
  });
  addFlags(data)->footer("Without --flags they are 0x80, which asks for the metadata.");

  CLI::App* resource = addPackage(add(group, "resource", "Show a raw resource of a package", showResource));
  resource->add_option("id", options->resource, "such as 0x7f0b0001")->required()->type_name("");

  addText(add(group, "has-feature", "Show whether the device has a feature", showFeature), "feature", options->name,
          "such as android.hardware.wifi");

  CLI::App* receivers =
      add(group, "query-receivers", "List the packages that a broadcast of an action would reach", listReceivers);
  addText(receivers, "action", options->name, "");
  addFlags(receivers);
}

}  // namespace orvelctl
