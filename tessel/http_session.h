#ifndef TESSEL_HTTP_SESSION_H
#define TESSEL_HTTP_SESSION_H

// A client's sessions with a server: the connections, cookies and settings
// that the requests to one host share.

#include "tessel/http_connection.h"
#include "tessel/http_message.h"
#include "tessel/tessel_export.h"

#include <ace/Intrusive_Auto_Ptr.h>

#include <atomic>
#include <memory>
#include <string>

class ACE_SSL_Context;

class HTTP_Client_Connection;
class HTTP_Cookie_Jar;
class HTTP_Transport;
struct HTTP_TLS_Context;

/// The client side of one server: settings, session-wide fields, cookies
/// and the idle connections kept for reuse.
///
/// Cookies: a Set-Cookie of a response is kept for the host that sent it
/// (or, with a Domain attribute that the host falls under, for that
/// domain) and the path it names (else the directory of the request), and
/// goes back in a Cookie field of each later request that matches host and
/// path; Secure ones only over TLS. Max-Age or Expires in the past drops
/// one; otherwise they live as long as the session or until clear_cookie.
///
/// The maps: a URI found in HTTP_Redirect_URI_Map goes to the URL or path
/// given there instead (another host gets a connection of its own, with
/// the session's settings); a URI found in HTTP_File_URI_Map is answered by
/// begin_request from that local file (200 and its bytes, or 404 when it
/// can't be read), and any body written to it is dropped. begin_form_request
/// never answers from a file: a body it carries always reaches a server.
class TESSEL_EXPORT HTTP_Session
{
public:
  enum Flags
  {
    NEW_CONNECTION = 1  ///< don't take an idle connection
  };

  /// Fields that go with every request, unless the request has its own of
  /// the same name. Set them before the session is shared between threads.
  HTTP_Headers& headers() { return headers_; }
  /// Forgets every cookie.
  void clear_cookie();
  /// Number of cookies kept.
  size_t cookie_count() const;

  /// A connection with the request's head queued on it, or null (errno)
  /// when no connection could be made.
  virtual HTTP_Connection_Ptr begin_request(HTTP_Request& request, int flags = 0);
  /// The same for a request whose body must reach a server.
  virtual HTTP_Connection_Ptr begin_form_request(HTTP_Request& request);

  char const* host() const { return host_.c_str(); }
  unsigned short port() const { return port_; }
  bool ssl() const { return ssl_; }
  /// Connections opened so far, and idle ones waiting now.
  unsigned long connections_opened() const { return opened_.load(); }
  size_t idle_connections() const;

  static void intrusive_add_ref(HTTP_Session* session);
  static void intrusive_remove_ref(HTTP_Session* session);

  /// See HTTP_Session_Factory::create.
  HTTP_Session(char const* host, unsigned short port, bool ssl, char const* server_name, int max_idle,
               ACE_SSL_Context* context, bool ssl_no_verify, int connect_timeout, int read_timeout,
               int idle_timeout, unsigned int max_requests);
  virtual ~HTTP_Session();
  /// Resolves the host and prepares TLS: 0, or -1 (logged).
  int open();

private:
  friend class HTTP_Client_Connection;
  HTTP_Session(const HTTP_Session&) = delete;
  HTTP_Session& operator=(const HTTP_Session&) = delete;

  HTTP_Connection_Ptr begin(HTTP_Request& request, int flags, bool from_file);
  // The one way to a server, for a first request and for a retry alike;
  // counts the connection as opened. Null with errno (logged).
  std::unique_ptr<HTTP_Transport> connect(const HTTP_Endpoint& endpoint);
  HTTP_Client_Connection* take_idle(const HTTP_Endpoint& endpoint);
  // Back from use: kept for reuse, or deleted.
  void recycle(HTTP_Client_Connection* connection, bool reusable);

  std::atomic<long> references_;
  std::atomic<unsigned long> opened_;
  std::string host_;
  unsigned short port_;
  bool ssl_;
  std::string server_name_;
  size_t max_idle_;
  ACE_SSL_Context* ssl_context_;
  bool ssl_no_verify_;
  int connect_timeout_;
  int read_timeout_;
  int idle_timeout_;
  unsigned int max_requests_;
  HTTP_Headers headers_;
  std::unique_ptr<HTTP_Endpoint> endpoint_;
  std::shared_ptr<HTTP_TLS_Context> tls_;
  std::unique_ptr<HTTP_Cookie_Jar> cookies_;
  struct Pool;
  std::unique_ptr<Pool> pool_;
};

typedef ACE_Intrusive_Auto_Ptr<HTTP_Session> HTTP_Session_Ptr;

class TESSEL_EXPORT HTTP_Session_Factory
{
public:
  /// A session for host and port, over TLS when ssl is true; null (logged)
  /// when the host can't be resolved or TLS can't be set up.
  ///   server_name: name for Host, SNI and the certificate check; null: host.
  ///   max_idle: idle connections kept for reuse.
  ///   context: TLS trust and client certificates; null: the system's
  ///            (which SSL_CERT_FILE and SSL_CERT_DIR can change).
  ///   ssl_no_verify: accept any server certificate.
  ///   connect_timeout, read_timeout: seconds for a connect, and for each
  ///            wait for data to send or receive; 0 or less: no limit.
  ///   idle_timeout: seconds an idle connection stays usable; 0: while the
  ///            server keeps it open.
  ///   max_requests: requests on one connection; 0: no limit.
  static HTTP_Session_Ptr create(char const* host, unsigned short port, bool ssl, char const* server_name = 0,
                                 int max_idle = 3, ACE_SSL_Context* context = 0, bool ssl_no_verify = false,
                                 int connect_timeout = 120, int read_timeout = 120, int idle_timeout = 0,
                                 unsigned int max_requests = 0);
};

/// "http://host:port/uri" of a request on a session, for log lines.
class TESSEL_EXPORT HTTP_Session_URL
{
public:
  HTTP_Session_URL(const HTTP_Session_Ptr& session, const HTTP_Request& request);
  HTTP_Session_URL(const HTTP_Session* session, const HTTP_Request& request);
  char const* c_str() const { return text_.c_str(); }

private:
  std::string text_;
};

#endif
