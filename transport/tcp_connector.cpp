// Opens client connections and starts a channel on each.
#include "transport/tcp_connector.h"
#include "transport/tcp_channel.h"

#include "tessel/utils.h"

#include <ace/Log_Msg.h>
#include <ace/OS_NS_fcntl.h>
#include <ace/SOCK_Connector.h>

#include <cerrno>
#include <new>

int TCP_Connector::connect(JSON_RPC_Channel_Strong_Ptr& channel, const ACE_INET_Addr& addr, const TCP_Options& options,
                           const ACE_Time_Value* timeout)
{
  ACE_SOCK_Stream stream;
  ACE_SOCK_Connector connector;
  if (connector.connect(stream, addr, timeout) == -1)
  {
    int error = errno;
    ACE_ERROR((LM_ERROR, "TCP: failed to connect to %C, errno=%d, %m.\n", ACE_Addr_String(addr).c_str(), error));
    errno = error;
    return -1;
  }
  TCP_Channel* tcp = new (std::nothrow) TCP_Channel(stream, options);
  if (!tcp)
  {
    stream.close();
    errno = ENOMEM;
    return -1;
  }
  JSON_RPC_Channel_Strong_Ptr started(tcp);
  std::shared_ptr<TCP_Reactor> reactor = options.reactor ? options.reactor : TCP_Reactor::make(1);
  if (!reactor || TCP_Channel::start(started, reactor, !options.reactor) == -1)
    return -1;
  channel = started;
  return 0;
}
