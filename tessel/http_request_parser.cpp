// Requests read by Boost.Beast's parser in push mode, over bytes a server
// reads itself, and each of its refusals turned into the status to answer.

#include "tessel/http_request_parser.h"

// Under the sanitizers GCC takes a Boost.Optional inside Beast's parser for
// maybe uninitialized; the warning is about Boost's code, not ours.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <boost/beast/http/basic_parser.hpp>
#include <boost/beast/http/error.hpp>

#include <strings.h>

#include <cctype>
#include <cstring>
#include <limits>
#include <optional>

namespace http = boost::beast::http;
using boost::beast::error_code;
using boost::beast::string_view;

namespace
{
  int method_number(http::verb verb)
  {
    switch (verb)
    {
      case http::verb::connect: return HTTP_Request::METHOD_CONNECT;
      case http::verb::copy: return HTTP_Request::METHOD_COPY;
      case http::verb::delete_: return HTTP_Request::METHOD_DELETE;
      case http::verb::get: return HTTP_Request::METHOD_GET;
      case http::verb::head: return HTTP_Request::METHOD_HEAD;
      case http::verb::mkcol: return HTTP_Request::METHOD_MKCOL;
      case http::verb::move: return HTTP_Request::METHOD_MOVE;
      case http::verb::options: return HTTP_Request::METHOD_OPTIONS;
      case http::verb::post: return HTTP_Request::METHOD_POST;
      case http::verb::put: return HTTP_Request::METHOD_PUT;
      case http::verb::patch: return HTTP_Request::METHOD_PATCH;
      case http::verb::trace: return HTTP_Request::METHOD_TRACE;
      default: return -1;
    }
  }

  // Beast takes only chunked as a coding and, when the last one is
  // something else, gives a request no body at all; a body framed so must
  // not pass. 0 when the codings are just "chunked".
  int check_transfer_codings(const HTTP_Headers& headers, char const*& why)
  {
    bool present = false;
    size_t codings = 0;
    bool chunked_last = false;
    bool chunked_before = false;
    bool unknown = false;
    for (size_t i = 0; i < headers.size(); ++i)
    {
      if (strcasecmp(headers.name_at(i), "Transfer-Encoding") != 0)
        continue;
      present = true;
      for (char const* at = headers.value_at(i); *at;)
      {
        char const* end = at;
        while (*end && *end != ',')
          ++end;
        char const* next = *end ? end + 1 : end;
        while (at != end && (*at == ' ' || *at == '\t'))
          ++at;
        while (end != at && (end[-1] == ' ' || end[-1] == '\t'))
          --end;
        if (at != end)
        {
          chunked_before = chunked_before || chunked_last;
          unknown = unknown || (codings > 0 && !chunked_last);
          chunked_last = end - at == 7 && strncasecmp(at, "chunked", 7) == 0;
          ++codings;
        }
        at = next;
      }
    }
    if (!present)
      return 0;
    if (!chunked_last || chunked_before)
    {
      why = "the body's length is unknown: Transfer-Encoding does not end in one chunked";
      return 400;
    }
    if (unknown)
    {
      why = "unsupported transfer-coding";
      return 501;
    }
    return 0;
  }

  // Beast takes any version other than 1.0 and 1.1 for a bad one. One
  // well written is not supported; one that is not is a bad request line.
  int version_status(char const* data, size_t length)
  {
    char const* end = static_cast<char const*>(std::memchr(data, '\r', length));
    if (!end)
      end = data + length;
    char const* v = end;
    while (v != data && v[-1] != ' ')
      --v;
    bool well_formed = end - v == 8 && std::memcmp(v, "HTTP/", 5) == 0 && std::isdigit((unsigned char)v[5]) &&
                       v[6] == '.' && std::isdigit((unsigned char)v[7]);
    return well_formed ? 505 : 400;
  }

  class Parser final : public http::basic_parser<true>
  {
  public:
    HTTP_Request_Head* head = nullptr;
    HTTP_Headers* trailers = nullptr;
    HTTP_Request_Parser::Handler* handler = nullptr;
    size_t field_limit = 0;
    // A refusal of ours, which Beast only carries out.
    int status = 0;
    char const* why = nullptr;

  private:
    size_t fields_ = 0;
    std::string target_;

    void refuse(int code, char const* text, error_code& ec)
    {
      status = code;
      why = text;
      ec = http::error::bad_value;
    }

    void on_request_impl(http::verb verb, string_view method, string_view target, int version,
                         error_code&) override
    {
      head->request.headers().clear();
      head->request.method(method_number(verb));
      head->method.assign(method.data(), method.size());
      target_.assign(target.data(), target.size());
      head->request.uri(target_.c_str(), true);
      head->request.minor_version(version % 10);
      trailers->clear();
    }

    void on_response_impl(int, string_view, int, error_code&) override {}

    void on_field_impl(http::field, string_view name, string_view value, error_code& ec) override
    {
      if (++fields_ > field_limit)
        return refuse(431, "too many header fields", ec);
      HTTP_Headers& to = is_header_done() ? *trailers : head->request.headers();
      if (to.put(name.data(), name.size(), value.data(), value.size(), false) == -1)
        ec = http::error::bad_field;
    }

    void on_header_impl(error_code& ec) override
    {
      char const* text = nullptr;
      if (int code = check_transfer_codings(head->request.headers(), text))
        return refuse(code, text, ec);
      fields_ = 0;
      head->keep_alive = keep_alive();
      head->expect_continue =
        head->request.minor_version() == 1 && http_header_value_match(head->request.headers().get(HTTP_Headers::EXPECT), "100-continue", ',');
      head->chunked = chunked();
      boost::optional<std::uint64_t> length = content_length();
      head->has_content_length = length.has_value();
      head->content_length = length.value_or(0);
      handler->on_head(*head);
    }

    void on_body_init_impl(boost::optional<std::uint64_t> const&, error_code&) override {}

    std::size_t on_body_impl(string_view body, error_code&) override
    {
      handler->on_body(body.data(), body.size());
      return body.size();
    }

    void on_chunk_header_impl(std::uint64_t, string_view, error_code&) override {}

    std::size_t on_chunk_body_impl(std::uint64_t, string_view body, error_code& ec) override
    {
      return on_body_impl(body, ec);
    }

    void on_finish_impl(error_code&) override {}
  };
}

HTTP_Request_Parser::Handler::~Handler() {}

struct HTTP_Request_Parser::Impl
{
  Options options;
  std::optional<Parser> parser;
  HTTP_Request_Head head;
  HTTP_Headers trailers;
  // Bytes taken that end no element yet: Beast reads a head, a chunk line
  // or a trailer only whole.
  std::string pending;
  // Bytes of the head Beast has taken so far.
  size_t head_used = 0;
  int status = 0;
  std::string reason;
  bool last = false;

  void start()
  {
    parser.emplace();
    head_used = 0;
    Parser& p = *parser;
    p.header_limit(static_cast<std::uint32_t>(
      (std::min<size_t>)(options.header_limit, (std::numeric_limits<std::uint32_t>::max)())));
    // Beast's own default is 1 MB; none is ours.
    p.body_limit(options.body_limit ? options.body_limit : (std::numeric_limits<std::uint64_t>::max)());
    p.eager(true);
    p.head = &head;
    p.trailers = &trailers;
    p.field_limit = options.field_limit;
  }

  void refuse(int code, char const* why)
  {
    status = code;
    reason = why;
    pending.clear();
  }

  void refuse(const error_code& ec, char const* data, size_t length)
  {
    Parser& p = *parser;
    if (p.status)
      refuse(p.status, p.why);
    else if (ec == http::error::header_limit)
      refuse(431, p.is_header_done() ? "chunk line or trailer too large" : "header too large");
    else if (ec == http::error::body_limit)
      refuse(413, "body too large");
    else if (ec == http::error::bad_version)
    {
      int code = version_status(data, length);
      refuse(code, code == 505 ? "HTTP version not supported" : "bad request line");
    }
    else
      refuse(400, ec.message().c_str());
  }
};

HTTP_Request_Parser::HTTP_Request_Parser() : impl_(new Impl) {}

HTTP_Request_Parser::HTTP_Request_Parser(const Options& options) : impl_(new Impl)
{
  impl_->options = options;
}

HTTP_Request_Parser::~HTTP_Request_Parser() {}

int HTTP_Request_Parser::feed(char const* data, size_t length, Handler& handler, size_t& consumed)
{
  Impl& s = *impl_;
  consumed = 0;
  if (s.status)
    return PARSE_ERROR;
  if (s.last)
    return PARSE_LAST;

  // Bytes kept from before come first; what follows them is added on.
  size_t held = s.pending.size();
  if (held)
  {
    s.pending.append(data, length);
    data = s.pending.data();
    length = s.pending.size();
  }
  size_t at = 0;
  int result = PARSE_MORE;
  while (at < length)
  {
    if (!s.parser)
      s.start();
    Parser& p = *s.parser;
    p.handler = &handler;
    // Beast bounds the start line and the fields each on its own, and no
    // chunk line or trailer at all: a window bounds the head as a whole and
    // each of those, the same whatever the cuts. Body pieces come no larger.
    bool in_head = !p.is_header_done();
    size_t window = (std::min)(length - at, s.options.header_limit - (in_head ? s.head_used : 0));
    error_code ec;
    size_t used = p.put(boost::asio::const_buffer(data + at, window), ec);
    at += used;
    if (!p.is_header_done())
      s.head_used += used;
    if (ec == http::error::need_more && used == 0 && window < length - at)
      ec = http::error::header_limit;
    if (ec && ec != http::error::need_more)
    {
      s.refuse(ec, data + at, window - used);
      consumed = length - held;
      return PARSE_ERROR;
    }
    if (!p.is_done())
    {
      if (ec && used == 0)
        break;
      continue;
    }
    bool keep_alive = p.keep_alive();
    s.parser.reset();
    bool go_on = handler.on_end(s.trailers);
    if (!keep_alive)
    {
      s.last = true;
      result = PARSE_LAST;
    }
    else if (!go_on)
      result = PARSE_PAUSED;
    if (result != PARSE_MORE)
    {
      // The kept bytes are all of the message that ended.
      consumed = at - held;
      s.pending.clear();
      return result;
    }
  }

  consumed = length - held;
  if (held)
    s.pending.erase(0, at);
  else
    s.pending.assign(data + at, length - at);
  return PARSE_MORE;
}

bool HTTP_Request_Parser::idle() const
{
  return !impl_->status && impl_->pending.empty() && (!impl_->parser || !impl_->parser->got_some());
}

int HTTP_Request_Parser::status() const { return impl_->status; }

char const* HTTP_Request_Parser::reason() const { return impl_->reason.c_str(); }

void HTTP_Request_Parser::reset()
{
  Impl& s = *impl_;
  s.parser.reset();
  s.pending.clear();
  s.status = 0;
  s.reason.clear();
  s.last = false;
}
