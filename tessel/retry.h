#ifndef TESSEL_RETRY_H
#define TESSEL_RETRY_H

#include "tessel/tessel_export.h"

#include <functional>

/// The one repeat loop of the system. attempt() gives 1 (done), -1 (failed
/// for good: no repeat) or 0 (failed, may be repeated). Between attempts it
/// waits as Exponential_Backoff_Iterator(1, 4294967295, 60, true) says,
/// logging "Retry(%d) ..." at info priority, while retries (-1: no limit;
/// n: at most n + 1 attempts) and retry_timeout (seconds of waiting in all;
/// -1: no limit) allow. Returns the last result of attempt(): 0 means the
/// limits ended the repeats. The log line names file and line, which default
/// to the caller's, so that it tells which repeat it is.
TESSEL_EXPORT int retry_with_backoff(int retries, int retry_timeout, const std::function<int()>& attempt,
                                     const char* file = __builtin_FILE(), int line = __builtin_LINE());

/// How the loop waits; tests may shorten it. Default: ACE_OS::sleep.
TESSEL_EXPORT void retry_sleeper(void (*sleeper)(unsigned int seconds));

#endif
