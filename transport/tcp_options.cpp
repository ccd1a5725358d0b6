// Settings of the TCP transport, and the address form it takes.
#include "transport/tcp_options.h"

#include <ace/INET_Addr.h>
#include <ace/Log_Msg.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>

TCP_Options::TCP_Options()
  : framing(FRAMING_CONTENT_LENGTH), read_limit(60), send_limit(60), max_send_queue(16 << 20),
    max_requests_in_flight(1024), max_header_size(8192), max_message_size(64ULL << 20),
    forward_responses(false), register_channel(true), use_pool(false), listen_backlog(0), max_connections(0), io_threads(0),
    unix_mode(0660)
{
}

int parse_tcp_address(const std::string& text, ACE_INET_Addr& addr)
{
  size_t colon = text.rfind(':');
  std::string host = colon == std::string::npos ? std::string() : text.substr(0, colon);
  std::string port = colon == std::string::npos ? std::string() : text.substr(colon + 1);
  if (host.size() > 1 && host.front() == '[' && host.back() == ']')
    host = host.substr(1, host.size() - 2);
  char* end = nullptr;
  long number = port.empty() ? -1 : std::strtol(port.c_str(), &end, 10);
  if (host.empty() || port.empty() || *end || number < 0 || number > 65535 || port[0] == '+' || port[0] == '-' ||
      addr.set(static_cast<unsigned short>(number), host.c_str()) == -1)
  {
    errno = EINVAL;
    return -1;
  }
  return 0;
}

std::string unix_socket_path(const std::string& text)
{
  return text.compare(0, 5, "unix:") == 0 ? text.substr(5) : std::string();
}

int unix_stream_socket(const std::string& path, sockaddr_un& addr)
{
  addr = sockaddr_un();
  addr.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof addr.sun_path)
  {
    errno = ENAMETOOLONG;
    return -1;
  }
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  return ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
}
