// Opens client connections and starts a channel on each.
#ifndef TRANSPORT_TCP_CONNECTOR_H
#define TRANSPORT_TCP_CONNECTOR_H

#include "transport/tcp_export.h"
#include "transport/tcp_options.h"
#include "json_rpc/json_rpc_object.h"

#include <ace/INET_Addr.h>
#include <ace/SOCK_Stream.h>
#include <ace/Time_Value.h>

#include <string>

/// Opens client connections.
class JSON_RPC_TCP_EXPORT TCP_Connector
{
public:
  /// Connects to addr, waiting at most *timeout (null: the system's limit),
  /// and starts a TCP_Channel on the connection with options, served by
  /// options.reactor or else by an I/O thread of its own, which takes the
  /// caller's log settings. 0 with channel set, or -1 with
  /// errno. The caller ends the connection with TCP_Channel::close; letting
  /// go of the pointer alone leaves it up while the peer keeps it.
  static int connect(JSON_RPC_Channel_Strong_Ptr& channel, const ACE_INET_Addr& addr, const TCP_Options& options,
                     const ACE_Time_Value* timeout = nullptr);
  /// The same over the Unix domain socket at path.
  static int connect_unix(JSON_RPC_Channel_Strong_Ptr& channel, const std::string& path, const TCP_Options& options);

private:
  static int start(JSON_RPC_Channel_Strong_Ptr& channel, ACE_SOCK_Stream& stream, const TCP_Options& options);
};

#endif
