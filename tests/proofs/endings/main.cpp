// Subscriptions end at every point of a program of deliveries, deaths, replays and a shutdown: in each way, on each
// thread, wherever the callbacks run. Under ThreadSanitizer and AddressSanitizer, too.
#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <deque>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "binder/Waiting.h"
#include "orvel/CallbackQueue.h"
#include "support/ClientFixture.h"
#include "support/LogRecorder.h"
#include "support/Notifications.h"
#include "support/Runner.h"

namespace {

using namespace orvel::test;  // NOLINT(google-build-using-namespace)
using orvel::service_apis::CallbackQueue;
using orvel::service_apis::CallbackTask;
using orvel::service_apis::Link;
using orvel::service_apis::LinkState;
using orvel::service_apis::Subscription;
using To = orvel::service_apis::Service;
using Strings = std::vector<std::string>;

bool g_canary = false;

// ---- What is subscribed to ----

struct Kind {
  const char* name;
  To service;
  Strings subjects;  // of its registrations with the delegate service
  std::function<Subscription(Client& client, const std::function<void()>& hear)> make;
};

template <typename Subscribe, typename... Arguments>
auto by(Subscribe method, Arguments... arguments) {
  return [=](Client& client, const std::function<void()>& hear) {
    return (client.*method)(arguments..., [hear](auto&&...) { hear(); });
  };
}

// In the order in which they are made, which is that of the replay: settings come first.
const std::vector<Kind>& kinds() {
  static const std::vector<Kind> all = {
      {"setting", To::kDelegate, {"k"}, by(&Client::subscribeSecureSetting, "k")},
      {"time",
       To::kDelegate,
       {"com.quarlo.velmos.service.timeservice.clock.TIME_SYNC"},
       by(&Client::subscribeTimeSync)},
      {"screen",
       To::kDelegate,
       {"android.intent.action.SCREEN_ON", "android.intent.action.SCREEN_OFF"},
       by(&Client::subscribeScreenStateChange)},
      {"assistant",
       To::kDelegate,
       {"com.quarlo.speech.CONNECTIVITY_ACTION"},
       by(&Client::subscribeMaroConnectivityChange)},
      {"directive", To::kCoordinator, {}, by(&Client::subscribeDirective, "N")},
      {"network", To::kConnectivity, {}, by(&Client::subscribeNetworkConnectivityChange)},
      {"link", To::kDelegate, {}, {}},
  };
  return all;
}

// One subscription. The thread that takes `is_made` back ends it.
struct Subscriber {
  explicit Subscriber(const Kind& subscribed) : kind(subscribed) {}

  const Kind& kind;
  Subscription subscription;
  std::weak_ptr<int> captured;
  std::atomic<bool> is_made{false};
  std::atomic<bool> has_ended{false};
  std::atomic<int> ended_at{std::numeric_limits<int>::max()};  // the newest point then
  std::atomic<LinkState> told{LinkState::kStopped};            // to one to links
};

// The callbacks that this thread is inside.
thread_local std::vector<const Subscriber*> t_inside;
thread_local bool t_acts = false;

bool is_inside(const Subscriber& subscriber) {
  return std::count(t_inside.begin(), t_inside.end(), &subscriber) > 0;
}

// ---- The schedules ----

enum Place { kWhereTheyCome, kInAQueue, kOnTwoThreads, kPlaces };

// On the thread that is at the point, where that is in a callback, else on another one, which the first waits for.
enum Way { kEnded, kMoved, kMadeAgain, kElsewhere, kMeanwhile, kInAShutdown, kInADeath, kWays };

// What happens at a point: a use of libvesk, a sleep, the begin or the end of a callback, in their order.
struct Step {
  int point;
  std::size_t kind;
  Way way;
};

class World final : public ClientFixture {
 public:
  World(Place place, std::vector<Step> steps) : m_place(place), m_steps(std::move(steps)) {
    m_vesk.hold_run_loop();
    start_services();
    if (place == kInAQueue) m_client.setExecutor(m_queue.executor());
    if (place == kOnTwoThreads) m_client.setExecutor([this](CallbackTask task) { post(std::move(task)); });
  }
  ~World() override { m_client.setExecutor({}); }

  // The points of a world without steps, by number: first the others, then those in callbacks.
  using Points = std::array<std::vector<int>, 2>;
  const Points& points() const { return m_passed; }

  void serve(const std::string& service) override {
    m_vesk.add_service(service, [this](const Transaction& call) {
      Reply reply = {good_reply(call.service, call.code), 0};
      if (!InprocessVesk::on_run_loop() || !t_inside.empty() || call.endpoints.empty()) return reply;
      require(m_client.state(To::kDelegate).state != LinkState::kUp, "no link is up in its replay");
      t_acts = true;  // reads by libvesk, too
      const std::string made = subject(call);
      t_acts = false;
      const std::lock_guard<std::mutex> lock(m_mutex);
      const bool lasts = std::any_of(m_subscribers.begin(), m_subscribers.end(), [&](const Subscriber& each) {
        const Strings& all = each.kind.subjects;
        return std::count(all.begin(), all.end(), made) > 0 && each.ended_at >= m_call_at;
      });
      require(lasts, "a replay leaves out what has ended before");
      return reply;
    });
  }

  void run() {
    m_client.initialize();
    count_use();
    count_sleep();
    for (const Kind& each : kinds()) make(each);
    deliver();
    for (const auto service : {kDelegate, kDirectives}) m_vesk.kill_service(kServices[service]);
    settle();
    deliver();
    m_counts = false;
    if (!m_stops) check_next_life();
    m_counts = true;
    if (!m_stops) notify();  // what waits when the client is shut down
    m_stops = true;
    m_client.shutdown();
    m_has_stopped = true;
    m_counts = false;
    join_others();
    settle();
    for (Subscriber& each : m_subscribers) end(each);
    require(left(/*forgotten=*/true));
  }

 private:
  // ---- Points ----

  void count_use() {
    m_vesk.at_use(1, [this](std::string_view operation) {
      if (operation == "vesk_payload_alloc") m_call_at = m_points.load();
      count_use();
      pass_point();
    });
  }
  void count_sleep() {
    m_clock.at_sleep(1, [this] { count_sleep(), pass_point(), start_services(); });
  }

  void pass_point() {
    if (!m_counts || t_acts) return;
    const int point = ++m_points;
    if (m_steps.empty()) {
      const std::lock_guard<std::mutex> lock(m_mutex);
      m_passed[is_in_callback() ? 1 : 0].push_back(point);
    }
    for (const Step& step : m_steps) {
      if (step.point != point) continue;
      t_acts = true;
      take(step);
      t_acts = false;
    }
  }

  static bool is_in_callback() { return !t_inside.empty() && !InprocessVesk::inside(); }

  void take(const Step& step) {
    Subscriber* const subscriber = newest(kinds()[step.kind]);
    if (!subscriber) return;
    if (step.way == kInADeath) m_vesk.kill_service(kServices[kDelegate]);
    if (step.way == kInAShutdown) begin_shutdown();
    if (is_in_callback() && step.way != kElsewhere && step.way != kMeanwhile) {
      end(*subscriber, step.way);
      if (step.way == kMadeAgain) make(subscriber->kind);
      return;
    }
    const auto end_it = [this, subscriber] { end(*subscriber); };
    // In a shutdown another thread may be in the callback, and wait for a lock that this one holds in libvesk.
    const bool waits = step.way != kMeanwhile && !is_inside(*subscriber) && !m_stops;
    if (waits) return std::thread(end_it).join();
    add(end_it);
    for (int n = 0; n < 100 && !subscriber->has_ended; ++n) std::this_thread::yield();
  }

  void begin_shutdown() {
    if (m_stops.exchange(true)) return;
    add([this] {
      m_client.shutdown();
      m_has_stopped = true;
    });
    while (!orvel::service_apis::waiting::interrupted() && !m_has_stopped) std::this_thread::yield();
  }

  void add(const std::function<void()>& body) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_others.emplace_back(body);
  }
  void join_others() {
    for (bool all = false; !all;) {
      std::unique_lock<std::mutex> lock(m_mutex);
      std::vector<std::thread> others = std::exchange(m_others, {});
      lock.unlock();
      for (std::thread& each : others) each.join();
      all = others.empty();
    }
  }

  // ---- Subscriptions ----

  void make(const Kind& kind) {
    std::unique_lock<std::mutex> lock(m_mutex);
    Subscriber& subscriber = m_subscribers.emplace_back(kind);
    lock.unlock();
    const auto captured = std::make_shared<int>();
    subscriber.captured = captured;
    const auto hear = [this, &subscriber, captured] { heard(subscriber); };
    subscriber.subscription = kind.make ? kind.make(m_client, hear)
                                        : m_client.subscribeLink(kind.service, [=, &subscriber](const Link& link) {
                                            subscriber.told = link.state;
                                            hear();
                                          });
    subscriber.is_made = static_cast<bool>(subscriber.subscription);
  }

  Subscriber* newest(const Kind& kind) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = std::find_if(m_subscribers.rbegin(), m_subscribers.rend(),
                                    [&](const Subscriber& each) { return &each.kind == &kind && each.is_made; });
    return found == m_subscribers.rend() ? nullptr : &*found;
  }

  void end(Subscriber& subscriber, Way way = kEnded) {
    if (!subscriber.is_made.exchange(false)) return;
    if (g_canary && subscriber.kind.make) {
      subscriber.subscription.keep();
    } else if (way == kMoved) {
      Subscription moved(std::move(subscriber.subscription));
      moved = Subscription();
    } else {
      subscriber.subscription.end();
    }
    subscriber.ended_at = m_points.load();
    subscriber.has_ended = true;
    // A shutdown may be about to destroy them.
    if (!is_inside(subscriber) && !m_stops)
      require(subscriber.captured.expired(), subscriber.kind.name + std::string("'s captures are gone"));
  }

  void heard(Subscriber& subscriber) {
    require(!subscriber.has_ended, subscriber.kind.name + std::string(" is not called when it has ended"));
    t_inside.push_back(&subscriber);
    for (int n = 0; n < 20 && m_place == kOnTwoThreads; ++n) std::this_thread::yield();  // until the other is there
    pass_point();
    // Not on two threads: one that waits for the callback of the other may be in a call.
    if (m_place != kOnTwoThreads) m_client.getDeviceName();
    const Subscriber* const link = newest(kinds().back());
    const bool is_of_link = !subscriber.kind.subjects.empty() && link != nullptr && m_place == kWhereTheyCome;
    require(!is_of_link || link->told == LinkState::kUp, "the link is up when a notification comes");
    pass_point();
    require(!subscriber.captured.expired(), subscriber.kind.name + std::string("'s captures live as long as it runs"));
    t_inside.pop_back();
  }

  // ---- What the device does ----

  void notify() {
    const char extras[] =
        "'com.quarlo.velmos.service.timeservice.clock.OLD_TIME_MILLIS' 6 1L "
        "'com.quarlo.speech.EXTRA_CONNECTIVITY' 1 1";
    std::vector<Transaction> all = registrations();
    for (const Transaction& each : registrations(kServices[kConnectivity])) all.push_back(each);
    for (const Transaction& each : all) {
      const Target to(each.transfers.front());
      for (int times = m_place == kOnTwoThreads ? 2 : 1; times > 0; --times) {  // each is in the callback then
        each.code == 34 ? void(m_vesk.call(to, 1, setting("k", "7")))
                        : m_vesk.send(to, 1, each.code == 28 ? broadcast("any", "", 2, wire(extras)) : Bytes());
      }
    }
    m_vesk.send("sim_broker_service_N_vesk_endpoint", 1, wire("'a' 'b' 'c' 'd' 'e' 'f' 'g'"));
  }
  void deliver() {
    notify();
    settle();
  }

  void post(CallbackTask task) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_tasks[m_posted++ % 2].push_back(std::move(task));
  }
  void run_tasks(std::size_t of_thread) {
    std::unique_lock<std::mutex> lock(m_mutex);
    const std::vector<CallbackTask> tasks = std::exchange(m_tasks[of_thread], {});
    lock.unlock();
    for (const CallbackTask& task : tasks) task();
  }

  // Until all that was sent has been taken, and all callbacks have returned.
  void settle() {
    for (int n = 0; n < 3; ++n) {  // the callbacks may have killed a service
      std::thread first([this] { run_tasks(0); });
      std::thread second([this] { run_tasks(1); });
      m_vesk.drain();
      first.join();
      second.join();
      while (m_queue.dispatch() > 0) {
      }
    }
    if (m_stops && !m_has_stopped) return;  // the run loop goes on
    const std::lock_guard<std::mutex> lock(m_mutex);
    for (const Subscriber& each : m_subscribers) {
      if (each.has_ended) require(each.captured.expired(), each.kind.name + std::string("'s captures go with it"));
    }
  }

  // What has not ended, and nothing else, is made again once.
  void check_next_life() {
    join_others();
    settle();
    Strings subjects;
    std::size_t directives = 0;
    bool network = false;
    for (const Subscriber& each : m_subscribers) {
      if (!each.is_made) continue;
      const std::string name = each.kind.name;
      subjects.insert(subjects.end(), each.kind.subjects.begin(), each.kind.subjects.end());
      if (name == "directive") ++directives;
      if (name == "network") network = true;
    }
    std::stable_partition(subjects.begin(), subjects.end(), [](const std::string& each) { return each == "k"; });
    require(m_client.state(To::kConnectivity).held == (network ? 1 : 0), "the link holds the network subscription");
    const std::size_t before = published_so_far();
    for (const auto service : {kDelegate, kDirectives, kConnectivity}) m_vesk.kill_service(kServices[service]);
    settle();
    m_client.getDeviceName();  // over the newest connection
    require(this->subjects() == subjects, "the replay makes what has not ended, once, in order");
    require(published_so_far() - before == directives, "the replay publishes what has not ended");
    require(m_client.state(To::kConnectivity).network_lost == network, "the network is lost when it was subscribed to");
    for (const auto& [service, count] : {std::pair(To::kDelegate, subjects.size()), {To::kCoordinator, directives}}) {
      const Link link = m_client.state(service);
      require(link.state == LinkState::kUp && link.held == count && link.restored == count && link.refused == 0,
              "the link agrees with what the service has: " + std::to_string(link.held) + " held, " +
                  std::to_string(link.restored) + " restored, " + std::to_string(count) + " expected");
    }
  }
  std::size_t published_so_far() const {
    const Strings all = m_vesk.bindings();
    return static_cast<std::size_t>(
        std::count_if(all.begin(), all.end(), [](const std::string& each) { return each[0] == '='; }));
  }

  Client& m_client = Client::getClient();
  const Place m_place;
  const std::vector<Step> m_steps;
  std::atomic<bool> m_counts{true};
  std::atomic<int> m_points{0};
  std::atomic<int> m_call_at{0};  // the point before the newest call
  Points m_passed;

  std::mutex m_mutex;  // guards the lists
  std::deque<Subscriber> m_subscribers;
  std::vector<std::thread> m_others;
  std::atomic<bool> m_stops{false};  // a shutdown is under way, or over
  std::atomic<bool> m_has_stopped{false};

  CallbackQueue m_queue;
  std::vector<CallbackTask> m_tasks[2];  // guarded by m_mutex, for two threads
  std::size_t m_posted = 0;
};

}  // namespace

int main(int argc, char** argv) {
  Runner runner("orvel-endings", "Subscriptions end at every point; --count schedules", 1500);
  long tried = 0;
  const char* const places[] = {"where-they-come", "in-a-queue", "on-two-threads"};
  for (const Place place : {kWhereTheyCome, kInAQueue, kOnTwoThreads}) {
    runner.add(places[place], [&, place] {
      World::Points points;
      {
        World undisturbed(place, {});
        undisturbed.run();
        points = undisturbed.points();
      }
      std::mt19937_64 random(runner.seed());
      const auto step = [&] {
        const std::vector<int>& some = points.at(random() % 2);
        return Step{some[random() % some.size()], random() % kinds().size(), static_cast<Way>(random() % kWays)};
      };
      for (long n = 0; n * kPlaces < runner.count(); ++n, ++tried) {
        std::vector<Step> steps = {step()};
        // Several at once, but where two callbacks could end each other.
        while (place != kOnTwoThreads && random() % 4 == 0) steps.push_back(step());
        std::string text = places[place];
        for (const Step& each : steps) {
          text += ", point " + std::to_string(each.point) + " way " + std::to_string(each.way) + " " +
                  kinds()[each.kind].name;
        }
        orvel::test::begin(text);
        World(place, steps).run();
      }
    });
  }
  if (const auto ended = runner.parse(argc, argv)) return *ended;
  g_canary = runner.canary();
  discard_log();
  return runner.run([&] { return std::to_string(tried) + " schedules"; });
}
