// Opens client connections and starts a channel on each.
#include "transport/tcp_connector.h"
#include "transport/tcp_channel.h"

#include "tessel/utils.h"

#include <ace/Log_Msg.h>
#include <ace/OS_NS_fcntl.h>
#include <ace/SOCK_Connector.h>

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
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
  return start(channel, stream, options);
}

int TCP_Connector::connect_unix(JSON_RPC_Channel_Strong_Ptr& channel, const std::string& path, const TCP_Options& options)
{
  sockaddr_un addr;
  int fd = unix_stream_socket(path, addr);
  int error = fd == -1 ? errno : 0;
  // A local connect completes or fails at once.
  if (fd != -1 && ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == -1)
    error = errno;
  if (error)
  {
    if (fd != -1)
      ::close(fd);
    ACE_ERROR((LM_ERROR, "TCP: failed to connect to unix:%C, errno=%d, %m.\n", path.c_str(), error));
    errno = error;
    return -1;
  }
  ACE_SOCK_Stream stream(fd);
  return start(channel, stream, options);
}

int TCP_Connector::start(JSON_RPC_Channel_Strong_Ptr& channel, ACE_SOCK_Stream& stream, const TCP_Options& options)
{
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
