#ifndef TESTS_HTTP_PEERS_H
#define TESTS_HTTP_PEERS_H

// The real servers of the HTTP tests, started on loopback for one test and
// stopped when it ends.

#include "test_util.h"

#include <memory>

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

/// GET path on 127.0.0.1:port with a plain socket; the body, empty on failure.
std::string plain_get(unsigned short port, const std::string& path);

#endif
