#ifndef TESTS_HTTP_PEERS_H
#define TESTS_HTTP_PEERS_H

// The real servers of the HTTP tests, started on loopback for one test and
// stopped when it ends.

#include <string>
#include <vector>

/// A folder that is removed with everything in it.
class Temp_Dir
{
public:
  Temp_Dir();
  ~Temp_Dir();
  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
  std::string path_;
};

/// A child process with a pipe on its standard input: the node peers end
/// when it closes, so they go even if the test dies.
class Peer_Process
{
public:
  explicit Peer_Process(const std::vector<std::string>& argv);
  ~Peer_Process();
  Peer_Process(const Peer_Process&) = delete;
  Peer_Process& operator=(const Peer_Process&) = delete;

  bool running() const { return pid_ > 0; }
  /// The number after "PORT " on the child's standard output; 0 when it
  /// doesn't come within the time given.
  unsigned short wait_port(int seconds);
  void stop();

private:
  int pid_;
  int in_;
  int out_;
};

/// A port that was free a moment ago.
unsigned short free_port();
/// True once something accepts on 127.0.0.1:port, within the time given.
bool wait_listening(unsigned short port, int seconds);

/// jayson (JSON-RPC) or json-server (REST) from tests/http/node.
class Node_Peer
{
public:
  /// script: "jayson_server.js" or "rest_server.js".
  explicit Node_Peer(const char* script);
  unsigned short port() const { return port_; }

private:
  Peer_Process process_;
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
  ~Nginx_Peer();

  unsigned short port() const { return port_; }
  const Temp_Dir& dir() const { return dir_; }
  std::string certificate() const { return dir_.file("cert.pem"); }
  /// Writes a file to serve as /name.
  void serve(const std::string& name, const std::string& content) const;
  /// Lines of the access log: "connection requests status method uri".
  /// Its lines, once there are at least `expected` of them (or after 5 s).
  std::vector<std::string> access_log(size_t expected) const;

private:
  Temp_Dir dir_;
  unsigned short port_;
  Peer_Process* process_;
};

/// GET path on 127.0.0.1:port with a plain socket; the body, empty on failure.
std::string plain_get(unsigned short port, const std::string& path);

#endif
