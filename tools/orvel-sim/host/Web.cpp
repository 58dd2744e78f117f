#include "tools/orvel-sim/host/Web.h"

#include <sys/random.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <map>
#include <utility>

#include "device/Endpoint.h"
#include "device/Faults.h"
#include "device/Service.h"
#include "device/ShippedScenarios.h"
#include "tools/orvel-sim/host/Devices.h"
#include "tools/orvel-sim/host/Supervisor.h"
#include "vesk/vesk_service.h"

namespace orvel::sim {
namespace {

constexpr std::size_t kMostVerbs = 8;  // at the same time

struct PageFile {
  const char* type;
  const char* text;
};

// By their paths.
const std::map<std::string, PageFile>& pageFiles() {
  static const std::map<std::string, PageFile> files = {
#include "PageFiles.inc"
  };
  return files;
}

std::string newToken() {
  std::array<unsigned char, 32> random{};
  check(getrandom(random.data(), random.size(), 0) == static_cast<ssize_t>(random.size()) ? 0 : -errno, "a new token");
  constexpr char kDigits[] = "0123456789abcdef";
  std::string token;
  for (const unsigned char byte : random) {
    token += kDigits[byte >> 4U];
    token += kDigits[byte & 0xFU];
  }
  return token;
}

// In a time that says nothing of where they differ.
bool isSame(const std::string& given, const std::string& token) {
  unsigned difference = given.size() == token.size() ? 0 : 1;
  for (std::size_t at = 0; at < given.size() && at < token.size(); ++at) {
    difference |= static_cast<unsigned char>(given[at]) ^ static_cast<unsigned char>(token[at]);
  }
  return difference == 0;
}

HttpReply refused(unsigned status, const std::string& why) {
  return {status, "text/plain; charset=utf-8", why + "\n"};
}

// How a shell begins the commands for this device; and what a page offers to choose from.
Json vocabulary() {
  Json program = {"orvel-sim"};
  for (const std::string& word : optionsFor(vesk_runtime_directory())) program.push_back(word);
  Json services = Json::array();
  for (const ServiceType* type : allServices()) {
    Json methods = Json::array();
    for (const Method& method : type->methods) {
      Json arguments = Json::array();
      for (const Argument& argument : method.arguments) arguments.push_back(argument.name);
      methods.push_back({{"method", method.name}, {"arguments", arguments}});
    }
    services.push_back({{"service", type->id}, {"about", type->summary}, {"methods", methods}});
  }
  Json faults = Json::array();
  for (const FaultKind& kind : faultKinds()) {
    faults.push_back({{"verb", kind.verb},
                      {"key", kind.key},
                      {"about", kind.about},
                      {"expected", kind.expected},
                      {"needsValue", !kind.on}});
  }
  Json scenarios = Json::array();
  for (const ShippedScenario& each : shippedScenarios()) {
    scenarios.push_back({{"scenario", each.name}, {"about", each.about}});
  }
  return {{"program", program}, {"services", services}, {"faults", faults}, {"scenarios", scenarios}};
}

const char* methodOf(const std::string& path) {
  if (path == "/verb") return "POST";
  return path == "/events" || path == "/vocabulary.json" || pageFiles().count(path) != 0 ? "GET" : nullptr;
}

}  // namespace

Web::Web(Supervisor& supervisor, std::uint16_t port)
    : m_supervisor(supervisor),
      m_token(newToken()),
      m_streams(supervisor),
      m_server(supervisor.runtime(), port,
               {[this](const HttpRequest& request) { return refusal(request); },
                [this](const std::shared_ptr<HttpExchange>& exchange) { take(exchange); },
                {{"Content-Security-Policy",
                  "default-src 'self'; base-uri 'none'; form-action 'self'; frame-ancestors 'none'"},
                 {"X-Content-Type-Options", "nosniff"},
                 {"Referrer-Policy", "no-referrer"},
                 {"Cross-Origin-Resource-Policy", "same-origin"},
                 {"Cache-Control", "no-store"}}}) {
  setenv("ORVEL_RUNTIME_DIR", vesk_runtime_directory(), 1);  // for the verbs
}

Web::~Web() {
  m_streams.end();
}

std::string Web::address() const {
  return origin() + "/?token=" + m_token;
}

// A page of another site may make a browser send requests here, and have names of its own lead here: neither knows the
// token, and neither says that it is this page.
std::optional<HttpReply> Web::refusal(const HttpRequest& request) const {
  const std::string port = ":" + std::to_string(m_server.port());
  const auto host = HttpRequest::only(request.headers, "host");
  if (!host || (*host != "127.0.0.1" + port && *host != "localhost" + port)) {
    return refused(MHD_HTTP_FORBIDDEN, "no such host");
  }
  if (request.path == "/" && request.method == "GET" && request.parameters.count("token") != 0) {
    const auto token = HttpRequest::only(request.parameters, "token");
    if (!token || !isSame(*token, m_token)) return refused(MHD_HTTP_FORBIDDEN, "this is not the token of the device");
    HttpReply reply = refused(MHD_HTTP_SEE_OTHER, "the page is at /");
    reply.headers = {{"Location", "/"},
                     {"Set-Cookie", cookie() + "=" + m_token + "; Path=/; HttpOnly; SameSite=Strict"}};
    return reply;
  }
  const auto token = HttpRequest::only(request.cookies, cookie());
  if (!token || !isSame(*token, m_token)) {
    return refused(MHD_HTTP_FORBIDDEN, "open the address that orvel-sim run --web has printed, with its token");
  }
  const auto site = HttpRequest::only(request.headers, "sec-fetch-site");
  if (site && *site != "same-origin" && *site != "none") return refused(MHD_HTTP_FORBIDDEN, "not from another site");
  const char* method = methodOf(request.path);
  if (method == nullptr) return refused(MHD_HTTP_NOT_FOUND, "there is no such page");
  if (request.method != method) {
    HttpReply reply = refused(MHD_HTTP_METHOD_NOT_ALLOWED, std::string("only ") + method);
    reply.headers = {{"Allow", method}};
    return reply;
  }
  return request.method == "POST" ? refusalOfPost(request, *host) : std::nullopt;
}

std::optional<HttpReply> Web::refusalOfPost(const HttpRequest& request, const std::string& host) const {
  const auto origin = HttpRequest::only(request.headers, "origin");
  if (!origin || *origin != "http://" + host) return refused(MHD_HTTP_FORBIDDEN, "not from another origin");
  const auto type = HttpRequest::only(request.headers, "content-type");
  if (type && *type == "application/json") return std::nullopt;
  return refused(MHD_HTTP_UNSUPPORTED_MEDIA_TYPE, "application/json is expected");
}

void Web::take(const std::shared_ptr<HttpExchange>& exchange) {
  const std::string& path = exchange->request().path;
  if (path == "/events") return m_streams.open(exchange);
  if (path == "/verb") return runVerb(exchange);
  if (path == "/vocabulary.json") return exchange->reply({MHD_HTTP_OK, "application/json", vocabulary().dump()});
  const PageFile& file = pageFiles().at(path);
  exchange->reply({MHD_HTTP_OK, file.type, file.text});
}

void Web::runVerb(const std::shared_ptr<HttpExchange>& exchange) {
  const Json body = Json::parse(exchange->request().body, nullptr, /*allow_exceptions=*/false);
  const auto isText = [](const Json& word) { return word.is_string(); };
  if (!body.is_array() || !std::all_of(body.begin(), body.end(), isText)) {
    return exchange->reply(refused(MHD_HTTP_BAD_REQUEST, "a list of words is expected, as JSON"));
  }
  const auto words = body.get<std::vector<std::string>>();
  if (const std::string why = whyNotForPage(words); !why.empty()) {
    return exchange->reply(refused(MHD_HTTP_FORBIDDEN, why));
  }
  if (m_verbs.size() >= kMostVerbs) {
    return exchange->reply(refused(MHD_HTTP_SERVICE_UNAVAILABLE, "too many verbs at the same time"));
  }
  const auto place = m_verbs.insert(m_verbs.end(), nullptr);
  const auto ended = [this, place, weak = std::weak_ptr<HttpExchange>(exchange)](const Json& result) {
    m_verbs.erase(place);
    const std::string text = result.dump(-1, ' ', false, Json::error_handler_t::replace);
    if (const auto waiting = weak.lock()) waiting->reply({MHD_HTTP_OK, "application/json", text});
  };
  try {
    *place = std::make_unique<VerbProcess>(m_supervisor.runtime(), words, ended);
  } catch (const std::exception& error) {
    m_verbs.erase(place);
    exchange->reply(refused(MHD_HTTP_INTERNAL_SERVER_ERROR, error.what()));
  }
}

}  // namespace orvel::sim
