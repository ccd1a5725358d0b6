#include "log_capture.h"

#include <ace/Log_Msg.h>
#include <ace/Log_Priority.h>
#include <ace/Log_Record.h>

#include <algorithm>

namespace
{
  // The output flags of ACE_Log_Msg are shared by all threads: the first
  // capture takes them over, the last one gives them back.
  std::mutex flags_mutex;
  unsigned int captures = 0;
  bool stderr_was_on = false;
  bool callback_was_on = false;

  const unsigned long all_priorities = LM_SHUTDOWN | LM_TRACE | LM_DEBUG | LM_INFO | LM_NOTICE | LM_WARNING |
                                       LM_STARTUP | LM_ERROR | LM_CRITICAL | LM_ALERT | LM_EMERGENCY;

  void take_flags()
  {
    std::lock_guard<std::mutex> guard(flags_mutex);
    if (captures++ > 0)
      return;
    ACE_Log_Msg* log = ACE_Log_Msg::instance();
    stderr_was_on = log->flags() & ACE_Log_Msg::STDERR;
    callback_was_on = log->flags() & ACE_Log_Msg::MSG_CALLBACK;
    log->clr_flags(ACE_Log_Msg::STDERR);
    log->set_flags(ACE_Log_Msg::MSG_CALLBACK);
  }

  void give_flags()
  {
    std::lock_guard<std::mutex> guard(flags_mutex);
    if (--captures > 0)
      return;
    ACE_Log_Msg* log = ACE_Log_Msg::instance();
    if (stderr_was_on)
      log->set_flags(ACE_Log_Msg::STDERR);
    if (!callback_was_on)
      log->clr_flags(ACE_Log_Msg::MSG_CALLBACK);
  }
}

Log_Capture::Attach::Attach(Log_Capture& capture)
  : log_(ACE_Log_Msg::instance()), previous_callback_(log_->msg_callback(&capture)),
    previous_mask_(log_->priority_mask(ACE_Log_Msg::THREAD))
{
  log_->priority_mask(all_priorities, ACE_Log_Msg::THREAD);
  take_flags();
}

Log_Capture::Attach::~Attach()
{
  give_flags();
  log_->priority_mask(previous_mask_, ACE_Log_Msg::THREAD);
  log_->msg_callback(previous_callback_);
}

Log_Capture::Log_Capture() : own_thread_(new Attach(*this)) {}

void Log_Capture::log(ACE_Log_Record& record)
{
  Entry entry{record.type(), record.msg_data() ? std::string(record.msg_data()) : std::string()};
  std::lock_guard<std::mutex> guard(mutex_);
  entries_.push_back(std::move(entry));
}

std::vector<std::string> Log_Capture::lines() const
{
  std::lock_guard<std::mutex> guard(mutex_);
  std::vector<std::string> out;
  for (const Entry& e : entries_)
    out.push_back(e.text);
  return out;
}

std::string Log_Capture::text() const
{
  std::string out;
  for (const std::string& line : lines())
    out += line;
  return out;
}

size_t Log_Capture::count(const std::string& part) const
{
  std::vector<std::string> all = lines();
  return std::count_if(all.begin(), all.end(), [&](const std::string& l) { return l.find(part) != std::string::npos; });
}

size_t Log_Capture::count_priority(unsigned long priority) const
{
  std::lock_guard<std::mutex> guard(mutex_);
  return std::count_if(entries_.begin(), entries_.end(), [&](const Entry& e) { return e.priority == priority; });
}

void Log_Capture::clear()
{
  std::lock_guard<std::mutex> guard(mutex_);
  entries_.clear();
}
