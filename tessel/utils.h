#ifndef TESSEL_UTILS_H
#define TESSEL_UTILS_H

#include "tessel/tessel_export.h"

#include <ace/INET_Addr.h>
#include <string>

/// Writes a new random UUID (36 characters, lower case unless upper) into
/// out and returns it. Thread-safe.
TESSEL_EXPORT const std::string& uuid_string(std::string& out, bool upper = false);

/// The value of an environment variable, empty if unset. Safe against
/// concurrent readers.
TESSEL_EXPORT std::string get_env_r(const char* name);

/// Text of a socket address with its port, "1.2.3.4:80" or "[::1]:80",
/// numeric unless resolve is true. Empty if the address can't be converted.
class TESSEL_EXPORT ACE_Addr_String
{
public:
  explicit ACE_Addr_String(const ACE_Addr& addr, bool resolve = false);
  char const* c_str() const { return text_; }

private:
  char text_[96];
};

/// A sink of bytes.
class TESSEL_EXPORT IO_Base
{
public:
  virtual ~IO_Base();
  /// Bytes written; 0 or -1 mean failure, with errno set.
  virtual ssize_t write(char const* data, size_t length) = 0;
};

/// Waits of a repeat loop, doubling from `initial` up to `ceiling` seconds,
/// for at most `steps` waits. A default-constructed iterator is the end.
/// With doubling false every wait is `initial`.
class TESSEL_EXPORT Exponential_Backoff_Iterator
{
public:
  Exponential_Backoff_Iterator();
  Exponential_Backoff_Iterator(unsigned int initial, unsigned int steps, unsigned int ceiling, bool doubling);

  /// The current wait, in seconds.
  unsigned int operator*() const { return wait_; }
  Exponential_Backoff_Iterator& operator++();
  /// Sum of the waits passed so far, in seconds.
  unsigned long long cumulation() const { return cumulation_; }

  bool operator!=(const Exponential_Backoff_Iterator& other) const { return !(*this == other); }
  bool operator==(const Exponential_Backoff_Iterator& other) const;

private:
  bool at_end() const { return left_ == 0; }

  unsigned int wait_;
  unsigned int ceiling_;
  unsigned int left_;
  bool doubling_;
  unsigned long long cumulation_;
};

#endif
