#ifndef TESTS_HTTP_TEST_UTIL_H
#define TESTS_HTTP_TEST_UTIL_H

// What the HTTP tests share: the real servers they start on loopback, a
// scripted server for the faults real servers rarely show, sessions and
// small helpers.

#include "test_util.h"
#include "json_spirit/json_spirit_reader.h"
#include "json_spirit/json_spirit_writer.h"
#include "tessel/http_client.h"
#include "tessel/retry.h"

#include <ace/SSL/SSL_Context.h>
#include <sys/resource.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>
#include <memory>
#include <atomic>
#include <map>
#include <mutex>
#include <thread>

inline json_spirit::Value parse_json(const std::string& text)
{
  json_spirit::Value v;
  EXPECT_TRUE(json_spirit::read_string(text, v)) << text;
  return v;
}

inline std::string dump_json(const json_spirit::Value& v) { return json_spirit::write_string(v); }

/// The back-off waits of the repeat loop, recorded instead of slept.
struct Recorded_Waits
{
  Recorded_Waits()
  {
    waits.clear();
    retry_sleeper([](unsigned int seconds) { waits.push_back(seconds); });
  }
  ~Recorded_Waits() { retry_sleeper(nullptr); }
  inline static std::vector<unsigned int> waits;
};

/// A session on 127.0.0.1 with short limits, for the scripted server.
inline HTTP_Session_Ptr local_session(unsigned short port, int read_timeout = 10)
{
  return HTTP_Session_Factory::create("127.0.0.1", port, false, nullptr, 3, nullptr, false, 10, read_timeout, 0, 0);
}

/// A TLS session on 127.0.0.1 that trusts what context trusts, or, without
/// a context, any certificate.
inline HTTP_Session_Ptr tls_session(unsigned short port, ACE_SSL_Context* context, const char* name = nullptr,
                                    int max_requests = 0, int read_timeout = 10)
{
  return HTTP_Session_Factory::create("127.0.0.1", port, true, name, 3, context, !context, 10, read_timeout, 0,
                                      max_requests);
}

/// A client context that trusts one certificate.
inline ACE_SSL_Context* trusting(const std::string& certificate)
{
  ACE_SSL_Context* context = new ACE_SSL_Context;
  context->set_mode(ACE_SSL_Context::SSLv23_client);
  context->load_trusted_ca(certificate.c_str());
  return context;
}

/// The whole body of a response whose head has been read, through blocks of
/// the given size; pieces counts the reads that gave data.
inline std::string read_all(HTTP_Connection& connection, size_t block_size, int* pieces = nullptr)
{
  std::string body;
  ACE_Message_Block block(block_size);
  while (connection.state() != HTTP_Connection::STATE_BODY_END && connection.state() != HTTP_Connection::STATE_CLOSED)
  {
    block.reset();
    if (connection.read_body(&block) == -1)
      break;
    if (block.length() && pieces)
      ++*pieces;
    body.append(block.rd_ptr(), block.length());
  }
  return body;
}

/// Peak resident size of this process, in bytes.
inline long long peak_rss()
{
  rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<long long>(usage.ru_maxrss) * 1024;
}

// Sanitizers' shadow memory makes resident-memory figures meaningless.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define HTTP_TEST_UNDER_ASAN 1
#else
#define HTTP_TEST_UNDER_ASAN 0
#endif

// The real servers of the HTTP tests, started on loopback for one test and
// stopped when it ends.

/// jayson (JSON-RPC) or json-server (REST) from tests/http/node. They end
/// when their standard input closes, so they go even if the test dies.
class Node_Peer
{
public:
  /// script: "jayson_server.js" or "rest_server.js".
  explicit Node_Peer(const char* script);
  unsigned short port() const { return port_; }

private:
  Child process_;
  unsigned short port_;
};

/// nginx in the foreground with a configuration of its own in a temp
/// folder: TLS with a certificate for localhost and 127.0.0.1 made here,
/// static files under www/, and a log of connection and request numbers.
class Nginx_Peer
{
public:
  /// proxy_port, if not 0, is where /rpc is passed on to.
  explicit Nginx_Peer(unsigned short proxy_port = 0, int keepalive_timeout = 30);

  unsigned short port() const { return port_; }
  const Temp_Dir& dir() const { return dir_; }
  std::string certificate() const { return dir_.file("cert.pem"); }
  /// Writes a file to serve as /name.
  void serve(const std::string& name, const std::string& content) const { dir_.write("www/" + name, content); }
  /// Lines of the access log, "connection requests status method uri",
  /// once there are at least `expected` of them (or after 5 s).
  std::vector<std::string> access_log(size_t expected) const;

private:
  Temp_Dir dir_;
  unsigned short port_;
  std::unique_ptr<Child> process_;
};

// A server on a loopback port that answers each request with bytes from a
// script, for the faults that real servers rarely show. Requests are read
// whole (Boost.Beast's request parser, chunked bodies included) and kept.

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
