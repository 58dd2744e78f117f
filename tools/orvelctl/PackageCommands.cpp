// orvelctl pm: shows what is installed.
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "Commands.h"

namespace orvelctl {
namespace {

// The platform's GET_META_DATA, without which an application's record comes without its metadata.
constexpr std::int64_t kGetMetaData = 0x80;

// What the subcommands are asked about; each takes what it needs.
struct Options {
  std::string name;  // of a package, a feature or an action
  std::string key;
  std::optional<std::string> fallback;
  bool number = false;
  int resource = 0;
  std::optional<int> uid;
  std::optional<std::int64_t> flags;
};

void listPackages(Session& session, const Options& options) {
  if (!options.uid) {
    showPackages(session, "installed packages", Service::kPackages, Json::object(),
                 namesBy(&Client::getInstalledPackageNames));
    return;
  }
  const auto query = [&](Client& client) { return client.getPackageNamesForUid(*options.uid); };
  showPackages(session, "packages of uid " + std::to_string(*options.uid), Service::kDelegate, {{"uid", *options.uid}},
               query);
}

void listReceivers(Session& session, const Options& options) {
  const auto query = [&](Client& client) {
    return client.getBroadcastReceiverPackageNames(options.name, options.flags.value_or(0));
  };
  showPackages(session, "receivers of " + options.name, Service::kDelegate, {{"action", options.name}}, query);
}

// Shows what `query` gives under `key`, behind what `object` holds.
void showValue(Session& session, const std::string& what, Json object, const char* key,
               const std::function<Json(Client&)>& query) {
  const auto value = session.ask(what, Service::kDelegate, query);
  if (!value) return;
  object[key] = *value;
  session.print(object, value->is_string() ? value->get<std::string>() : value->dump());
}

// A version, as `key` of the object.
using Version = std::string (Client::*)(const std::string& package, long long flags);

std::function<void(Session&, const Options&)> showVersion(const char* key, Version version) {
  return [=](Session& session, const Options& options) {
    const auto query = [&](Client& client) { return (client.*version)(options.name, options.flags.value_or(0)); };
    showValue(session, "version of " + options.name, {{"package", options.name}}, key, query);
  };
}

void showMetaData(Session& session, const Options& options) {
  const std::int64_t flags = options.flags.value_or(kGetMetaData);
  const auto show = [&](const auto& fallback) {
    const auto query = [&](Client& client) {
      return client.getApplicationInfoMetaData(options.name, flags, options.key, fallback);
    };
    showValue(session, "metadata of " + options.name, {{"package", options.name}, {"key", options.key}}, "value",
              query);
  };
  if (options.number) {
    show(readFallback(options.fallback));
  } else {
    show(options.fallback.value_or(""));
  }
}

void showResource(Session& session, const Options& options) {
  const auto query = [&](Client& client) { return client.getRawResourceAsString(options.name, options.resource); };
  showValue(session, "resource of " + options.name, {{"package", options.name}, {"id", options.resource}}, "text",
            query);
}

void showFeature(Session& session, const Options& options) {
  const auto query = [&](Client& client) { return client.hasSystemFeature(options.name); };
  showValue(session, "feature " + options.name, {{"feature", options.name}}, "available", query);
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
  add(lists, "packages", "List the installed packages", listPackages)
      ->add_option("--uid", options->uid, "only those that share the user id")
      ->type_name("NUMBER");

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
