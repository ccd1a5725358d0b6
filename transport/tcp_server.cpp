// The TCP server: an acceptor with a start and a stop.
#include "transport/tcp_server.h"

#include "json_rpc/json_rpc_scope.h"

#include <ace/Log_Msg.h>

#include <cerrno>

TCP_Server::TCP_Server() : running_(false) {}

TCP_Server::~TCP_Server() { stop(); }

int TCP_Server::start(const std::string& address, const TCP_Options& options)
{
  std::string path = unix_socket_path(address);
  if (!path.empty())
    return start_i([&]() { return acceptor_.open_unix(path, options); });
  ACE_INET_Addr addr;
  if (parse_tcp_address(address, addr) == -1)
  {
    ACE_ERROR((LM_ERROR, "TCP: bad address '%C', expected HOST:PORT.\n", address.c_str()));
    return -1;
  }
  return start(addr, options);
}

int TCP_Server::start(const ACE_INET_Addr& addr, const TCP_Options& options)
{
  return start_i([&]() { return acceptor_.open(addr, options); });
}

template <class Open>
int TCP_Server::start_i(Open open)
{
  if (running_)
  {
    errno = EISCONN;
    return -1;
  }
  // The connections' threads use them from the first message on.
  JSON_RPC_Scope::open_singletons();
  if (open() == -1)
    return -1;
  running_ = true;
  return 0;
}

void TCP_Server::stop()
{
  if (!running_)
    return;
  acceptor_.close(true);
  running_ = false;
}

void TCP_Server::stop(const ACE_Time_Value& limit)
{
  if (!running_)
    return;
  acceptor_.drain(limit);
  running_ = false;
}

std::string TCP_Server::address() const { return acceptor_.address(); }
