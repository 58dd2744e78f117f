// A run: which processes are killed when, what is changed in between, and what is asked of the clients.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "ClientProcess.h"
#include "Device.h"

namespace orvel::kills {

// A run of fewer kills leaves out what takes seconds.
constexpr std::int64_t kLongEnough = 100;

struct Options {
  std::uint64_t seed = 1;
  std::int64_t kills = 300;
  int clients = 3;
  std::filesystem::path programs;  // the folder that the device and the client are in
};

// How much a process has grown between an early moment and a late one; the most that was seen.
struct Growth {
  Usage most;
  std::int64_t compared = 0;  // pairs of moments

  void take(const Usage& early, const Usage& late);
};

class Loop {
 public:
  // `directory` is for the histories; the device lives in it too.
  Loop(const Options& options, const std::filesystem::path& directory);
  ~Loop();

  // Throws Failure, and what the device throws.
  void run();

  std::int64_t kills() const { return m_device.kills(); }
  const std::vector<std::string>& clients() const { return m_names; }  // all that there were
  const Growth& clientGrowth() const { return m_clientGrowth; }
  const Growth& deviceGrowth() const { return m_deviceGrowth; }

 private:
  using Services = std::vector<std::string>;

  // What happens in a round.
  void round();
  Services killOne();
  Services killStopped();
  Services killBusy();
  Services killTwo();
  Services killAll();
  Services killReplaying();
  Services killBinding();
  Services killFlapping();

  // What happens once in a while.
  void special();
  void refuseReplays();
  void stayAway(const std::string& service);
  void fillQueue();
  void passTimeLimit();
  void passCallLimit();

  void recover(const Services& services);
  void act();        // one change of each kind
  void awaitTold();  // what the latest changes owe
  void renewNetwork(bool quiet);
  void startClients();
  void endClients();
  void replaceThoseWhoGaveUp();
  void start(std::size_t number);
  void end(ClientProcess& client);

  bool chance(int percent) { return pick(100) < percent; }
  int pick(int count) { return std::uniform_int_distribution<int>(0, count - 1)(m_random); }
  std::string anyService();
  void pause(int mostMilliseconds);

  const Options m_options;
  const std::filesystem::path m_directory;
  std::mt19937_64 m_random;
  Device m_device;
  std::vector<std::unique_ptr<ClientProcess>> m_clients;
  std::vector<std::string> m_names;
  std::vector<std::string> m_services;
  std::int64_t m_number = 0;  // of the latest changes
  int m_more = 0;             // settings that the clients have been told to register for beside the first
  bool m_flag = true;         // what has two states, and the state that it had last
  std::int64_t m_nextSpecial = 0;
  std::int64_t m_young = 0;  // clients have not been compared with themselves before so many kills
  Usage m_earlyDevice;
  Growth m_clientGrowth;
  Growth m_deviceGrowth;
};

}  // namespace orvel::kills
