// A server's reader of HTTP/1.x requests, from bytes pushed in as they
// come; Boost.Beast does the reading behind it. Not installed.

#ifndef TESSEL_HTTP_REQUEST_PARSER_H
#define TESSEL_HTTP_REQUEST_PARSER_H

#include "tessel/http_message.h"
#include "tessel/tessel_export.h"

#include <cstddef>
#include <memory>
#include <string>

/// What the head of a request says, beyond its fields.
struct TESSEL_EXPORT HTTP_Request_Head
{
  /// Method (-1 for one outside HTTP_Request's table), target, minor
  /// version and fields.
  HTTP_Request request;
  /// The method as sent.
  std::string method;
  /// From the version and Connection, as Beast decides it.
  bool keep_alive = false;
  /// "Expect: 100-continue" in an HTTP/1.1 request.
  bool expect_continue = false;
  bool chunked = false;
  /// Content-Length, when the body is framed by one.
  bool has_content_length = false;
  unsigned long long content_length = 0;
};

/// Requests one after another on one connection. Bytes go in with feed as
/// they are read; what they make comes out through a Handler at once:
/// heads, body pieces (never collected), ends. A refusal stops the parser
/// with the status the server should answer.
class TESSEL_EXPORT HTTP_Request_Parser
{
public:
  enum Result
  {
    PARSE_ERROR = -1,  ///< refused: status() and reason() say why
    PARSE_MORE = 0,    ///< all input taken; more is needed
    PARSE_PAUSED = 1,  ///< the handler paused after a message ends
    PARSE_LAST = 2     ///< a message ended that closes the connection
  };

  struct Options
  {
    /// Bytes of a head, and of a chunk line or trailer.
    size_t header_limit = 8192;
    /// Fields in a head, and in its trailer.
    size_t field_limit = 100;
    /// Bytes of one body; 0: no limit.
    unsigned long long body_limit = 0;
  };

  class TESSEL_EXPORT Handler
  {
  public:
    virtual ~Handler();
    virtual void on_head(const HTTP_Request_Head& head) = 0;
    /// The next piece of the body, decoded; valid during the call only.
    virtual void on_body(char const* data, size_t length) = 0;
    /// The message is complete. False pauses feed just after it.
    virtual bool on_end(const HTTP_Headers& trailers) = 0;
  };

  HTTP_Request_Parser();
  explicit HTTP_Request_Parser(const Options& options);
  ~HTTP_Request_Parser();

  /// Reads from data; consumed tells how many bytes were taken. With
  /// PARSE_PAUSED or PARSE_LAST the bytes after the message that ended are
  /// left; after PARSE_PAUSED they go to the next call. Bytes that end no
  /// element yet are kept inside, up to header_limit.
  int feed(char const* data, size_t length, Handler& handler, size_t& consumed);

  /// Between messages, with no byte of a next one: a close here loses
  /// nothing.
  bool idle() const;
  /// 0, or the status that answers a refusal: 400, 413, 431, 501 or 505.
  int status() const;
  /// Why, in a few words; empty without a refusal.
  char const* reason() const;
  /// As new, for another connection.
  void reset();

private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

#endif
