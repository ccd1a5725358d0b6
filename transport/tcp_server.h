// The TCP server: an acceptor with a start and a stop.
#ifndef TRANSPORT_TCP_SERVER_H
#define TRANSPORT_TCP_SERVER_H

#include "transport/tcp_acceptor.h"
#include "transport/tcp_export.h"
#include "transport/tcp_options.h"

#include <string>
#include <vector>

/// A JSON-RPC server over TCP: listens on one address and serves the
/// methods of JSON_RPC_Request_Map on every connection. A fixed set of I/O
/// threads (TCP_Options::io_threads) serves all connections; direct
/// handlers run on them, so slow work belongs on the pool or a thread of
/// its own.
///
///   JSON_RPC_Scope scope;
///   add_json_rpc_method("add", ...);
///   TCP_Server server;
///   if (server.start("127.0.0.1:4000") == -1) ...   // port 0: any free one
///   ...
///   server.stop();                                  // or its destructor
///
/// Add the methods before start(): the request map is not written while
/// messages flow. start() makes the library's singletons if no scope (or
/// service) has, but only a scope closes them.
class JSON_RPC_TCP_EXPORT TCP_Server
{
public:
  TCP_Server();
  /// stop().
  ~TCP_Server();
  TCP_Server(const TCP_Server&) = delete;
  TCP_Server& operator=(const TCP_Server&) = delete;

  /// Listens on address, "HOST:PORT" or "unix:PATH" (a Unix domain socket,
  /// see TCP_Acceptor::open_unix), with options for all connections,
  /// and starts accepting. -1 with errno and a line at error priority when
  /// it can't: EINVAL for a bad address, EADDRINUSE for a port that is
  /// taken, EISCONN when this server runs already.
  int start(const std::string& address, const TCP_Options& options = TCP_Options());
  int start(const ACE_INET_Addr& addr, const TCP_Options& options = TCP_Options());

  /// Stops accepting, closes every connection and stops the I/O threads; a
  /// direct handler still running on one of them has returned when it
  /// does. Call it from a thread that serves none of its connections (not
  /// from a direct handler). Nothing happens if the server does not run.
  void stop();
  /// A graceful stop(): no new connections or requests are taken, the
  /// requests in flight have up to limit to be answered, those left are
  /// answered with -32001 "Server shutting down", and then it stops.
  void stop(const ACE_Time_Value& limit);

  bool running() const { return running_; }
  /// The address bound, with the real port (after start()).
  const ACE_INET_Addr& local_addr() const { return acceptor_.local_addr(); }
  unsigned short port() const { return acceptor_.port(); }
  /// The address listened on, in the form start() takes.
  std::string address() const;
  /// The connections that are up.
  std::vector<JSON_RPC_Channel_Strong_Ptr> connections() const { return acceptor_.connections(); }

private:
  template <class Open>
  int start_i(Open open);

  TCP_Acceptor acceptor_;
  bool running_;
};

#endif
