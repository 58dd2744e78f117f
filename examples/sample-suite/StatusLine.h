// A small client: one line about the device, always as it is now.
#pragma once

#include <mutex>
#include <string>

// "Kitchen Display, screen on, alarm at 5". Any thread.
class StatusLine {
 public:
  // Asks for everything, and to be told of what changes. False when the device cannot be asked.
  bool start();

  std::string text() const;

  // What the assistant has said last, and what became of the event that told it so.
  std::string said() const;
  bool acknowledge();
  std::string acknowledged() const;

 private:
  mutable std::mutex m_mutex;  // guards everything below; not held while the client is called
  std::string m_name;
  bool m_screen_on = false;
  int m_alarm = 0;
  std::string m_said;
  std::string m_acknowledged;
};
