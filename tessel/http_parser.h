#ifndef TESSEL_HTTP_PARSER_H
#define TESSEL_HTTP_PARSER_H

// The message layer's reader of HTTP bytes, with Boost.Beast kept behind
// it; not installed.

#include "tessel/http_message.h"

#include <cstddef>
#include <memory>

/// Response heads and body framing, from bytes pushed in as they come.
class HTTP_Response_Parser
{
public:
  enum Result
  {
    PARSE_ERROR = -1,
    PARSE_MORE = 0,   ///< all input taken; more is needed
    PARSE_DONE = 1,   ///< the head (or the body) is complete
    PARSE_FULL = 2    ///< the output space is full
  };

  HTTP_Response_Parser();
  ~HTTP_Response_Parser();

  /// A new message; the body of a response to HEAD is skipped.
  void start(bool head_request);
  /// Reads head bytes into response. consumed tells how many were taken.
  int head(char const* data, size_t length, HTTP_Response& response, size_t& consumed);
  /// Moves body bytes into out; consumed and delivered tell how many.
  int body(char const* data, size_t length, char* out, size_t space, size_t& consumed, size_t& delivered);
  /// The stream ended: PARSE_DONE for a body that ends so, else PARSE_ERROR.
  int eof();

  bool done() const;
  bool keep_alive() const;
  /// Text of the last failure.
  char const* error_text() const;

private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

#endif
