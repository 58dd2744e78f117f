#include "History.h"

#include <chrono>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace orvel::kills {

std::int64_t now() {
  const auto time = std::chrono::steady_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::microseconds>(time).count();
}

std::string lineOf(const Record& record) {
  nlohmann::ordered_json line = {{"t", record.t}, {"what", record.what}};
  if (!record.who.empty()) line["who"] = record.who;
  if (!record.key.empty()) line["key"] = record.key;
  if (!record.value.empty()) line["value"] = record.value;
  if (record.id != 0) line["id"] = record.id;
  if (record.ok) line["ok"] = true;
  return line.dump();
}

Record readRecord(const std::string& line) {
  const auto read = nlohmann::json::parse(line);
  return {read.at("t"),           read.at("what"),         read.value("who", ""),
          read.value("key", ""),  read.value("value", ""), read.value("id", std::int64_t{0}),
          read.value("ok", false)};
}

std::vector<Record> readHistory(const std::string& file) {
  std::ifstream lines(file);
  std::vector<Record> records;
  for (std::string line; std::getline(lines, line);) {
    try {
      records.push_back(readRecord(line));
    } catch (const nlohmann::json::exception& error) {
      throw std::runtime_error(file + ":" + std::to_string(records.size() + 1) + ": " + error.what());
    }
  }
  if (!lines.eof()) throw std::runtime_error("cannot read " + file);
  return records;
}

}  // namespace orvel::kills
