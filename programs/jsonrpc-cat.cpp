// jsonrpc-cat: reads JSON-RPC messages, assembles each with JSON_RPC_Reader
// and writes it again with JSON_RPC_Writer, one message per output line.
//
// Input is never held as one text: bytes go to the reader as they arrive, in
// pieces of at most --piece bytes, so only the assembled object holds a
// message.

#include "program_args.h"

#include "json_rpc/json_rpc_generator.h"
#include "json_rpc/json_rpc_reader.h"
#include "tessel/yajl_gen.h"


#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <iostream>
#include <string>
#include <unistd.h>
#include <vector>

namespace
{
  const size_t block_size = 64 * 1024;

  void usage(std::ostream& os, char const* name)
  {
    os << "Usage: " << name << " [--piece N] [FILE...]\n"
       << "\n"
       << "Reads newline-delimited JSON-RPC messages from standard input, or one\n"
       << "message from each FILE, assembles each with JSON_RPC_Reader and writes it\n"
       << "on one line of standard output with JSON_RPC_Writer. A refused message is\n"
       << "reported on standard error and the next one is read. Blank lines are skipped.\n"
       << "\n"
       << "  -p, --piece N  feed the reader pieces of N bytes (default 4096; 1 feeds\n"
       << "                 single bytes)\n"
       << "  -h, --help     print this text\n"
       << "\n"
       << "Exit status:\n"
       << "  0  every message gave an object\n"
       << "  1  a message was refused or gave none\n"
       << "  2  bad usage (an unknown option, a bad value), or input that could not\n"
       << "     be read, or standard output that could not be written\n";
  }

  // Hands bytes of one message to the reader in pieces of exactly `piece`
  // bytes, the last one shorter; bytes of a piece that spans two input blocks
  // wait in pending_.
  class Feeder
  {
  public:
    Feeder(JSON_RPC_Reader& reader, size_t piece) : reader_(reader), piece_(piece), failed_(false) {}

    void start()
    {
      pending_.clear();
      failed_ = !reader_.open();
    }

    bool failed() const { return failed_; }

    void feed(char const* data, size_t length)
    {
      if (failed_)
        return;
      if (!pending_.empty())
      {
        size_t take = std::min(length, piece_ - pending_.size());
        pending_.insert(pending_.end(), data, data + take);
        data += take;
        length -= take;
        if (pending_.size() < piece_)
          return;
        if (!send(pending_.data(), pending_.size()))
          return;
        pending_.clear();
      }
      for (; length >= piece_; data += piece_, length -= piece_)
        if (!send(data, piece_))
          return;
      pending_.assign(data, data + length);
    }

    // Ends the message; the reader's object() is then what was assembled.
    bool finish()
    {
      if (!failed_ && !pending_.empty())
        send(pending_.data(), pending_.size());
      pending_.clear();
      if (!failed_ && !reader_.read(nullptr, 0))
        failed_ = true;
      return !failed_;
    }

  private:
    bool send(char const* data, size_t length)
    {
      if (!reader_.read(data, length))
        failed_ = true;
      return !failed_;
    }

    JSON_RPC_Reader& reader_;
    size_t piece_;
    std::vector<char> pending_;
    bool failed_;
  };

  class Cat
  {
  public:
    explicit Cat(size_t piece) : feeder_(reader_, piece), printer_(&std::cout), bad_(0) {}

    // Newline-delimited messages from fd, until end of input.
    bool lines(int fd, char const* name)
    {
      std::vector<char> block(block_size);
      unsigned long long line = 1;
      bool in_message = false;
      for (;;)
      {
        // Whatever is done is shown before the wait for more input.
        std::cout.flush();
        ssize_t n = read_block(fd, block, name);
        if (n < 0)
          return false;
        if (n == 0)
          break;
        char const* p = block.data();
        char const* end = p + n;
        while (p < end)
        {
          if (!in_message)
          {
            // Blank lines and the blanks before a message never reach the reader.
            for (; p < end && (*p == ' ' || *p == '\t' || *p == '\r' || *p == '\n'); ++p)
              if (*p == '\n')
                ++line;
            if (p == end)
              break;
            feeder_.start();
            in_message = true;
          }
          char const* nl = static_cast<char const*>(std::memchr(p, '\n', end - p));
          char const* stop = nl ? nl : end;
          feeder_.feed(p, stop - p);
          p = stop;
          if (nl)
          {
            done(name, line);
            in_message = false;
            ++line;
            ++p;
          }
        }
      }
      if (in_message)
        done(name, line);
      return true;
    }

    // The whole content of fd as one message.
    bool file(int fd, char const* name)
    {
      std::vector<char> block(block_size);
      feeder_.start();
      for (;;)
      {
        ssize_t n = read_block(fd, block, name);
        if (n < 0)
        {
          ++bad_;
          return false;
        }
        if (n == 0)
          break;
        feeder_.feed(block.data(), static_cast<size_t>(n));
      }
      done(name, 0);
      return true;
    }

    unsigned long long bad() const { return bad_; }

  private:
    // Bytes read into block; 0 at the end of input, -1 (reported) on an error.
    static ssize_t read_block(int fd, std::vector<char>& block, char const* name)
    {
      for (;;)
      {
        ssize_t n = ::read(fd, block.data(), block.size());
        if (n >= 0 || errno != EINTR)
        {
          if (n < 0)
            std::cerr << "jsonrpc-cat: " << name << ": " << std::strerror(errno) << "\n";
          return n;
        }
      }
    }

    void done(char const* name, unsigned long long line)
    {
      bool ok = feeder_.finish();
      JSON_RPC_Object_Ptr object = reader_.object();
      char const* problem = nullptr;
      if (!ok)
        problem = "message refused";
      else if (object.get() == nullptr)
        problem = "message assembled no object";
      else if (!writer_.write(*object, printer_))
        problem = "message could not be written";
      if (problem)
      {
        ++bad_;
        std::cerr << "jsonrpc-cat: " << name;
        if (line)
          std::cerr << ":" << line;
        std::cerr << ": " << problem;
        if (!ok)
          std::cerr << " (err=" << reader_.err << ")";
        std::cerr << "\n";
      }
      else
        std::cout.put('\n');
      // Drops the object now rather than at the next open().
      reader_.close();
    }

    JSON_RPC_Reader reader_;
    Feeder feeder_;
    JSON_RPC_Writer writer_;
    YAJL_OStream_Printer printer_;
    unsigned long long bad_;
  };
}

int main(int argc, char* argv[])
{
  std::ios::sync_with_stdio(false);
  size_t piece = 4096;
  std::vector<std::string> files;
  program::Args args("jsonrpc-cat", argc, argv);
  while (args.next())
  {
    if (!args.option())
      files.push_back(args.arg());
    else if (args.is("--help", "-h"))
    {
      if (!args.flag())
        return 2;
      usage(std::cout, "jsonrpc-cat");
      return 0;
    }
    else if (args.is("--piece", "-p"))
    {
      long long n;
      if (!args.number(n, 1, 1LL << 30))
        return 2;
      piece = static_cast<size_t>(n);
    }
    else
    {
      args.unknown();
      return 2;
    }
  }

  Cat cat(piece);
  bool input_ok = true;
  if (files.empty())
    input_ok = cat.lines(0, "<stdin>");
  for (const std::string& name : files)
  {
    int fd = ::open(name.c_str(), O_RDONLY);
    if (fd < 0)
    {
      std::cerr << "jsonrpc-cat: " << name << ": " << std::strerror(errno) << "\n";
      input_ok = false;
      continue;
    }
    input_ok = cat.file(fd, name.c_str()) && input_ok;
    ::close(fd);
  }

  std::cout.flush();
  if (!std::cout)
  {
    std::cerr << "jsonrpc-cat: failed to write standard output\n";
    return 2;
  }
  if (!input_ok)
    return 2;
  return cat.bad() ? 1 : 0;
}
