#ifndef TESTS_SUPPORT_BIG_TEXT_H
#define TESTS_SUPPORT_BIG_TEXT_H

#include "tessel/yajl_gen.h"

#include <algorithm>
#include <string>
#include <vector>

/// A long text, prefix + unit * repeat + suffix, made piece by piece so that
/// a test never holds more than one piece of it.
struct Big_Text
{
  std::string prefix, unit, suffix;
  unsigned long long repeat;

  unsigned long long size() const { return prefix.size() + unit.size() * repeat + suffix.size(); }

  char at(unsigned long long i) const
  {
    if (i < prefix.size())
      return prefix[i];
    i -= prefix.size();
    if (i < unit.size() * repeat)
      return unit[i % unit.size()];
    return suffix[i - unit.size() * repeat];
  }

  /// Calls feed(data, length) for each piece; stops at the first false.
  template <class F>
  bool feed(unsigned long long piece, F feed) const
  {
    std::vector<char> buffer(piece);
    for (unsigned long long at = 0; at < size(); at += piece)
    {
      unsigned long long n = std::min(piece, size() - at);
      for (unsigned long long k = 0; k < n; ++k)
        buffer[k] = this->at(at + k);
      if (!feed(buffer.data(), n))
        return false;
    }
    return true;
  }
};

/// Compares what is printed with a Big_Text as it comes, holding none of it.
class Big_Text_Checker : public YAJL_Printer
{
public:
  explicit Big_Text_Checker(const Big_Text& expected) : expected_(expected) {}

  void print(char const* data, unsigned long long length) override
  {
    for (unsigned long long k = 0; k < length; ++k, ++printed_)
      if (first_difference_ == npos && (printed_ >= expected_.size() || data[k] != expected_.at(printed_)))
        first_difference_ = printed_;
  }

  /// True when exactly the expected text was printed.
  bool matches() const { return first_difference_ == npos && printed_ == expected_.size(); }
  unsigned long long printed() const { return printed_; }
  unsigned long long first_difference() const { return first_difference_; }

  static const unsigned long long npos = ~0ULL;

private:
  const Big_Text& expected_;
  unsigned long long printed_ = 0;
  unsigned long long first_difference_ = npos;
};

#endif
