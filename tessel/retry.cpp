#include "tessel/retry.h"
#include "tessel/utils.h"

#include <ace/Log_Msg.h>
#include <ace/OS_NS_unistd.h>

#include <atomic>

namespace
{
  void sleep_seconds(unsigned int seconds) { ACE_OS::sleep(seconds); }
  std::atomic<void (*)(unsigned int)> sleeper{&sleep_seconds};
}

void retry_sleeper(void (*s)(unsigned int)) { sleeper = s ? s : &sleep_seconds; }

int retry_with_backoff(int retries, int retry_timeout, const std::function<int()>& attempt, const char* file, int line)
{
  int counter = 1;
  Exponential_Backoff_Iterator it(1, 4294967295u, 60, true), end;
  for (;;)
  {
    int result = attempt();
    if (result != 0)
      return result;
    if (!(retries == -1 || counter <= retries))
      return 0;
    if (!(retry_timeout == -1 || it.cumulation() < static_cast<unsigned int>(retry_timeout)))
      return 0;
    if (!(it != end))
      return 0;
    unsigned int wait = *it;
    // As ACE_DEBUG does, but with the caller's place for %N:%l.
    ACE_Log_Msg* log = ACE_Log_Msg::instance();
    log->conditional_set(file, line, 0, ACE_Log_Msg::last_error_adapter());
    log->log(LM_INFO, "Retry(%d) %N:%l at %u second(s) later.\n", counter, wait);
    sleeper.load()(wait);
    ++counter;
    ++it;
  }
}
