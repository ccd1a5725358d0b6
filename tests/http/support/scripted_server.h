#ifndef TESTS_HTTP_SCRIPTED_SERVER_H
#define TESTS_HTTP_SCRIPTED_SERVER_H

// A server on a loopback port that answers each request with bytes from a
// script, for the faults that real servers rarely show. Requests are read
// whole (Boost.Beast's request parser, chunked bodies included) and kept.

#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

struct Scripted_Request
{
  std::string method;
  std::string target;
  std::map<std::string, std::string> headers;  // names in lower case
  std::string body;
  int connection;  // which accepted connection, from 1
};

struct Reply
{
  std::string bytes;        // sent as they are
  bool close = false;       // close the connection after them
  int delay_ms = 0;         // wait before sending
  bool read_body = true;    // false: answer after the head only, then close
  long drop_after = -1;     // at this many body bytes: close at once, no answer

  /// A whole response with a body of the given type.
  static Reply json(int status, const std::string& body, const char* type = "application/json");
  /// The same body in chunks of the given size.
  static Reply chunked(int status, const std::string& body, size_t chunk);
  /// The body ends when the connection closes.
  static Reply close_delimited(int status, const std::string& body);
  /// The first n bytes of a reply, then the connection closes.
  static Reply cut(const Reply& whole, size_t n);
};

class Scripted_Server
{
public:
  /// Request k (from 0) gets replies[k]; later ones get the last reply.
  explicit Scripted_Server(std::vector<Reply> replies);
  ~Scripted_Server();

  unsigned short port() const { return port_; }
  /// Request heads that came in, whole requests, and connections accepted.
  int heads() const { return heads_.load(); }
  int requests() const { return static_cast<int>(requests_copy().size()); }
  int connections() const { return connections_.load(); }
  std::vector<Scripted_Request> requests_copy() const;
  /// Bytes of request bodies seen, also of requests that never ended.
  unsigned long long body_bytes() const { return body_bytes_.load(); }

private:
  void accept_loop();
  void serve(int fd, int number);

  int listener_;
  unsigned short port_;
  std::vector<Reply> replies_;
  std::atomic<bool> stopping_{false};
  std::atomic<int> heads_{0};
  std::atomic<int> connections_{0};
  std::atomic<unsigned long long> body_bytes_{0};
  mutable std::mutex mutex_;
  std::vector<Scripted_Request> requests_;
  std::vector<int> open_;
  std::vector<std::thread> threads_;
  std::thread acceptor_;
};

#endif
