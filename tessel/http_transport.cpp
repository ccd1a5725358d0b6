// Sockets and TLS under the HTTP client. TLS runs over memory buffers, so
// that every byte still goes through our own socket calls: those never
// raise SIGPIPE and obey the session's time limits.

#include "tessel/http_internal.h"
#include "tessel/spin_wait.h"

#include <ace/INET_Addr.h>
#include <ace/Log_Msg.h>
#include <ace/OS_NS_sys_socket.h>
#include <ace/SOCK_Connector.h>
#include <ace/SSL/SSL_Context.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <cstring>

std::string HTTP_Endpoint::host_field() const
{
  std::string name = server_name.empty() ? host : server_name;
  if (name.find(':') != std::string::npos && name[0] != '[')
    name = "[" + name + "]";
  if (port != (ssl ? 443 : 80))
    name += ":" + std::to_string(port);
  return name;
}

std::string HTTP_Endpoint::origin() const
{
  std::string text = ssl ? "https://" : "http://";
  if (host.find(':') != std::string::npos)
    text += "[" + host + "]";
  else
    text += host;
  return text + ":" + std::to_string(port);
}

bool http_parse_url(const std::string& url, HTTP_Endpoint& endpoint, std::string& path)
{
  size_t at;
  if (url.compare(0, 7, "http://") == 0)
  {
    endpoint.ssl = false;
    at = 7;
  }
  else if (url.compare(0, 8, "https://") == 0)
  {
    endpoint.ssl = true;
    at = 8;
  }
  else
    return false;
  size_t slash = url.find('/', at);
  std::string authority = url.substr(at, slash == std::string::npos ? std::string::npos : slash - at);
  path = slash == std::string::npos ? "/" : url.substr(slash);
  std::string port;
  if (!authority.empty() && authority[0] == '[')
  {
    size_t close = authority.find(']');
    if (close == std::string::npos)
      return false;
    endpoint.host = authority.substr(1, close - 1);
    if (close + 1 < authority.size())
    {
      if (authority[close + 1] != ':')
        return false;
      port = authority.substr(close + 2);
    }
  }
  else
  {
    size_t colon = authority.rfind(':');
    endpoint.host = authority.substr(0, colon);
    if (colon != std::string::npos)
      port = authority.substr(colon + 1);
  }
  if (endpoint.host.empty())
    return false;
  endpoint.port = endpoint.ssl ? 443 : 80;
  if (!port.empty())
  {
    char* end = nullptr;
    unsigned long n = std::strtoul(port.c_str(), &end, 10);
    if (*end || n == 0 || n > 65535)
      return false;
    endpoint.port = static_cast<unsigned short>(n);
  }
  endpoint.server_name.clear();
  return true;
}

HTTP_Transport::~HTTP_Transport() {}

namespace
{
  void set_timeout(ACE_SOCK_Stream& stream, int option, int seconds)
  {
    timeval tv = {seconds > 0 ? seconds : 0, 0};
    stream.set_option(SOL_SOCKET, option, &tv, sizeof tv);
  }

  bool would_block(int e) { return e == EAGAIN || e == EWOULDBLOCK; }
}

void HTTP_Transport::read_timeout(int seconds)
{
  if (seconds == read_timeout_)
    return;
  read_timeout_ = seconds;
  set_timeout(stream_, SO_RCVTIMEO, seconds);
}

bool HTTP_Transport::idle_ok() const
{
  pollfd p = {stream_.get_handle(), POLLIN, 0};
  int n = ::poll(&p, 1, 0);
  return n == 0;
}

int HTTP_Transport::send_raw(const iovec* iov, int count)
{
  iovec local[8];
  if (count > 8)
  {
    for (int i = 0; i < count; ++i)
      if (send_raw(iov + i, 1) == -1)
        return -1;
    return 0;
  }
  std::memcpy(local, iov, sizeof(iovec) * count);
  iovec* at = local;
  while (count > 0)
  {
    if (at->iov_len == 0)
    {
      ++at;
      --count;
      continue;
    }
    msghdr msg;
    std::memset(&msg, 0, sizeof msg);
    msg.msg_iov = at;
    msg.msg_iovlen = count;
    ssize_t n = ::sendmsg(stream_.get_handle(), &msg, MSG_NOSIGNAL);
    if (n < 0)
    {
      if (errno == EINTR)
        continue;
      if (would_block(errno))
        errno = ETIME;
      return -1;
    }
    size_t left = static_cast<size_t>(n);
    while (count > 0 && left >= at->iov_len)
    {
      left -= at->iov_len;
      ++at;
      --count;
    }
    if (count > 0)
    {
      at->iov_base = static_cast<char*>(at->iov_base) + left;
      at->iov_len -= left;
    }
  }
  return 0;
}

ssize_t HTTP_Transport::recv_raw(void* buffer, size_t length)
{
  ssize_t n = -1;
  Spin_Wait spin;
  // An answer on its way is taken as it comes, without a sleep: the socket
  // is looked at a few times before the blocking read.
  if (spin.recv(stream_.get_handle(), buffer, length, n))
    return n;
  for (;;)
  {
    n = ::recv(stream_.get_handle(), buffer, length, 0);
    if (n >= 0)
      return n;
    if (errno == EINTR)
      continue;
    if (would_block(errno))
      errno = ETIME;
    return -1;
  }
}

namespace
{
  class Plain_Transport : public HTTP_Transport
  {
  public:
    explicit Plain_Transport(ACE_SOCK_Stream& stream) { stream_.set_handle(stream.get_handle()); }
    ~Plain_Transport() override { close(); }

    int send(const iovec* iov, int count) override { return send_raw(iov, count); }
    ssize_t recv(void* buffer, size_t length) override { return recv_raw(buffer, length); }
    void close() override { stream_.close(); }
  };

  void log_tls_error(char const* what, char const* name)
  {
    char text[256];
    unsigned long e = ERR_get_error();
    if (e)
      ERR_error_string_n(e, text, sizeof text);
    else
      std::strcpy(text, "connection closed");
    ERR_clear_error();
    ACE_ERROR((LM_ERROR, "TLS %C with %C failed: %C\n", what, name, text));
  }
}

struct HTTP_TLS_Context
{
  SSL_CTX* ctx = nullptr;
  bool verify = true;
  ~HTTP_TLS_Context()
  {
    if (ctx)
      SSL_CTX_free(ctx);
  }
};

std::shared_ptr<HTTP_TLS_Context> http_tls_context(ACE_SSL_Context* context, bool no_verify)
{
  auto tls = std::make_shared<HTTP_TLS_Context>();
  tls->verify = !no_verify;
  if (context)
  {
    tls->ctx = context->context();
    if (!tls->ctx || SSL_CTX_up_ref(tls->ctx) != 1)
    {
      tls->ctx = nullptr;
      ACE_ERROR((LM_ERROR, "The TLS context given to the HTTP session is not usable.\n"));
      return nullptr;
    }
    return tls;
  }
  tls->ctx = SSL_CTX_new(TLS_client_method());
  if (!tls->ctx)
  {
    log_tls_error("setup", "this process");
    return nullptr;
  }
  SSL_CTX_set_min_proto_version(tls->ctx, TLS1_2_VERSION);
  // Honours SSL_CERT_FILE and SSL_CERT_DIR.
  SSL_CTX_set_default_verify_paths(tls->ctx);
  return tls;
}

namespace
{
  class TLS_Transport : public HTTP_Transport
  {
  public:
    TLS_Transport(ACE_SOCK_Stream& stream, const std::shared_ptr<HTTP_TLS_Context>& tls)
      : tls_(tls), ssl_(nullptr), scratch_(16 * 1024 + 512)
    {
      stream_.set_handle(stream.get_handle());
    }
    ~TLS_Transport() override { close(); }

    int handshake(const std::string& name)
    {
      ERR_clear_error();
      ssl_ = SSL_new(tls_->ctx);
      BIO* in = BIO_new(BIO_s_mem());
      BIO* out = BIO_new(BIO_s_mem());
      if (!ssl_ || !in || !out)
      {
        BIO_free(in);
        BIO_free(out);
        log_tls_error("setup", name.c_str());
        errno = ENOMEM;
        return -1;
      }
      BIO_set_mem_eof_return(in, -1);
      SSL_set_bio(ssl_, in, out);
      in_ = in;
      out_ = out;
      SSL_set_connect_state(ssl_);
      ASN1_OCTET_STRING* ip = a2i_IPADDRESS(name.c_str());
      if (!ip)
        SSL_set_tlsext_host_name(ssl_, name.c_str());
      if (tls_->verify)
      {
        SSL_set_verify(ssl_, SSL_VERIFY_PEER, nullptr);
        if (ip)
          X509_VERIFY_PARAM_set1_ip(SSL_get0_param(ssl_), ASN1_STRING_get0_data(ip), ASN1_STRING_length(ip));
        else
          SSL_set1_host(ssl_, name.c_str());
      }
      else
        SSL_set_verify(ssl_, SSL_VERIFY_NONE, nullptr);
      ASN1_OCTET_STRING_free(ip);
      int r = drive([this] { return SSL_do_handshake(ssl_); });
      if (r > 0)
        return 0;
      if (r == 0)
        errno = ECONNRESET;
      int saved = errno;
      long verify = SSL_get_verify_result(ssl_);
      if (r == -2 && verify != X509_V_OK)
      {
        ERR_clear_error();
        ACE_ERROR((LM_ERROR, "TLS handshake with %C failed: %C\n", name.c_str(),
                   X509_verify_cert_error_string(verify)));
      }
      else
        log_tls_error("handshake", name.c_str());
      errno = r == -2 ? EPROTO : saved;
      return -1;
    }

    int send(const iovec* iov, int count) override
    {
      size_t total = 0;
      for (int i = 0; i < count; ++i)
        total += iov[i].iov_len;
      // One record for the pieces when they are small, rather than one each.
      if (count > 1 && total <= scratch_.size())
      {
        size_t at = 0;
        for (int i = 0; i < count; ++i)
        {
          std::memcpy(scratch_.data() + at, iov[i].iov_base, iov[i].iov_len);
          at += iov[i].iov_len;
        }
        return write_all(scratch_.data(), total);
      }
      for (int i = 0; i < count; ++i)
        if (write_all(static_cast<char const*>(iov[i].iov_base), iov[i].iov_len) == -1)
          return -1;
      return 0;
    }

    ssize_t recv(void* buffer, size_t length) override
    {
      int n = static_cast<int>(length > 1 << 30 ? 1 << 30 : length);
      int r = drive([&] { return SSL_read(ssl_, buffer, n); });
      if (r == -2)
      {
        log_tls_error("read", "peer");
        errno = EPROTO;
        return -1;
      }
      return r;
    }

    void close() override
    {
      if (ssl_)
      {
        ERR_clear_error();
        SSL_shutdown(ssl_);
        // A courtesy: the peer may be gone already.
        int saved = errno;
        flush_out();
        errno = saved;
        SSL_free(ssl_);
        ssl_ = nullptr;
        ERR_clear_error();
      }
      stream_.close();
    }

  private:
    // Runs an OpenSSL step until it gives a result, moving records between
    // the socket and OpenSSL as it asks: its result when above 0, 0 when the
    // peer closed, -1 when the socket failed (errno), -2 for a TLS failure.
    template <class Step>
    int drive(Step step)
    {
      for (;;)
      {
        ERR_clear_error();
        int r = step();
        int e = r > 0 ? SSL_ERROR_NONE : SSL_get_error(ssl_, r);
        if (flush_out() == -1)
          return -1;
        if (r > 0)
          return r;
        if (e == SSL_ERROR_WANT_READ)
        {
          ssize_t n = fill_in();
          if (n > 0)
            continue;
          return n == 0 ? 0 : -1;
        }
        if (e == SSL_ERROR_WANT_WRITE)
          continue;
        return e == SSL_ERROR_ZERO_RETURN ? 0 : -2;
      }
    }

    int write_all(char const* data, size_t length)
    {
      while (length > 0)
      {
        int chunk = static_cast<int>(length > 1 << 30 ? 1 << 30 : length);
        int r = drive([&] { return SSL_write(ssl_, data, chunk); });
        if (r > 0)
        {
          data += r;
          length -= static_cast<size_t>(r);
          continue;
        }
        if (r == 0)
          errno = EPIPE;
        if (r == -2)
        {
          log_tls_error("write", "peer");
          errno = EPROTO;
        }
        return -1;
      }
      return 0;
    }

    int flush_out()
    {
      while (BIO_ctrl_pending(out_) > 0)
      {
        int n = BIO_read(out_, scratch_out_, sizeof scratch_out_);
        if (n <= 0)
          break;
        iovec v = {scratch_out_, static_cast<size_t>(n)};
        if (send_raw(&v, 1) == -1)
          return -1;
      }
      return 0;
    }

    ssize_t fill_in()
    {
      ssize_t n = recv_raw(scratch_in_, sizeof scratch_in_);
      if (n > 0)
        BIO_write(in_, scratch_in_, static_cast<int>(n));
      return n;
    }

    std::shared_ptr<HTTP_TLS_Context> tls_;
    SSL* ssl_;
    BIO* in_ = nullptr;
    BIO* out_ = nullptr;
    std::vector<char> scratch_;
    char scratch_in_[16 * 1024 + 512];
    char scratch_out_[16 * 1024 + 512];
  };
}

std::unique_ptr<HTTP_Transport> http_connect(const HTTP_Endpoint& endpoint, int connect_timeout, int read_timeout,
                                             const std::shared_ptr<HTTP_TLS_Context>& tls)
{
  ACE_INET_Addr addr;
  if (addr.set(endpoint.port, endpoint.host.c_str(), 1, AF_UNSPEC) == -1)
  {
    int saved = errno ? errno : EHOSTUNREACH;
    ACE_ERROR((LM_ERROR, "Failed to resolve HTTP host %C.\n", endpoint.host.c_str()));
    errno = saved;
    return nullptr;
  }
  ACE_SOCK_Stream stream;
  ACE_SOCK_Connector connector;
  ACE_Time_Value limit(connect_timeout > 0 ? connect_timeout : 0);
  if (connector.connect(stream, addr, connect_timeout > 0 ? &limit : nullptr) == -1)
  {
    int saved = errno;
    ACE_ERROR((LM_ERROR, "Failed to connect to %C, errno=%d, %m\n", endpoint.origin().c_str(), saved));
    stream.close();
    errno = saved;
    return nullptr;
  }
  stream.disable(ACE_NONBLOCK);
  int one = 1;
  stream.set_option(IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  set_timeout(stream, SO_RCVTIMEO, read_timeout);
  set_timeout(stream, SO_SNDTIMEO, read_timeout);
  if (!endpoint.ssl)
  {
    std::unique_ptr<HTTP_Transport> plain(new Plain_Transport(stream));
    plain->read_timeout(read_timeout);
    return plain;
  }
  if (!tls)
  {
    stream.close();
    errno = EPROTO;
    return nullptr;
  }
  std::unique_ptr<TLS_Transport> secure(new TLS_Transport(stream, tls));
  secure->read_timeout(read_timeout);
  if (secure->handshake(endpoint.server_name.empty() ? endpoint.host : endpoint.server_name) == -1)
  {
    int saved = errno;
    secure.reset();
    errno = saved;
    return nullptr;
  }
  return secure;
}
