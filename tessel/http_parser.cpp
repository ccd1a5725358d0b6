// With http_request_parser.cpp, the only units that see Boost.Beast: its
// parser does the reading of response heads and of the chunked framing, in
// push mode, over bytes that the connection reads itself.

#include "tessel/http_parser.h"

// Under the sanitizers GCC takes a Boost.Optional inside Beast's parser for
// maybe uninitialized; the warning is about Boost's code, not ours.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <boost/beast/http/basic_parser.hpp>
#include <boost/beast/http/error.hpp>

#include <cstring>
#include <limits>
#include <optional>
#include <string>

namespace http = boost::beast::http;
using boost::beast::error_code;
using boost::beast::string_view;

namespace
{
  // Head fields go straight into the caller's response; body bytes straight
  // into the caller's block, as far as it has room.
  class Parser final : public http::basic_parser<false>
  {
  public:
    HTTP_Response* response = nullptr;
    char* out = nullptr;
    size_t space = 0;
    size_t delivered = 0;

  private:
    void on_request_impl(http::verb, string_view, string_view, int, error_code&) override {}

    void on_response_impl(int code, string_view reason, int version, error_code&) override
    {
      response->status(code);
      response->minor_version(version % 10);
      response->reason(reason.data(), reason.size());
    }

    void on_field_impl(http::field, string_view name, string_view value, error_code& ec) override
    {
      if (response->headers().put(name.data(), name.size(), value.data(), value.size(), false) == -1)
        ec = http::error::bad_field;
    }

    void on_header_impl(error_code&) override {}
    void on_body_init_impl(boost::optional<std::uint64_t> const&, error_code&) override {}
    std::size_t on_body_impl(string_view body, error_code& ec) override { return deliver(body, ec); }
    void on_chunk_header_impl(std::uint64_t, string_view, error_code&) override {}
    std::size_t on_chunk_body_impl(std::uint64_t, string_view body, error_code& ec) override
    {
      return deliver(body, ec);
    }
    void on_finish_impl(error_code&) override {}

    std::size_t deliver(string_view body, error_code& ec)
    {
      if (space == 0)
      {
        ec = http::error::need_buffer;
        return 0;
      }
      size_t n = body.size() < space ? body.size() : space;
      std::memcpy(out, body.data(), n);
      out += n;
      space -= n;
      delivered += n;
      return n;
    }
  };
}

struct HTTP_Response_Parser::Impl
{
  std::optional<Parser> parser;
  std::string error;
};

HTTP_Response_Parser::HTTP_Response_Parser() : impl_(new Impl) {}
HTTP_Response_Parser::~HTTP_Response_Parser() {}

void HTTP_Response_Parser::start(bool head_request)
{
  impl_->parser.emplace();
  Parser& p = *impl_->parser;
  p.header_limit(64 * 1024);
  p.body_limit((std::numeric_limits<std::uint64_t>::max)());
  p.eager(false);
  if (head_request)
    p.skip(true);
  impl_->error.clear();
}

int HTTP_Response_Parser::head(char const* data, size_t length, HTTP_Response& response, size_t& consumed)
{
  Parser& p = *impl_->parser;
  p.response = &response;
  error_code ec;
  consumed = p.put(boost::asio::const_buffer(data, length), ec);
  if (ec == http::error::need_more)
    return PARSE_MORE;
  if (ec)
  {
    impl_->error = ec.message();
    return PARSE_ERROR;
  }
  if (!p.is_header_done())
    return PARSE_MORE;
  p.eager(true);
  response.has_body(!p.is_done());
  return PARSE_DONE;
}

int HTTP_Response_Parser::body(char const* data, size_t length, char* out, size_t space, size_t& consumed,
                               size_t& delivered)
{
  Parser& p = *impl_->parser;
  consumed = 0;
  delivered = 0;
  if (p.is_done())
    return PARSE_DONE;
  p.out = out;
  p.space = space;
  p.delivered = 0;
  error_code ec;
  consumed = p.put(boost::asio::const_buffer(data, length), ec);
  delivered = p.delivered;
  if (p.is_done())
    return PARSE_DONE;
  if (ec == http::error::need_buffer)
    return PARSE_FULL;
  if (ec && ec != http::error::need_more)
  {
    impl_->error = ec.message();
    return PARSE_ERROR;
  }
  return PARSE_MORE;
}

int HTTP_Response_Parser::eof()
{
  Parser& p = *impl_->parser;
  if (p.is_done())
    return PARSE_DONE;
  if (!p.got_some())
  {
    impl_->error = "no response";
    return PARSE_ERROR;
  }
  error_code ec;
  p.put_eof(ec);
  if (ec)
  {
    impl_->error = ec.message();
    return PARSE_ERROR;
  }
  return p.is_done() ? PARSE_DONE : PARSE_ERROR;
}

bool HTTP_Response_Parser::done() const { return impl_->parser && impl_->parser->is_done(); }

bool HTTP_Response_Parser::keep_alive() const
{
  return impl_->parser && impl_->parser->is_header_done() && impl_->parser->keep_alive();
}

char const* HTTP_Response_Parser::error_text() const { return impl_->error.c_str(); }
