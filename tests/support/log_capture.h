#ifndef TESTS_SUPPORT_LOG_CAPTURE_H
#define TESTS_SUPPORT_LOG_CAPTURE_H

#include <ace/Log_Msg_Callback.h>
#include <ace/Log_Priority.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

class ACE_Log_Msg;
class ACE_Log_Record;

/// Collects ACE_Log_Msg output, all priorities, while it lives, and keeps it
/// off stderr.
///
/// ACE keeps the message callback and the thread priority mask in the
/// per-thread ACE_Log_Msg, so a capture sees the log lines of the thread
/// that created it. Another thread joins with an Attach on its own stack.
/// The output flags are process-wide: stderr stays off until the last
/// capture of the process is gone, whatever thread logs meanwhile.
class Log_Capture : public ACE_Log_Msg_Callback
{
public:
  Log_Capture();
  ~Log_Capture() override = default;
  Log_Capture(const Log_Capture&) = delete;
  Log_Capture& operator=(const Log_Capture&) = delete;

  /// One entry per logged message, as formatted, trailing newline included.
  std::vector<std::string> lines() const;
  /// All messages concatenated.
  std::string text() const;
  bool contains(const std::string& part) const { return count(part) > 0; }
  /// Number of messages that contain part.
  size_t count(const std::string& part) const;
  /// Number of messages of one ACE priority (LM_ERROR, LM_EMERGENCY, ...).
  size_t count_priority(unsigned long priority) const;
  bool empty() const { return lines().empty(); }
  void clear();

  /// Sends the log lines of the current thread to a capture while it
  /// lives. Must be destroyed on the thread that made it.
  class Attach
  {
  public:
    explicit Attach(Log_Capture& capture);
    ~Attach();
    Attach(const Attach&) = delete;
    Attach& operator=(const Attach&) = delete;

  private:
    ACE_Log_Msg* log_;
    ACE_Log_Msg_Callback* previous_callback_;
    unsigned long previous_mask_;
  };

  void log(ACE_Log_Record& record) override;

private:
  struct Entry
  {
    unsigned long priority;
    std::string text;
  };

  mutable std::mutex mutex_;
  std::vector<Entry> entries_;
  std::unique_ptr<Attach> own_thread_;
};

#endif
