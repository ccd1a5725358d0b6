#ifndef TESSEL_PEER_ADDR_STRING_T_H
#define TESSEL_PEER_ADDR_STRING_T_H

#include <ace/INET_Addr.h>
#include <ace/Log_Msg.h>
#include <cerrno>

/// Text naming a peer in log lines: the numeric address (with its port),
/// made on the caller's stack. Empty or partial if the address can't be had;
/// the reason is logged.
template <class Channel>
class Peer_Addr_String_T
{
public:
  explicit Peer_Addr_String_T(const Channel& channel, bool remote = true, bool with_port = true)
  {
    buffer_[0] = '\0';
    ACE_INET_Addr addr;
    int r = remote ? channel.get_remote_addr(addr) : channel.get_local_addr(addr);
    if (r == -1)
    {
      ACE_ERROR((LM_ERROR, "Failed to get socket address, errno=%d, %m\n", errno));
      return;
    }
    int c = with_port ? addr.addr_to_string(buffer_, sizeof buffer_, 1)
                      : (addr.get_host_addr(buffer_, sizeof buffer_) ? 0 : -1);
    if (c == -1)
      ACE_ERROR((LM_ERROR, "Failed to convert socket address to string, errno=%d, %m\n", errno));
  }

  char const* c_str() const { return buffer_; }

private:
  char buffer_[96];
};

#endif
