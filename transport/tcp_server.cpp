// The TCP server: an acceptor with a start and a stop.
#include "transport/tcp_server.h"

#include "json_rpc/json_rpc_scope.h"

#include <ace/Log_Msg.h>

#include <cerrno>

TCP_Server::TCP_Server() : running_(false) {}

TCP_Server::~TCP_Server() { stop(); }

int TCP_Server::start(const std::string& address, const TCP_Options& options)
{
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
  if (running_)
  {
    errno = EISCONN;
    return -1;
  }
  // The connections' threads use them from the first message on.
  JSON_RPC_Scope::open_singletons();
  if (acceptor_.open(addr, options) == -1)
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

std::string TCP_Server::address() const
{
  char host[96] = {0};
  if (acceptor_.local_addr().get_host_addr(host, sizeof host) == nullptr)
    return std::string();
  bool v6 = acceptor_.local_addr().get_type() == AF_INET6;
  return (v6 ? "[" + std::string(host) + "]" : std::string(host)) + ":" + std::to_string(port());
}
