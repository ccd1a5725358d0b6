// A client connection that closes itself.
#include "transport/tcp_client.h"
#include "transport/tcp_channel.h"
#include "transport/tcp_connector.h"

#include "json_rpc/json_rpc_scope.h"

#include <ace/Log_Msg.h>

#include <cerrno>

TCP_Client::TCP_Client() {}

TCP_Client::~TCP_Client() { close(); }

int TCP_Client::connect(const std::string& address, const TCP_Options& options, long timeout)
{
  std::string path = unix_socket_path(address);
  if (!path.empty())
  {
    if (!channel_.null())
    {
      errno = EISCONN;
      return -1;
    }
    JSON_RPC_Scope::open_singletons();
    return TCP_Connector::connect_unix(channel_, path, options);
  }
  ACE_INET_Addr addr;
  if (parse_tcp_address(address, addr) == -1)
  {
    ACE_ERROR((LM_ERROR, "TCP: bad address '%C', expected HOST:PORT.\n", address.c_str()));
    return -1;
  }
  return connect(addr, options, timeout);
}

int TCP_Client::connect(const ACE_INET_Addr& addr, const TCP_Options& options, long timeout)
{
  if (!channel_.null())
  {
    errno = EISCONN;
    return -1;
  }
  // The I/O thread dispatches from the first message on.
  JSON_RPC_Scope::open_singletons();
  ACE_Time_Value limit(timeout > 0 ? timeout : 0);
  return TCP_Connector::connect(channel_, addr, options, timeout > 0 ? &limit : nullptr);
}

void TCP_Client::close()
{
  if (channel_.null())
    return;
  TCP_Channel::cast(channel_)->close();
  channel_ = JSON_RPC_Channel_Strong_Ptr();
}

bool TCP_Client::connected() const { return !channel_.null() && !TCP_Channel::cast(channel_)->closed(); }
