// The command line of the programs: options with their values, and the
// messages that name what was refused.
#ifndef PROGRAMS_PROGRAM_ARGS_H
#define PROGRAMS_PROGRAM_ARGS_H

//
// An option is "--name", "--name=VALUE" or "-x" (one letter); "--" ends the
// options. Anything else, "-" and "-1" among them, is an operand.

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace program
{
  class Args
  {
  public:
    Args(const char* program, int argc, char** argv) : program_(program), argc_(argc), argv_(argv), at_(0) {}

    /// Steps to the next argument; false at the end.
    bool next()
    {
      if (++at_ >= argc_)
        return false;
      arg_ = argv_[at_];
      inline_value_ = false;
      option_ = false;
      if (!operands_only_ && arg_ == "--")
      {
        operands_only_ = true;
        return next();
      }
      if (operands_only_)
        return true;
      if (arg_.size() > 2 && arg_.compare(0, 2, "--") == 0)
      {
        option_ = true;
        size_t equals = arg_.find('=');
        name_ = arg_.substr(0, equals);
        if (equals != std::string::npos)
        {
          value_ = arg_.substr(equals + 1);
          inline_value_ = true;
        }
      }
      else if (arg_.size() == 2 && arg_[0] == '-' && std::isalpha(static_cast<unsigned char>(arg_[1])))
      {
        option_ = true;
        name_ = arg_;
      }
      return true;
    }

    bool option() const { return option_; }
    /// The option's name as given, "--timeout" or "-h".
    const std::string& name() const { return name_; }
    bool is(const char* long_name, const char* short_name = nullptr) const
    {
      return option_ && (name_ == long_name || (short_name && name_ == short_name));
    }
    /// The operand as given.
    const std::string& arg() const { return arg_; }

    /// The option's value, from "=VALUE" or the next argument; false (said)
    /// when there is none.
    bool value(std::string& out)
    {
      if (inline_value_)
        out = value_;
      else if (at_ + 1 < argc_)
        out = argv_[++at_];
      else
      {
        std::fprintf(stderr, "%s: option '%s' needs a value\n", program_, name_.c_str());
        return hint();
      }
      return true;
    }

    /// An option that takes no value must not get one.
    bool flag()
    {
      if (!inline_value_)
        return true;
      std::fprintf(stderr, "%s: option '%s' takes no value\n", program_, name_.c_str());
      return hint();
    }

    /// A whole number from low to high as the option's value; false (said)
    /// for anything else.
    bool number(long long& out, long long low, long long high)
    {
      std::string text;
      if (!value(text))
        return false;
      char* end = nullptr;
      errno = 0;
      long long n = std::strtoll(text.c_str(), &end, 10);
      if (text.empty() || errno || *end || n < low || n > high)
      {
        std::fprintf(stderr, "%s: bad value '%s' for %s: a whole number from %lld to %lld\n", program_, text.c_str(),
                     name_.c_str(), low, high);
        return hint();
      }
      out = n;
      return true;
    }

    /// The current argument is no option of this program.
    bool unknown() const
    {
      std::fprintf(stderr, "%s: unknown option '%s'\n", program_, name_.c_str());
      return hint();
    }

    /// Any other refusal of the command line: the message, then the hint.
    bool refuse(const std::string& message) const
    {
      std::fprintf(stderr, "%s: %s\n", program_, message.c_str());
      return hint();
    }

  private:
    bool hint() const
    {
      std::fprintf(stderr, "Try '%s --help'.\n", program_);
      return false;
    }

    const char* program_;
    int argc_;
    char** argv_;
    int at_;
    std::string arg_;
    std::string name_;
    std::string value_;
    bool inline_value_ = false;
    bool option_ = false;
    bool operands_only_ = false;
  };
}

#endif
