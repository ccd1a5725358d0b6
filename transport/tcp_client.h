// A client connection over the TCP transport that closes itself.
#ifndef TRANSPORT_TCP_CLIENT_H
#define TRANSPORT_TCP_CLIENT_H

#include "transport/tcp_export.h"
#include "transport/tcp_options.h"
#include "json_rpc/json_rpc_object.h"

#include <string>

/// One client connection over TCP that is closed when the object goes.
/// Calls go through JSON_RPC_Session on channel(); requests and
/// notifications that the peer sends on the connection are dispatched to
/// the methods of JSON_RPC_Request_Map on the connection's I/O thread,
/// like a server's (a notification without a method goes to the
/// subscribers of JSON_RPC_Notify_Manager). The connection has an I/O
/// thread of its own unless the options name a reactor.
///
///   TCP_Client client;
///   if (client.connect("127.0.0.1:4000") == -1) ...
///   JSON_RPC_Session session(client.channel());
class JSON_RPC_TCP_EXPORT TCP_Client
{
public:
  TCP_Client();
  /// close().
  ~TCP_Client();
  TCP_Client(const TCP_Client&) = delete;
  TCP_Client& operator=(const TCP_Client&) = delete;

  /// Connects to address, "HOST:PORT" or "unix:PATH", waiting at most timeout seconds
  /// (0 or less: the system's limit). -1 with errno and a line at error
  /// priority when it can't (EINVAL for a bad address, EISCONN when this
  /// client is connected already).
  int connect(const std::string& address, const TCP_Options& options = TCP_Options(), long timeout = 10);
  int connect(const ACE_INET_Addr& addr, const TCP_Options& options = TCP_Options(), long timeout = 10);

  /// Ends the connection and waits until it is deregistered; on its own
  /// I/O thread (a handler of this connection) it only starts the end.
  /// Nothing if not connected.
  void close();

  /// True while the connection is up.
  bool connected() const;
  /// The connection, for JSON_RPC_Session; empty when not connected.
  JSON_RPC_Channel_Weak_Ptr channel() const { return JSON_RPC_Channel_Weak_Ptr(channel_); }

private:
  JSON_RPC_Channel_Strong_Ptr channel_;
};

#endif
