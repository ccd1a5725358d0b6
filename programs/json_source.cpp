// The JSON document of a command-line operand, read in blocks and repeated
// token by token on a generator.
#include "json_source.h"

#include <yajl/yajl_parse.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace program
{
  namespace
  {
    const size_t block_size = 64 * 1024;
  }

  JSON_Source::JSON_Source()
    : fd_(-1), own_fd_(false), size_(-1), limit_(0), read_(0), ran_(false)
  {
  }

  JSON_Source::~JSON_Source()
  {
    if (own_fd_)
      ::close(fd_);
  }

  bool JSON_Source::open(const std::string& operand, const std::string& label)
  {
    if (operand == "-")
    {
      name_ = "standard input";
      fd_ = 0;
    }
    else if (!operand.empty() && operand[0] == '@')
    {
      name_ = operand.substr(1);
      fd_ = ::open(name_.c_str(), O_RDONLY | O_CLOEXEC);
      if (fd_ < 0)
        return fail(std::string("can't read it: ") + std::strerror(errno));
      own_fd_ = true;
    }
    else
    {
      name_ = label + " '" + operand + "'";
      text_ = operand;
      // Text from the command line is checked before anything is sent: a
      // run on no generator only parses.
      YAJL_Gen nowhere(nullptr);
      return generate_i(nowhere);
    }
    struct stat st;
    if (::fstat(fd_, &st) == 0 && S_ISREG(st.st_mode))
      size_ = static_cast<long long>(st.st_size);
    else if (::fstat(fd_, &st) == 0 && S_ISDIR(st.st_mode))
      return fail("can't read it: it is a directory");
    return true;
  }

  void JSON_Source::limit(unsigned long long bytes, const std::string& why)
  {
    limit_ = bytes;
    limit_why_ = why;
  }

  bool JSON_Source::fail(const std::string& what)
  {
    error_ = name_ + ": " + what;
    return false;
  }

  long long JSON_Source::next_piece(char* block, size_t length, size_t& used)
  {
    if (fd_ < 0)
    {
      size_t n = std::min(length, text_.size() - used);
      std::memcpy(block, text_.data() + used, n);
      used += n;
      return static_cast<long long>(n);
    }
    for (;;)
    {
      ssize_t n = ::read(fd_, block, length);
      if (n >= 0)
        return n;
      if (errno != EINTR)
      {
        fail(std::string("read failed: ") + std::strerror(errno));
        return -1;
      }
    }
  }

  bool JSON_Source::generate_i(YAJL_Gen& gen)
  {
    // A second run (a repeated send) starts the file again; a pipe can't.
    if (ran_ && fd_ >= 0 && ::lseek(fd_, 0, SEEK_SET) != 0)
      return fail("can be sent only once");
    if (fd_ >= 0)
      ran_ = true;
    read_ = 0;
    error_.clear();
    std::vector<char> block(block_size);
    size_t used = 0;
    YAJL_Forward_Handler forward(gen.get());
    YAJL_Feeder feeder;
    yajl_handle handle = feeder.alloc_handle(forward);
    bool ok = handle != nullptr;
    if (!ok)
      fail("out of memory");
    while (ok)
    {
      long long n = next_piece(block.data(), block.size(), used);
      if (n < 0)
        ok = false;
      else if (limit_ && read_ + static_cast<unsigned long long>(n) > limit_)
        ok = fail(limit_why_);
      else
      {
        read_ += static_cast<unsigned long long>(n);
        yajl_status status = feeder.feed(handle, n ? block.data() : nullptr, static_cast<size_t>(n));
        if (status != yajl_status_ok)
        {
          // Where YAJL stopped: the last text it was given ends at read_.
          unsigned long long at = read_;
          if (feeder.data())
            at = read_ - feeder.length() + yajl_get_bytes_consumed(handle);
          std::string why = status == yajl_status_client_canceled
                              ? "nested deeper than a message may be (127 levels)"
                              : YAJL_Error(handle, false, nullptr, 0).c_str();
          while (!why.empty() && (why.back() == '\n' || why.back() == ' '))
            why.pop_back();
          ok = fail("not one JSON document: " + why + " (at byte " + std::to_string(at) + ")");
        }
        else if (n == 0)
          break;
      }
    }
    if (handle)
      yajl_free(handle);
    return ok;
  }
}
