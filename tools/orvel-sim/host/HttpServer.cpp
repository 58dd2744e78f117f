#include "tools/orvel-sim/host/HttpServer.h"

#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <iterator>
#include <stdexcept>
#include <system_error>

#include "device/Endpoint.h"
#include "vesk/vesk_service.h"

namespace orvel::sim {
namespace {

constexpr unsigned kMostConnections = 256;
// Of a client that neither sends nor takes anything, or that sends the head of a request byte by byte.
constexpr unsigned kIdleSeconds = 15;
// For the head of a request, and for what lies between a stream and its client.
constexpr std::size_t kConnectionBytes = 32 << 10;
constexpr std::size_t kMostBodyBytes = 16 << 10;
constexpr std::size_t kStreamBytes = 16 << 10;  // at once

int listenOn(std::uint16_t port) {
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  const std::string what = "run: --web: port " + std::to_string(port) + " of 127.0.0.1";
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  constexpr int kBacklog = 64;
  const int yes = 1;  // a device that starts again takes its port from connections that are still ending
  if (listener < 0 || setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes)) != 0 ||
      bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
      listen(listener, kBacklog) != 0) {
    const int error = errno;
    if (listener >= 0) close(listener);
    throw std::system_error(error, std::generic_category(), what);
  }
  return listener;
}

std::uint16_t portOf(int listener) {
  sockaddr_in address{};
  socklen_t size = sizeof(address);
  check(getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size) == 0 ? 0 : -errno, "asking for a port");
  return ntohs(address.sin_port);
}

template <bool kSmallLetters>
MHD_Result addValue(void* values, MHD_ValueKind, const char* key, const char* value) noexcept {
  std::string name = key;
  if (kSmallLetters)
    std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::tolower(c); });
  static_cast<HttpRequest::Values*>(values)->emplace(std::move(name), value == nullptr ? "" : value);
  return MHD_YES;
}

bool announcesTooMuch(const HttpRequest& request) {
  const auto length = HttpRequest::only(request.headers, "content-length");
  constexpr std::size_t kMostDigits = 9;
  return length && (length->size() > kMostDigits || std::strtoul(length->c_str(), nullptr, 10) > kMostBodyBytes);
}

}  // namespace

std::optional<std::string> HttpRequest::only(const Values& values, const std::string& name) {
  const auto [begin, end] = values.equal_range(name);
  if (begin == end || std::next(begin) != end) return std::nullopt;
  return begin->second;
}

// ---- An exchange ----

void HttpExchange::reply(HttpReply reply) {
  m_reply = std::move(reply);
  wake();
}

void HttpExchange::stream(std::unique_ptr<HttpStream> stream) {
  m_stream = std::move(stream);
  wake();
}

void HttpExchange::wake() {
  if (!std::exchange(m_isSuspended, false)) return;
  microHttpd().resume_connection(m_connection);
  m_server.runSoon();
}

void HttpExchange::suspend() {
  m_isSuspended = true;
  microHttpd().suspend_connection(m_connection);
}

MHD_Result HttpExchange::queueReply() {
  MHD_Response* response =
      microHttpd().create_response_from_buffer(m_reply->body.size(), m_reply->body.data(), MHD_RESPMEM_MUST_COPY);
  return m_server.queue(m_connection, m_reply->status, response, &*m_reply);
}

MHD_Result HttpExchange::queueStream() {
  const MHD_ContentReaderCallback read = [](void* self, std::uint64_t, char* buffer, std::size_t room) noexcept {
    try {
      return static_cast<HttpExchange*>(self)->send(buffer, room);
    } catch (const std::exception&) {
      return static_cast<ssize_t>(MHD_CONTENT_READER_END_WITH_ERROR);
    }
  };
  MHD_Response* response =
      microHttpd().create_response_from_callback(MHD_SIZE_UNKNOWN, kStreamBytes, read, this, nullptr);
  const HttpReply head = {MHD_HTTP_OK, "text/event-stream", ""};
  return m_server.queue(m_connection, head.status, response, &head);
}

ssize_t HttpExchange::send(char* buffer, std::size_t room) {
  if (m_sent == m_sending.size()) {
    auto next = m_stream->next();
    if (!next) return MHD_CONTENT_READER_END_OF_STREAM;
    m_sending = *std::move(next);
    m_sent = 0;
  }
  if (m_sending.empty()) {
    suspend();
    return 0;
  }
  const std::size_t count = m_sending.copy(buffer, room, m_sent);
  m_sent += count;
  return static_cast<ssize_t>(count);
}

// ---- The server ----

HttpServer::HttpServer(void* runtime, std::uint16_t port, Handler handler)
    : m_runtime(runtime), m_handler(std::move(handler)) {
  microHttpd();  // before there is anything to close
  const int listener = listenOn(port);
  m_port = portOf(listener);
  startDaemon(listener);
  watch();
}

HttpServer::~HttpServer() {
  // A suspended connection must not be left to the library's end; and a stream may have a last word.
  const auto exchanges = m_exchanges;
  for (const auto& [exchange, kept] : exchanges) kept->wake();
  constexpr int kRounds = 4;  // to resume, to write, to write the end, to close
  for (int round = 0; round < kRounds; ++round) microHttpd().run(m_daemon.get());
  for (const auto& [exchange, kept] : m_exchanges) kept->wake();
  m_source.reset();
  m_timer.reset();
}

void HttpServer::startDaemon(int listener) {
  const MHD_AccessHandlerCallback accessed = [](void* self, MHD_Connection* connection, const char* path,
                                                const char* method, const char*, const char* data, std::size_t* size,
                                                void** context) noexcept {
    auto& server = *static_cast<HttpServer*>(self);
    try {
      if (*context == nullptr) return server.begin(connection, path, method, context);
      return server.proceed(*static_cast<HttpExchange*>(*context), data, size);
    } catch (const std::exception&) {
      return MHD_NO;  // ends the connection
    }
  };
  const MHD_RequestCompletedCallback completed = [](void* self, MHD_Connection* connection, void** context,
                                                    MHD_RequestTerminationCode) noexcept {
    static_cast<HttpServer*>(self)->m_exchanges.erase(static_cast<HttpExchange*>(*context));
    static_cast<HttpServer*>(self)->awaitRequest(connection);
  };
  const MHD_NotifyConnectionCallback changed = [](void* self, MHD_Connection* connection, void**,
                                                  MHD_ConnectionNotificationCode how) noexcept {
    if (how == MHD_CONNECTION_NOTIFY_STARTED) return static_cast<HttpServer*>(self)->awaitRequest(connection);
    static_cast<HttpServer*>(self)->m_waiting.erase(connection);
  };
  MHD_Daemon* daemon = microHttpd().start_daemon(
      static_cast<unsigned>(MHD_USE_EPOLL) | static_cast<unsigned>(MHD_ALLOW_SUSPEND_RESUME), m_port, nullptr, nullptr,
      accessed, this, MHD_OPTION_LISTEN_SOCKET, listener, MHD_OPTION_NOTIFY_COMPLETED, completed, this,
      MHD_OPTION_NOTIFY_CONNECTION, changed, this, MHD_OPTION_CONNECTION_LIMIT, kMostConnections,
      MHD_OPTION_CONNECTION_TIMEOUT, kIdleSeconds, MHD_OPTION_CONNECTION_MEMORY_LIMIT, kConnectionBytes,
      MHD_OPTION_STRICT_FOR_CLIENT, 1, MHD_OPTION_END);
  if (daemon == nullptr) {
    close(listener);
    throw std::runtime_error("the page cannot be served on 127.0.0.1:" + std::to_string(m_port));
  }
  m_daemon.reset(daemon);
}

void HttpServer::watch() {
  const MHD_DaemonInfo* epoll = microHttpd().get_daemon_info(m_daemon.get(), MHD_DAEMON_INFO_EPOLL_FD);
  const auto ready = [](sd_event_source*, int, std::uint32_t, void* self) noexcept {
    static_cast<HttpServer*>(self)->run();
    return 0;
  };
  sd_event_source* source = nullptr;
  check(sd_event_add_io(vesk_service_event(m_runtime), &source, epoll->epoll_fd, EPOLLIN, ready, this),
        "watching the page's connections");
  m_source.reset(source);
}

// What is resumed goes on when the library runs next; without a thread of its own it wakes nobody.
void HttpServer::runSoon() {
  if (std::exchange(m_isResumed, true)) return;
  m_timer = std::make_unique<Timer>(m_runtime, std::chrono::milliseconds(0), [this] { run(); });
}

void HttpServer::run() {
  m_isResumed = false;
  microHttpd().run(m_daemon.get());
  endLate();
  // The library looks for new connections again when it runs the next time, which nothing else may cause.
  const MHD_DaemonInfo* open = microHttpd().get_daemon_info(m_daemon.get(), MHD_DAEMON_INFO_CURRENT_CONNECTIONS);
  const bool isFull = open->num_connections >= kMostConnections;
  if (std::exchange(m_wasFull, isFull) && !isFull) runSoon();
  if (m_isResumed) return;  // meanwhile: it runs again at once
  m_timer.reset();
  MHD_UNSIGNED_LONG_LONG milliseconds = 0;
  if (microHttpd().get_timeout(m_daemon.get(), &milliseconds) != MHD_YES) return;
  m_timer = std::make_unique<Timer>(m_runtime, std::chrono::milliseconds(milliseconds), [this] { run(); });
}

void HttpServer::awaitRequest(MHD_Connection* connection) {
  const MHD_ConnectionInfo* info = microHttpd().get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
  if (info != nullptr) m_waiting[connection] = {info->connect_fd, Clock::now()};
}

// The library counts the time from the last byte, each of which makes this server run. It closes what has ended.
void HttpServer::endLate() {
  const auto now = Clock::now();
  if (now - m_looked < std::chrono::seconds(1)) return;
  m_looked = now;
  for (const auto& [connection, waiting] : m_waiting) {
    if (now - waiting.since > std::chrono::seconds(kIdleSeconds)) shutdown(waiting.socket, SHUT_RDWR);
  }
}

MHD_Result HttpServer::begin(MHD_Connection* connection, const char* path, const char* method, void** context) {
  m_waiting.erase(connection);
  const auto exchange = std::make_shared<HttpExchange>(*this, connection);
  HttpRequest& request = exchange->m_request;
  request.method = method;
  request.path = path;
  microHttpd().get_connection_values(connection, MHD_GET_ARGUMENT_KIND, addValue<false>, &request.parameters);
  microHttpd().get_connection_values(connection, MHD_HEADER_KIND, addValue<true>, &request.headers);
  microHttpd().get_connection_values(connection, MHD_COOKIE_KIND, addValue<false>, &request.cookies);
  m_exchanges[exchange.get()] = exchange;
  *context = exchange.get();
  exchange->m_reply = m_handler.refusal(request);
  if (!exchange->m_reply && announcesTooMuch(request)) {
    exchange->m_reply = {MHD_HTTP_CONTENT_TOO_LARGE, "text/plain", "too long\n"};
  }
  return exchange->m_reply ? exchange->queueReply() : MHD_YES;
}

// Called with each piece of the body, once behind it, and again after a suspension.
MHD_Result HttpServer::proceed(HttpExchange& exchange, const char* data, std::size_t* size) {
  if (*size != 0) {
    std::string& body = exchange.m_request.body;
    exchange.m_isTooLong = exchange.m_isTooLong || body.size() + *size > kMostBodyBytes;
    if (!exchange.m_isTooLong) body.append(data, *size);
    *size = 0;
    return MHD_YES;
  }
  if (!std::exchange(exchange.m_isTaken, true)) {
    if (exchange.m_isTooLong) {
      exchange.m_reply = {MHD_HTTP_CONTENT_TOO_LARGE, "text/plain", "too long\n"};
    } else {
      m_handler.take(m_exchanges.at(&exchange));
    }
  }
  if (exchange.m_reply) return exchange.queueReply();
  if (exchange.m_stream) return exchange.queueStream();
  exchange.suspend();
  return MHD_YES;
}

MHD_Result HttpServer::queue(MHD_Connection* connection, unsigned status, MHD_Response* response,
                             const HttpReply* reply) {
  if (response == nullptr) return MHD_NO;
  const auto add = [&](const std::string& name, const std::string& value) {
    microHttpd().add_response_header(response, name.c_str(), value.c_str());
  };
  add("Content-Type", reply->type);
  for (const auto& [name, value] : m_handler.headers) add(name, value);
  for (const auto& [name, value] : reply->headers) add(name, value);
  const MHD_Result result = microHttpd().queue_response(connection, status, response);
  microHttpd().destroy_response(response);
  return result;
}

}  // namespace orvel::sim
