#ifndef TESSEL_HTTP_CONNECTION_H
#define TESSEL_HTTP_CONNECTION_H

// What a caller holds for one exchange with a server: the connection's
// interface, where it goes, and the loop that reads a body from it.

#include "tessel/http_message.h"
#include "tessel/tessel_export.h"
#include "tessel/yajl_gen.h"

#include <ace/Intrusive_Auto_Ptr.h>
#include <ace/Message_Block.h>
#include <ace/Time_Value.h>

#include <atomic>
#include <functional>
#include <string>

/// Where a connection goes.
struct TESSEL_EXPORT HTTP_Endpoint
{
  std::string host;
  unsigned short port;
  bool ssl;
  /// Host field, SNI and the certificate's name.
  std::string server_name;

  bool operator==(const HTTP_Endpoint& other) const
  {
    return port == other.port && ssl == other.ssl && host == other.host && server_name == other.server_name;
  }
  /// "host" or "host:port" when the port is not the scheme's own.
  std::string host_field() const;
  /// "http://host:port" or "https://host:port".
  std::string origin() const;
};

/// Splits "http[s]://host[:port]/path" (the host may be an IPv6 address in
/// brackets; the path is "/" when there is none) into an endpoint and a
/// path; false for anything else.
TESSEL_EXPORT bool http_parse_url(const std::string& url, HTTP_Endpoint& endpoint, std::string& path);

/// One exchange on one connection. The head goes out with the first piece
/// of the body or, without a body, at read_response; a chunked body is
/// framed and ended here.
class TESSEL_EXPORT HTTP_Connection
{
public:
  enum State
  {
    STATE_CLOSED = 1,     ///< broken or shut: no more data will come
    STATE_REQUEST = 2,    ///< the request body may be written
    STATE_RESPONSE = 4,   ///< the head is read; body data is waiting
    STATE_BODY_END = 12   ///< the response is complete
  };

  enum Read_Mode
  {
    READ_FULL = 1,  ///< fill the block, or up to the end of the body
    READ_SOME = 2   ///< give what has come, at least one byte
  };

  /// Body bytes of the request: length, or -1 (errno) when the connection
  /// failed or the body is not expected; 0 for length 0.
  virtual ssize_t write(char const* data, size_t length) = 0;
  /// Ends the request and reads the response head into response. 0, or -1
  /// with errno (ETIME past the read limit, ECONNRESET for a connection
  /// that ended early, EPROTO for a head that is no HTTP).
  virtual int read_response(HTTP_Response& response) = 0;
  /// Appends body data at block's write pointer, within its space: the
  /// number of bytes, 0 at the end of the body, -1 (errno) on failure.
  /// timeout, if given, replaces the read limit for this call.
  virtual ssize_t read_body(ACE_Message_Block* block, const ACE_Time_Value* timeout = 0, int mode = READ_SOME) = 0;
  virtual int state() const = 0;
  /// errno of the last failure.
  virtual int error() const = 0;

  static void intrusive_add_ref(HTTP_Connection* connection);
  static void intrusive_remove_ref(HTTP_Connection* connection);

protected:
  HTTP_Connection();
  virtual ~HTTP_Connection();
  /// Called when the last reference goes; the default deletes.
  virtual void release_i();

private:
  HTTP_Connection(const HTTP_Connection&) = delete;
  HTTP_Connection& operator=(const HTTP_Connection&) = delete;

  std::atomic<long> references_;
};

typedef ACE_Intrusive_Auto_Ptr<HTTP_Connection> HTTP_Connection_Ptr;

/// The one loop that reads a response body: while the connection's state
/// is neither STATE_BODY_END nor STATE_CLOSED, the next piece goes into one
/// reused block of 4096 bytes and then to sink, a piece of length 0 too.
/// 0; -1 when a read failed (errno as the connection's error()); -2 when
/// sink refused a piece, and the rest stays unread.
TESSEL_EXPORT int http_read_body(HTTP_Connection& connection, const std::function<bool(char const*, size_t)>& sink);

/// Prints generated JSON onto a connection (not owned). After a failed
/// write it drops the rest, and good() is false.
template <class Connection>
class YAJL_HTTP_SOCK_Stream_T_Printer : public YAJL_Printer
{
public:
  explicit YAJL_HTTP_SOCK_Stream_T_Printer(Connection* connection) : connection_(connection), good_(true) {}

  void print(char const* data, unsigned long long length) override
  {
    if (data && length && good_ && connection_)
      if (connection_->write(data, static_cast<size_t>(length)) == -1)
        good_ = false;
  }
  bool good() const { return good_; }

private:
  Connection* connection_;
  bool good_;
};

#endif
