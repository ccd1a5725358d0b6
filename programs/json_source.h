// The JSON document of a command-line operand (text, @FILE or - for
// standard input), generated while it is read, never held whole.
#ifndef PROGRAMS_JSON_SOURCE_H
#define PROGRAMS_JSON_SOURCE_H

#include "tessel/yajl_gen.h"

#include <string>

namespace program
{
  /// Reads its document in blocks through YAJL and repeats each token on
  /// the generator it is run on: memory stays that of a block and of the
  /// longest token, whatever the size. The text is checked as it goes; a
  /// bad one stops the generator, with error() saying where.
  class JSON_Source : public JSON_Generator
  {
  public:
    JSON_Source();
    ~JSON_Source() override;
    JSON_Source(const JSON_Source&) = delete;
    JSON_Source& operator=(const JSON_Source&) = delete;

    /// operand: JSON text, "@FILE" or "-"; label names text in messages.
    /// A file is opened here, and text is checked here; false with error()
    /// set.
    bool open(const std::string& operand, const std::string& label);
    /// From a file or standard input rather than the command line.
    bool streamed() const { return fd_ >= 0; }
    /// Size of a regular file; -1 for standard input or a pipe.
    long long size() const { return size_; }
    /// Bytes beyond which the generator gives up (0: no limit), with why()
    /// as the reason it gives.
    void limit(unsigned long long bytes, const std::string& why);
    /// What went wrong, naming the operand.
    const std::string& error() const { return error_; }
    /// Bytes of input read by the last run.
    unsigned long long bytes_read() const { return read_; }

    bool generate_i(YAJL_Gen& gen) override;

  private:
    // Hands the next piece of input to fill; 0 at the end, -1 on failure.
    long long next_piece(char* block, size_t length, size_t& used);
    bool fail(const std::string& what);

    std::string name_;
    std::string text_;
    int fd_;
    bool own_fd_;
    long long size_;
    unsigned long long limit_;
    std::string limit_why_;
    unsigned long long read_;
    bool ran_;
    std::string error_;
  };
}

#endif
