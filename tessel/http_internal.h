#ifndef TESSEL_HTTP_INTERNAL_H
#define TESSEL_HTTP_INTERNAL_H

// Inside the HTTP client; not installed.

#include "tessel/http_connection.h"

#include <ace/SOCK_Stream.h>

#include <ctime>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

class ACE_SSL_Context;

/// A byte stream with the session's time limits.
class HTTP_Transport
{
public:
  virtual ~HTTP_Transport();
  /// All bytes of the pieces: 0, or -1 with errno (ETIME past the limit).
  virtual int send(const iovec* iov, int count) = 0;
  /// Bytes received, 0 at the end of the stream, -1 with errno.
  virtual ssize_t recv(void* buffer, size_t length) = 0;
  virtual void close() = 0;
  /// Read limit in seconds; 0 or less: none.
  void read_timeout(int seconds);
  int read_timeout() const { return read_timeout_; }
  /// True while the peer has neither closed nor sent anything unasked.
  bool idle_ok() const;
  ACE_HANDLE handle() const { return stream_.get_handle(); }

protected:
  /// Raw socket I/O, for the TLS layer too.
  int send_raw(const iovec* iov, int count);
  ssize_t recv_raw(void* buffer, size_t length);

  ACE_SOCK_Stream stream_;
  int read_timeout_ = 0;
};

/// TLS settings shared by the connections of a session.
struct HTTP_TLS_Context;

/// Prepares TLS for a session: the context's trust and certificates, or the
/// system's. Null (logged) on failure.
std::shared_ptr<HTTP_TLS_Context> http_tls_context(ACE_SSL_Context* context, bool no_verify);

/// Connects to endpoint (resolving it again) with the limits, TLS included
/// when the endpoint says so. Null with errno on failure (logged).
std::unique_ptr<HTTP_Transport> http_connect(const HTTP_Endpoint& endpoint, int connect_timeout, int read_timeout,
                                             const std::shared_ptr<HTTP_TLS_Context>& tls);

/// The cookies of a session; safe for concurrent use.
class HTTP_Cookie_Jar
{
public:
  /// Keeps what a Set-Cookie value says, for a request to host and uri.
  void store(char const* set_cookie, const std::string& host, char const* uri, bool secure_channel);
  /// The Cookie field for a request; empty when none matches.
  void cookie_field(const std::string& host, char const* uri, bool secure_channel, std::string& out);
  void clear();
  size_t size() const;

private:
  struct Cookie
  {
    std::string name;
    std::string value;
    std::string domain;
    std::string path;
    bool host_only;
    bool secure;
    time_t expires;  // 0: end of the session
    unsigned long long order;
  };
  void drop_expired(time_t now);

  mutable std::mutex mutex_;
  std::vector<Cookie> cookies_;
  unsigned long long next_order_ = 0;
};

#endif
