// A session's connection to a server: the request head and body written out,
// the response read back through the parser, and the retry on a fresh
// connection when a kept one turns out closed.

#include "tessel/http_client_connection.h"
#include "tessel/http_session.h"

#include <ace/Log_Msg.h>
#include <ace/OS_NS_stdlib.h>

#include <strings.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace
{
  const size_t receive_capacity = 64 * 1024 + 1024;
  const size_t chunk_capacity = 16 * 1024;
  // What an unread body may cost before its connection is given up instead.
  const size_t drain_budget = 64 * 1024;
  const int drain_seconds = 2;

  bool idempotent(int method)
  {
    switch (method)
    {
    case HTTP_Request::METHOD_GET:
    case HTTP_Request::METHOD_HEAD:
    case HTTP_Request::METHOD_DELETE:
    case HTTP_Request::METHOD_PUT:
    case HTTP_Request::METHOD_OPTIONS:
    case HTTP_Request::METHOD_TRACE:
      return true;
    }
    return false;
  }
}

HTTP_Client_Connection::HTTP_Client_Connection(const HTTP_Endpoint& endpoint, std::unique_ptr<HTTP_Transport> transport)
  : endpoint_(endpoint), host_field_(endpoint.host_field()), transport_(std::move(transport)), session_(nullptr),
    state_(STATE_BODY_END), error_(0), receive_(new char[receive_capacity]), body_(new char[chunk_capacity])
{
}

HTTP_Client_Connection::~HTTP_Client_Connection() {}

void HTTP_Client_Connection::begin(HTTP_Session* session, const HTTP_Request& request, char const* uri, bool reused)
{
  session_ = session;
  const HTTP_Headers& own = request.headers();
  chunked_ = request.chunked();
  char const* length = own.get(HTTP_Headers::CONTENT_LENGTH);
  fixed_ = !chunked_ && length;
  declared_ = fixed_ ? ACE_OS::strtoull(length, nullptr, 10) : 0;
  written_ = 0;
  head_request_ = request.method() == HTTP_Request::METHOD_HEAD;
  idempotent_ = idempotent(request.method());
  close_asked_ = http_header_value_match(own.get(HTTP_Headers::CONNECTION), "close", ',');
  reused_ = reused;
  ended_by_close_ = false;
  received_ = 0;
  head_sent_ = false;
  waiting_ = false;
  body_used_ = 0;
  begin_ = end_ = 0;
  state_ = STATE_REQUEST;
  error_ = 0;

  char const* method = HTTP_Request::method_name(request.method());
  head_.clear();
  head_ += method ? method : "GET";
  head_ += ' ';
  head_ += uri;
  head_ += " HTTP/1.1\r\n";
  if (!own.get(HTTP_Headers::HOST))
  {
    head_ += "Host: ";
    head_ += host_field_;
    head_ += "\r\n";
  }
  const HTTP_Headers& common = session->headers();
  for (size_t i = 0; i < common.size(); ++i)
    if (!own.get(common.name_at(i)))
    {
      head_ += common.name_at(i);
      head_ += ": ";
      head_ += common.value_at(i);
      head_ += "\r\n";
    }
  for (size_t i = 0; i < own.size(); ++i)
  {
    // Both framings at once would be a lie to the server: chunked wins.
    if (chunked_ && ::strcasecmp(own.name_at(i), "Content-Length") == 0)
      continue;
    head_ += own.name_at(i);
    head_ += ": ";
    head_ += own.value_at(i);
    head_ += "\r\n";
  }
  if (!own.get(HTTP_Headers::COOKIE))
  {
    session->cookies_->cookie_field(endpoint_.server_name.empty() ? endpoint_.host : endpoint_.server_name, uri,
                                    endpoint_.ssl, cookie_);
    if (!cookie_.empty())
    {
      head_ += "Cookie: ";
      head_ += cookie_;
      head_ += "\r\n";
    }
  }
  head_ += "\r\n";
  // For the cookies of the response.
  cookie_.assign(uri);
}

int HTTP_Client_Connection::send_body(char const* data, size_t length, bool final)
{
  static char crlf[] = "\r\n";
  static char last[] = "0\r\n\r\n";
  iovec iov[5];
  int n = 0;
  if (!head_sent_)
    iov[n++] = {const_cast<char*>(head_.data()), head_.size()};
  char size_line[24];
  if (length > 0)
  {
    if (chunked_)
    {
      int k = std::snprintf(size_line, sizeof size_line, "%zx\r\n", length);
      iov[n++] = {size_line, static_cast<size_t>(k)};
      iov[n++] = {const_cast<char*>(data), length};
      iov[n++] = {crlf, 2};
    }
    else
      iov[n++] = {const_cast<char*>(data), length};
  }
  if (final && chunked_)
    iov[n++] = {last, 5};
  if (n == 0)
    return 0;
  if (transport_->send(iov, n) == -1)
    return -1;
  head_sent_ = true;
  return 0;
}

ssize_t HTTP_Client_Connection::write(char const* data, size_t length)
{
  if (state_ != STATE_REQUEST || waiting_)
  {
    errno = state_ == STATE_CLOSED ? error_ : EINVAL;
    return -1;
  }
  if (length == 0)
    return 0;
  if (!data || (!chunked_ && !fixed_) || (fixed_ && written_ + length > declared_))
  {
    ACE_ERROR((LM_ERROR, "HTTP request body to %C does not fit the request's framing.\n",
               endpoint_.origin().c_str()));
    return fail(EINVAL);
  }
  written_ += length;
  if (body_used_ + length <= chunk_capacity)
  {
    std::memcpy(body_.get() + body_used_, data, length);
    body_used_ += length;
    if (body_used_ == chunk_capacity && flush(false) == -1)
      return fail(errno);
    return static_cast<ssize_t>(length);
  }
  if (body_used_ > 0 && flush(false) == -1)
    return fail(errno);
  if (length >= chunk_capacity)
  {
    if (send_body(data, length, false) == -1)
      return fail(errno);
  }
  else
  {
    std::memcpy(body_.get(), data, length);
    body_used_ = length;
  }
  return static_cast<ssize_t>(length);
}

bool HTTP_Client_Connection::reconnect()
{
  if (!reused_ || !idempotent_ || written_ > 0 || received_ > 0 || !session_)
    return false;
  std::unique_ptr<HTTP_Transport> fresh = session_->connect(endpoint_);
  if (!fresh)
    return false;
  transport_ = std::move(fresh);
  reused_ = false;
  requests_ = 0;
  head_sent_ = false;
  begin_ = end_ = 0;
  body_used_ = 0;
  return flush(true) == 0;
}

ssize_t HTTP_Client_Connection::receive()
{
  if (begin_ > 0)
  {
    std::memmove(receive_.get(), receive_.get() + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
  }
  if (end_ == receive_capacity)
  {
    errno = EPROTO;
    return -1;
  }
  ssize_t n = transport_->recv(receive_.get() + end_, receive_capacity - end_);
  if (n > 0)
  {
    end_ += static_cast<size_t>(n);
    received_ += static_cast<unsigned long long>(n);
  }
  return n;
}

int HTTP_Client_Connection::read_response(HTTP_Response& response)
{
  if (state_ != STATE_REQUEST || waiting_)
  {
    errno = state_ == STATE_CLOSED ? error_ : EINVAL;
    return -1;
  }
  if (fixed_ && written_ < declared_)
  {
    ACE_ERROR((LM_ERROR, "HTTP request body to %C ended %Q bytes short of its Content-Length.\n",
               endpoint_.origin().c_str(), declared_ - written_));
    return fail(EINVAL);
  }
  waiting_ = true;
  if (flush(true) == -1 && !reconnect())
    return fail(errno);
  response.reset();
  parser_.start(head_request_);
  for (;;)
  {
    if (begin_ < end_)
    {
      size_t consumed = 0;
      int r = parser_.head(receive_.get() + begin_, end_ - begin_, response, consumed);
      begin_ += consumed;
      if (r == HTTP_Response_Parser::PARSE_ERROR)
      {
        ACE_ERROR((LM_ERROR, "Bad HTTP response head from %C: %C\n", endpoint_.origin().c_str(),
                   parser_.error_text()));
        return fail(EPROTO);
      }
      if (r == HTTP_Response_Parser::PARSE_DONE)
      {
        // An interim answer (100 Continue and the like): the real one follows.
        if (response.status() >= 100 && response.status() < 200 && response.status() != 101)
        {
          response.reset();
          parser_.start(head_request_);
          continue;
        }
        break;
      }
    }
    ssize_t n = receive();
    if (n > 0)
      continue;
    int e = n == 0 ? ECONNRESET : errno;
    if (e != ETIME && reconnect())
    {
      response.reset();
      parser_.start(head_request_);
      continue;
    }
    return fail(e);
  }
  waiting_ = false;
  ++requests_;
  const HTTP_Headers& fields = response.headers();
  for (size_t i = 0; i < fields.size(); ++i)
    if (::strcasecmp(fields.name_at(i), "Set-Cookie") == 0)
      session_->cookies_->store(fields.value_at(i),
                                endpoint_.server_name.empty() ? endpoint_.host : endpoint_.server_name,
                                cookie_.c_str(), endpoint_.ssl);
  state_ = response.has_body() ? STATE_RESPONSE : STATE_BODY_END;
  return 0;
}

ssize_t HTTP_Client_Connection::read_body(ACE_Message_Block* block, const ACE_Time_Value* timeout, int mode)
{
  if (state_ == STATE_BODY_END)
    return 0;
  if (state_ != STATE_RESPONSE)
  {
    errno = state_ == STATE_CLOSED ? error_ : EINVAL;
    return -1;
  }
  if (!block || block->space() == 0)
  {
    errno = ENOBUFS;
    return -1;
  }
  int limit = transport_->read_timeout();
  if (timeout)
    transport_->read_timeout(static_cast<int>(timeout->sec() + (timeout->usec() > 0 ? 1 : 0)));
  size_t total = 0;
  int result = 0;
  for (;;)
  {
    if (begin_ < end_)
    {
      size_t consumed = 0, delivered = 0;
      int r = parser_.body(receive_.get() + begin_, end_ - begin_, block->wr_ptr(), block->space(), consumed,
                           delivered);
      begin_ += consumed;
      block->wr_ptr(delivered);
      total += delivered;
      if (r == HTTP_Response_Parser::PARSE_DONE)
      {
        state_ = STATE_BODY_END;
        break;
      }
      if (r == HTTP_Response_Parser::PARSE_ERROR)
      {
        ACE_ERROR((LM_ERROR, "Bad HTTP response body from %C: %C\n", endpoint_.origin().c_str(),
                   parser_.error_text()));
        result = fail(EPROTO);
        break;
      }
      if (r == HTTP_Response_Parser::PARSE_FULL || block->space() == 0)
        break;
      if (total > 0 && mode != READ_FULL)
        break;
    }
    ssize_t n = receive();
    if (n > 0)
      continue;
    if (n == 0)
    {
      if (parser_.eof() == HTTP_Response_Parser::PARSE_DONE)
      {
        ended_by_close_ = true;
        state_ = STATE_BODY_END;
        break;
      }
      result = fail(ECONNRESET);
      break;
    }
    result = fail(errno);
    break;
  }
  if (timeout && state_ != STATE_CLOSED)
    transport_->read_timeout(limit);
  if (result == -1)
  {
    errno = error_;
    return -1;
  }
  return static_cast<ssize_t>(total);
}

bool HTTP_Client_Connection::drain()
{
  char sink[4096] = {0};
  size_t budget = drain_budget;
  transport_->read_timeout(drain_seconds);
  while (state_ == STATE_RESPONSE && budget > 0)
  {
    ACE_Message_Block block(sink, sizeof sink);
    if (read_body(&block, nullptr, READ_SOME) == -1)
      return false;
    budget -= std::min(budget, block.length());
  }
  return state_ == STATE_BODY_END;
}

bool HTTP_Client_Connection::reusable()
{
  if (!session_ || session_->max_idle_ == 0)
    return false;
  if (state_ == STATE_RESPONSE && !drain())
    return false;
  if (state_ != STATE_BODY_END || waiting_ || ended_by_close_ || close_asked_ || begin_ != end_)
    return false;
  return parser_.keep_alive();
}

void HTTP_Client_Connection::release_i()
{
  HTTP_Session* session = session_;
  if (!session)
  {
    delete this;
    return;
  }
  bool keep = reusable();
  session_ = nullptr;
  idle_since_ = Clock::now();
  session->recycle(this, keep);
  HTTP_Session::intrusive_remove_ref(session);
}
