#include "tessel/http_client.h"
#include "tessel/http_internal.h"
#include "tessel/http_parser.h"
#include "tessel/http_uri_map.h"

#include <ace/INET_Addr.h>
#include <ace/Log_Msg.h>
#include <ace/OS_NS_stdio.h>
#include <ace/OS_NS_stdlib.h>

#include <strings.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <new>

// ---------------------------------------------------------------- connections

HTTP_Connection::HTTP_Connection() : references_(0) {}
HTTP_Connection::~HTTP_Connection() {}
void HTTP_Connection::release_i() { delete this; }

void HTTP_Connection::intrusive_add_ref(HTTP_Connection* connection)
{
  if (connection)
    connection->references_.fetch_add(1, std::memory_order_relaxed);
}

void HTTP_Connection::intrusive_remove_ref(HTTP_Connection* connection)
{
  if (connection && connection->references_.fetch_sub(1, std::memory_order_acq_rel) == 1)
    connection->release_i();
}

namespace
{
  typedef std::chrono::steady_clock Clock;

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

/// A connection to a server. It carries one exchange at a time and goes
/// back to its session between them.
class HTTP_Client_Connection : public HTTP_Connection
{
public:
  HTTP_Client_Connection(const HTTP_Endpoint& endpoint, std::unique_ptr<HTTP_Transport> transport)
    : endpoint_(endpoint), host_field_(endpoint.host_field()), transport_(std::move(transport)), session_(nullptr),
      state_(STATE_BODY_END), error_(0), receive_(new char[receive_capacity]), body_(new char[chunk_capacity])
  {
  }

  ~HTTP_Client_Connection() override {}

  void begin(HTTP_Session* session, const HTTP_Request& request, char const* uri, bool reused);

  ssize_t write(char const* data, size_t length) override;
  int read_response(HTTP_Response& response) override;
  ssize_t read_body(ACE_Message_Block* block, const ACE_Time_Value* timeout, int mode) override;
  int state() const override { return state_; }
  int error() const override { return error_; }

  const HTTP_Endpoint& endpoint() const { return endpoint_; }
  /// Still fit for the next request after idling since idle_since.
  bool fresh(int idle_timeout, unsigned int max_requests) const
  {
    if (max_requests && requests_ >= max_requests)
      return false;
    if (idle_timeout > 0 && Clock::now() - idle_since_ >= std::chrono::seconds(idle_timeout))
      return false;
    return transport_->idle_ok();
  }
  void read_timeout(int seconds) { transport_->read_timeout(seconds); }

protected:
  void release_i() override;

private:
  int fail(int e)
  {
    state_ = STATE_CLOSED;
    error_ = e;
    transport_->close();
    errno = e;
    return -1;
  }
  // Sends what is pending: the head if not yet sent, then data as a piece
  // of the body, then the last chunk when final.
  int send_body(char const* data, size_t length, bool final);
  int flush(bool final)
  {
    size_t n = body_used_;
    body_used_ = 0;
    return send_body(body_.get(), n, final);
  }
  // A kept connection that the server had closed: the same request again on
  // a new one, while nothing of the body and nothing of a response passed.
  bool reconnect();
  bool reusable();
  bool drain();
  ssize_t receive();

  HTTP_Endpoint endpoint_;
  std::string host_field_;
  std::unique_ptr<HTTP_Transport> transport_;
  HTTP_Session* session_;
  HTTP_Response_Parser parser_;
  int state_;
  int error_;
  std::string head_;
  bool head_sent_ = false;
  bool waiting_ = false;
  bool chunked_ = false;
  bool fixed_ = false;
  unsigned long long declared_ = 0;
  unsigned long long written_ = 0;
  bool head_request_ = false;
  bool idempotent_ = false;
  bool close_asked_ = false;
  bool reused_ = false;
  bool ended_by_close_ = false;
  unsigned long long received_ = 0;
  std::unique_ptr<char[]> receive_;
  size_t begin_ = 0;
  size_t end_ = 0;
  std::unique_ptr<char[]> body_;
  size_t body_used_ = 0;
  std::string cookie_;
  unsigned int requests_ = 0;
  Clock::time_point idle_since_;
};

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

namespace
{
  /// The answer to a request from a local file.
  class HTTP_File_Connection : public HTTP_Connection
  {
  public:
    explicit HTTP_File_Connection(const std::string& path)
      : file_(std::fopen(path.c_str(), "rb")), state_(STATE_REQUEST), error_(0), size_(0)
    {
      if (file_ && (std::fseek(file_, 0, SEEK_END) != 0 || (size_ = std::ftell(file_)) < 0 ||
                    std::fseek(file_, 0, SEEK_SET) != 0))
      {
        std::fclose(file_);
        file_ = nullptr;
      }
      if (!file_)
        ACE_ERROR((LM_ERROR, "Failed to open %C, the file for an HTTP URI, errno=%d, %m\n", path.c_str(), errno));
      dot_ = path.rfind('.');
      json_ = dot_ != std::string::npos && path.compare(dot_, std::string::npos, ".json") == 0;
    }
    ~HTTP_File_Connection() override
    {
      if (file_)
        std::fclose(file_);
    }

    ssize_t write(char const*, size_t length) override
    {
      if (state_ != STATE_REQUEST)
      {
        errno = EINVAL;
        return -1;
      }
      return static_cast<ssize_t>(length);
    }

    int read_response(HTTP_Response& response) override
    {
      if (state_ != STATE_REQUEST)
      {
        errno = EINVAL;
        return -1;
      }
      response.reset();
      if (!file_)
      {
        response.status(404);
        response.reason("Not Found", 9);
        response.content_length(0);
        state_ = STATE_BODY_END;
        return 0;
      }
      response.status(200);
      response.reason("OK", 2);
      response.content_type(json_ ? "application/json" : "application/octet-stream");
      response.content_length(static_cast<unsigned long long>(size_));
      response.has_body(size_ > 0);
      state_ = size_ > 0 ? STATE_RESPONSE : STATE_BODY_END;
      return 0;
    }

    ssize_t read_body(ACE_Message_Block* block, const ACE_Time_Value*, int) override
    {
      if (state_ == STATE_BODY_END)
        return 0;
      if (state_ != STATE_RESPONSE || !block || block->space() == 0)
      {
        errno = error_ = state_ != STATE_RESPONSE ? EINVAL : ENOBUFS;
        return -1;
      }
      size_t n = std::fread(block->wr_ptr(), 1, block->space(), file_);
      block->wr_ptr(n);
      if (n == 0 && std::ferror(file_))
      {
        state_ = STATE_CLOSED;
        errno = error_ = EIO;
        return -1;
      }
      if (std::feof(file_) || std::ftell(file_) >= size_)
        state_ = STATE_BODY_END;
      return static_cast<ssize_t>(n);
    }

    int state() const override { return state_; }
    int error() const override { return error_; }

  private:
    FILE* file_;
    int state_;
    int error_;
    long size_;
    size_t dot_;
    bool json_;
  };
}

// ---------------------------------------------------------------- sessions

struct HTTP_Session::Pool
{
  mutable std::mutex mutex;
  std::vector<HTTP_Client_Connection*> idle;
};

HTTP_Session::HTTP_Session(char const* host, unsigned short port, bool ssl, char const* server_name, int max_idle,
                           ACE_SSL_Context* context, bool ssl_no_verify, int connect_timeout, int read_timeout,
                           int idle_timeout, unsigned int max_requests)
  : references_(0), opened_(0), host_(host ? host : ""), port_(port), ssl_(ssl),
    server_name_(server_name ? server_name : ""), max_idle_(max_idle > 0 ? static_cast<size_t>(max_idle) : 0),
    ssl_context_(context), ssl_no_verify_(ssl_no_verify), connect_timeout_(connect_timeout),
    read_timeout_(read_timeout), idle_timeout_(idle_timeout), max_requests_(max_requests),
    endpoint_(new HTTP_Endpoint), cookies_(new HTTP_Cookie_Jar), pool_(new Pool)
{
  endpoint_->host = host_;
  endpoint_->port = port_;
  endpoint_->ssl = ssl_;
  endpoint_->server_name = server_name_;
}

HTTP_Session::~HTTP_Session()
{
  for (HTTP_Client_Connection* c : pool_->idle)
    delete c;
}

int HTTP_Session::open()
{
  if (host_.empty())
  {
    ACE_ERROR((LM_ERROR, "An HTTP session needs a host.\n"));
    errno = EINVAL;
    return -1;
  }
  ACE_INET_Addr addr;
  if (addr.set(port_, host_.c_str(), 1, AF_UNSPEC) == -1)
  {
    int saved = errno ? errno : EHOSTUNREACH;
    ACE_ERROR((LM_ERROR, "Failed to resolve HTTP host %C.\n", host_.c_str()));
    errno = saved;
    return -1;
  }
  if (ssl_)
  {
    tls_ = http_tls_context(ssl_context_, ssl_no_verify_);
    if (!tls_)
      return -1;
  }
  return 0;
}

void HTTP_Session::intrusive_add_ref(HTTP_Session* session)
{
  if (session)
    session->references_.fetch_add(1, std::memory_order_relaxed);
}

void HTTP_Session::intrusive_remove_ref(HTTP_Session* session)
{
  if (session && session->references_.fetch_sub(1, std::memory_order_acq_rel) == 1)
    delete session;
}

void HTTP_Session::clear_cookie() { cookies_->clear(); }
size_t HTTP_Session::cookie_count() const { return cookies_->size(); }

size_t HTTP_Session::idle_connections() const
{
  std::lock_guard<std::mutex> guard(pool_->mutex);
  return pool_->idle.size();
}

HTTP_Connection_Ptr HTTP_Session::begin_request(HTTP_Request& request, int flags)
{
  return begin(request, flags, true);
}

HTTP_Connection_Ptr HTTP_Session::begin_form_request(HTTP_Request& request) { return begin(request, 0, false); }

HTTP_Client_Connection* HTTP_Session::take_idle(const HTTP_Endpoint& endpoint)
{
  std::vector<HTTP_Client_Connection*> stale;
  HTTP_Client_Connection* found = nullptr;
  {
    std::lock_guard<std::mutex> guard(pool_->mutex);
    std::vector<HTTP_Client_Connection*>& idle = pool_->idle;
    // The most recent first: its server is the least likely to have closed it.
    for (size_t i = idle.size(); i-- > 0;)
    {
      if (!(idle[i]->endpoint() == endpoint))
        continue;
      HTTP_Client_Connection* c = idle[i];
      idle.erase(idle.begin() + static_cast<long>(i));
      if (c->fresh(idle_timeout_, max_requests_))
      {
        found = c;
        break;
      }
      stale.push_back(c);
    }
  }
  for (HTTP_Client_Connection* c : stale)
    delete c;
  if (found)
    found->read_timeout(read_timeout_);
  return found;
}

void HTTP_Session::recycle(HTTP_Client_Connection* connection, bool reusable)
{
  HTTP_Client_Connection* dropped = connection;
  if (reusable)
  {
    std::lock_guard<std::mutex> guard(pool_->mutex);
    std::vector<HTTP_Client_Connection*>& idle = pool_->idle;
    idle.push_back(connection);
    dropped = nullptr;
    if (idle.size() > max_idle_)
    {
      dropped = idle.front();
      idle.erase(idle.begin());
    }
  }
  delete dropped;
}

std::unique_ptr<HTTP_Transport> HTTP_Session::connect(const HTTP_Endpoint& endpoint)
{
  std::shared_ptr<HTTP_TLS_Context> tls = tls_;
  if (endpoint.ssl && !tls)
  {
    // A redirect from plain HTTP to TLS: the system's trust.
    tls = http_tls_context(nullptr, ssl_no_verify_);
    if (!tls)
    {
      errno = EPROTO;
      return nullptr;
    }
  }
  std::unique_ptr<HTTP_Transport> transport = http_connect(endpoint, connect_timeout_, read_timeout_, tls);
  if (transport)
    ++opened_;
  return transport;
}

HTTP_Connection_Ptr HTTP_Session::begin(HTTP_Request& request, int flags, bool from_file)
{
  char const* uri = request.uri();
  HTTP_Endpoint target_endpoint;
  const HTTP_Endpoint* target = endpoint_.get();
  std::string moved;
  HTTP_Redirect_URI_Map* redirects = HTTP_Redirect_URI_Map::instance();
  if (redirects && !redirects->empty())
  {
    std::string to = redirects->find(uri);
    if (!to.empty())
    {
      if (to[0] == '/')
        moved = to;
      else if (http_parse_url(to, target_endpoint, moved))
        target = &target_endpoint;
      else
      {
        ACE_ERROR((LM_ERROR, "The redirect of HTTP URI %C to '%C' is no URL.\n", uri, to.c_str()));
        errno = EINVAL;
        return HTTP_Connection_Ptr();
      }
      uri = moved.c_str();
    }
  }
  if (from_file)
  {
    HTTP_File_URI_Map* files = HTTP_File_URI_Map::instance();
    if (files && !files->empty())
    {
      std::string path = files->find(uri);
      if (!path.empty())
        return HTTP_Connection_Ptr(new HTTP_File_Connection(path));
    }
  }
  bool reused = false;
  HTTP_Client_Connection* connection = (flags & NEW_CONNECTION) ? nullptr : take_idle(*target);
  if (connection)
    reused = true;
  else
  {
    std::unique_ptr<HTTP_Transport> transport = connect(*target);
    if (!transport)
      return HTTP_Connection_Ptr();
    connection = new (std::nothrow) HTTP_Client_Connection(*target, std::move(transport));
    if (!connection)
    {
      errno = ENOMEM;
      return HTTP_Connection_Ptr();
    }
  }
  intrusive_add_ref(this);
  connection->begin(this, request, uri, reused);
  return HTTP_Connection_Ptr(connection);
}

HTTP_Session_Ptr HTTP_Session_Factory::create(char const* host, unsigned short port, bool ssl,
                                              char const* server_name, int max_idle, ACE_SSL_Context* context,
                                              bool ssl_no_verify, int connect_timeout, int read_timeout,
                                              int idle_timeout, unsigned int max_requests)
{
  HTTP_Session* session = new (std::nothrow) HTTP_Session(host, port, ssl, server_name, max_idle, context,
                                                          ssl_no_verify, connect_timeout, read_timeout,
                                                          idle_timeout, max_requests);
  if (!session)
  {
    errno = ENOMEM;
    return HTTP_Session_Ptr();
  }
  HTTP_Session_Ptr held(session);
  if (session->open() == -1)
    return HTTP_Session_Ptr();
  return held;
}

HTTP_Session_URL::HTTP_Session_URL(const HTTP_Session_Ptr& session, const HTTP_Request& request)
  : HTTP_Session_URL(session.get(), request)
{
}

HTTP_Session_URL::HTTP_Session_URL(const HTTP_Session* session, const HTTP_Request& request)
{
  if (session)
  {
    HTTP_Endpoint e;
    e.host = session->host();
    e.port = session->port();
    e.ssl = session->ssl();
    text_ = e.origin();
  }
  text_ += request.uri();
}

int http_read_body(HTTP_Connection& connection, const std::function<bool(char const*, size_t)>& sink)
{
  // The block only borrows the buffer; nothing is read from it before a
  // piece has been written into it.
  char buffer[4096] = {0};
  ACE_Message_Block block(buffer, sizeof buffer);
  while (connection.state() != HTTP_Connection::STATE_BODY_END && connection.state() != HTTP_Connection::STATE_CLOSED)
  {
    block.reset();
    if (connection.read_body(&block, nullptr, HTTP_Connection::READ_SOME) == -1)
      return -1;
    if (!sink(block.rd_ptr(), block.length()))
      return -2;
  }
  return 0;
}
