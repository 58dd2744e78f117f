// What other programs and foreign web pages may send to the port of the page.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <map>

#include "Inputs.h"

namespace orvel::hostile {
namespace {

vesk::UniqueFd connect_to(const Page& page) {
  vesk::UniqueFd socket(vesk::check_errno(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(page.port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  vesk::check_errno(::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)));
  return socket;
}

// HOST, TOKEN and COOKIE in a request stand for those of the device, GOOD for the head lines of a good one.
std::string filled(std::string text, const Page& page) {
  const std::string host = "127.0.0.1:" + std::to_string(page.port);
  const std::string cookie = "Cookie: orvel-" + std::to_string(page.port) + "=" + page.token + "\r\n";
  const std::vector<std::pair<std::string, std::string>> values = {
      {"GOOD", "Host: HOST\r\nCOOKIE"}, {"HOST", host}, {"COOKIE", cookie}, {"TOKEN", page.token}};
  for (const auto& [word, value] : values) {
    for (std::size_t at = 0; (at = text.find(word, at)) != std::string::npos; at += value.size()) {
      text.replace(at, word.size(), value);
    }
  }
  return text;
}

void send_to(const vesk::UniqueFd& socket, const std::string& bytes) {
  ::send(socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

// What the device answers until it closes the connection or has been silent for a while after `enough`.
std::string answer_to(const vesk::UniqueFd& socket, const std::string& request, const std::string& enough = "") {
  send_to(socket, request);
  std::string answer;
  for (pollfd ready{socket.get(), POLLIN, 0}; ::poll(&ready, 1, kPatienceMs) == 1;) {
    char bytes[4096];
    const ssize_t count = ::recv(socket.get(), bytes, sizeof(bytes), 0);
    if (count <= 0) break;
    answer.append(bytes, static_cast<std::size_t>(count));
    if (!enough.empty() && answer.find(enough) != std::string::npos) break;
  }
  return answer;
}

void expect_in(const std::string& answer, const std::string& part) {
  if (answer.find(part) == std::string::npos) throw Broken("no '" + part + "' in '" + answer.substr(0, 200) + "'");
}

void expect_page(const Page& page) {
  const std::string get = filled("GET / HTTP/1.1\r\nGOODConnection: close\r\n\r\n", page);
  expect_in(answer_to(connect_to(page), get), "HTTP/1.1 200");
}

std::string post(const std::string& body, const std::string& origin = "http://HOST",
                 const std::string& type = "application/json") {
  return "POST /verb HTTP/1.1\r\nGOODOrigin: " + origin + "\r\nContent-Type: " + type +
         "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

}  // namespace

void add_pages(Inputs& inputs) {
  const auto get = [](const std::string& path) { return "GET " + path + " HTTP/1.1\r\nGOOD\r\n"; };
  const std::map<std::string, std::pair<std::string, std::string>> rows = {
      {"no-cookie", {"GET / HTTP/1.1\r\nHost: HOST\r\n\r\n", " 403 "}},
      {"wrong-cookie", {"GET / HTTP/1.1\r\nHost: HOST\r\nCookie: orvel=TOKEN\r\n\r\n", " 403 "}},
      {"wrong-token", {"GET /?token=0 HTTP/1.1\r\nHost: HOST\r\n\r\n", " 403 "}},
      {"two-tokens", {"GET /?token=TOKEN&token=TOKEN HTTP/1.1\r\nHost: HOST\r\n\r\n", " 403 "}},
      {"beginning-of-token", {"GET /?token= HTTP/1.1\r\nHost: HOST\r\n\r\n", " 403 "}},
      {"foreign-host", {"GET / HTTP/1.1\r\nHost: evil.example\r\nCOOKIE\r\n", " 403 "}},
      {"host-without-port", {"GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nCOOKIE\r\n", " 403 "}},
      {"two-hosts", {"GET / HTTP/1.1\r\nHost: HOST\r\nHost: evil.example\r\nCOOKIE\r\n", " 40"}},
      {"foreign-site", {"GET /events HTTP/1.1\r\nGOODSec-Fetch-Site: cross-site\r\n\r\n", " 403 "}},
      {"foreign-origin", {post(R"(["reset"])", "http://evil.example"), " 403 "}},
      {"no-origin",
       {"POST /verb HTTP/1.1\r\nGOODContent-Type: application/json\r\nContent-Length: 0\r\n\r\n", " 403 "}},
      {"form", {post("x=1", "http://HOST", "application/x-www-form-urlencoded"), " 415 "}},
      {"get-of-verb", {get("/verb"), " 405 "}},
      {"delete", {"DELETE / HTTP/1.1\r\nGOOD\r\n", " 405 "}},
      {"climbing", {get("/../../etc/passwd"), " 404 "}},
      {"climbing-escaped", {get("/%2e%2e/%2e%2e/etc/passwd"), " 404 "}},
      {"line-break-in-path", {get("/%0d%0aSet-Cookie:%20a=b"), " 404 "}},
      {"no-json", {post("reset"), " 400 "}},
      {"no-list", {post(R"({"verb": "reset"})"), " 400 "}},
      {"no-text", {post(R"(["get", 7])"), " 400 "}},
      {"deep-json", {post(std::string(15'000, '[')), " 400 "}},
      {"no-verb", {post(R"(["frobnicate"])"), " 403 "}},
      {"no-words", {post("[]"), " 403 "}},
      {"verb-that-serves", {post(R"(["run", "--", "touch", "/tmp/x"])"), " 403 "}},
      {"verb-that-reads", {post(R"(["load", "/etc/passwd"])"), " 403 "}},
      {"option-first", {post(R"(["--timeout", "5", "get", "name"])"), " 403 "}},
      {"zero-in-word", {post(R"(["get", "na\u0000me"])"), " 403 "}},
      {"two-verbs", {post(R"(["screen", "on", "run"])"), R"("status":2)"}},
      {"word-that-is-shell", {post(R"(["get", "$(id);`id`"])"), R"("status":2)"}},
      {"long-body", {post(std::string(1 << 20, ' ')), " 413 "}},
      {"long-chunks",
       {"POST /verb HTTP/1.1\r\nGOODOrigin: http://HOST\r\nContent-Type: application/json\r\nTransfer-Encoding: "
        "chunked\r\n\r\n8000\r\n" +
            std::string(0x8000, ' ') + "\r\n0\r\n\r\n",
        " 413 "}},
      {"long-header", {"GET / HTTP/1.1\r\nGOODX: " + std::string(200'000, 'x') + "\r\n\r\n", " 431 "}},
      {"length-that-lies", {"POST /verb HTTP/1.1\r\nGOODContent-Length: -1\r\n\r\n", " 40"}},
      {"wrong-filter", {get("/events?name=nosuch"), "event: refused"}},
      {"wrong-number", {get("/events?slower=fast"), "event: refused"}},
      {"pipelined", {get("/page.css") + get("/nosuch"), "404 Not Found"}},
  };
  for (const auto& [name, row] : rows) {
    inputs.push_back({"device/page/" + name, [row = row](Attack& attack) {
                        const std::string answer =
                            answer_to(connect_to(attack.page), filled(row.first, attack.page), row.second);
                        expect_in(answer, row.second);
                        expect_page(attack.page);
                      }});
  }
  inputs.push_back({"device/page/nonsense", [](Attack& attack) {
                      answer_to(connect_to(attack.page), std::string("\0\xff\r\n\r\n\r\n", 8), "HTTP");
                      expect_page(attack.page);
                    }});
  inputs.push_back({"device/page/slow", [](Attack& attack) {
                      const auto socket = connect_to(attack.page);
                      for (const char byte : filled("GET / HTTP/1.1\r\nGOOD\r\n", attack.page)) {
                        send_to(socket, {byte});
                      }
                      expect_in(answer_to(socket, "", "HTTP"), " 200 ");
                    }});
  inputs.push_back({"device/page/half-closed", [](Attack& attack) {
                      const auto socket = connect_to(attack.page);
                      send_to(socket, "GET / HT");
                      ::shutdown(socket.get(), SHUT_WR);
                      answer_to(socket, "");
                      expect_page(attack.page);
                    }});
  inputs.push_back({"device/page/left-in-the-middle", [](Attack& attack) {
                      const std::string events = filled("GET /events HTTP/1.1\r\nGOOD\r\n", attack.page);
                      expect_in(answer_to(connect_to(attack.page), events, "event: status"), "text/event-stream");
                      send_to(connect_to(attack.page), filled(post(R"(["state"])"), attack.page));
                      expect_page(attack.page);
                    }});
  inputs.push_back({"device/page/many-connections", [](Attack& attack) {
                      constexpr std::size_t kMore = 300;  // than it takes
                      std::vector<vesk::UniqueFd> sockets;
                      sockets.reserve(kMore);
                      while (sockets.size() < kMore) sockets.push_back(connect_to(attack.page));
                      expect_served(attack.open(test::kServices[test::kPower]));
                      sockets.clear();
                      expect_page(attack.page);
                    }});
}

}  // namespace orvel::hostile
