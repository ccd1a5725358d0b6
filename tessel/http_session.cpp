// The client side of one server: its settings, the one connect path, the
// idle connections kept for reuse, and the maps that move or answer a URI.

#include "tessel/http_session.h"
#include "tessel/http_client_connection.h"
#include "tessel/http_file_connection.h"
#include "tessel/http_internal.h"
#include "tessel/http_uri_map.h"

#include <ace/INET_Addr.h>
#include <ace/Log_Msg.h>

#include <cerrno>
#include <mutex>
#include <new>
#include <vector>

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
