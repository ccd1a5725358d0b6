#ifndef TESSEL_HTTP_CLIENT_CONNECTION_H
#define TESSEL_HTTP_CLIENT_CONNECTION_H

// The connection of a session to a server; inside the HTTP client, not
// installed.

#include "tessel/http_internal.h"
#include "tessel/http_parser.h"

#include <cerrno>
#include <chrono>
#include <memory>
#include <string>

class HTTP_Session;

/// A connection to a server. It carries one exchange at a time and goes
/// back to its session between them.
class HTTP_Client_Connection : public HTTP_Connection
{
public:
  typedef std::chrono::steady_clock Clock;

  HTTP_Client_Connection(const HTTP_Endpoint& endpoint, std::unique_ptr<HTTP_Transport> transport);
  ~HTTP_Client_Connection() override;

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

#endif
