// Settings of the TCP transport, and the address form it takes.
#ifndef TRANSPORT_TCP_OPTIONS_H
#define TRANSPORT_TCP_OPTIONS_H

#include "transport/tcp_export.h"

#include <ace/Time_Value.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

class ACE_INET_Addr;
class TCP_Channel;
class TCP_Reactor;

/// Settings of one listener (for all its connections) or of one outgoing
/// connection.
struct JSON_RPC_TCP_EXPORT TCP_Options
{
  enum Framing
  {
    /// "Content-Length: N\r\n\r\n" before each body, as the Language Server
    /// Protocol frames messages. Header names are case-insensitive; a
    /// Content-Type header is accepted and ignored, as are other headers.
    FRAMING_CONTENT_LENGTH,
    /// One message per line; blank lines between messages are skipped.
    FRAMING_NDJSON
  };

  TCP_Options();

  Framing framing;
  /// Time a peer has to finish a message once its first byte has come
  /// (60 s). A peer that is quiet between messages is never cut off.
  ACE_Time_Value read_limit;
  /// Time the output queue may stay over max_send_queue (60 s): a peer
  /// that takes no more than that is closed, with a line at error priority.
  /// Writers never wait for a peer: what it has not taken waits in the
  /// queue.
  ACE_Time_Value send_limit;
  /// Bytes queued for a peer beyond which the send_limit clock runs (16 MiB).
  /// A response forwarded as it comes pauses its forwarder's reading while
  /// its requester's queue is over this, so it never queues much more.
  size_t max_send_queue;
  /// Requests of one connection dispatched and not yet answered, past which
  /// the connection is not read until answers go out (1024; 0: no limit).
  size_t max_requests_in_flight;
  /// Bytes of header lines in front of one body (8 KiB).
  size_t max_header_size;
  /// Most bytes of an incoming message that are assembled into an object
  /// (64 MiB; 0: no limit). Params that stream to a filter and responses
  /// forwarded as they come are not held, and do not count.
  unsigned long long max_message_size;
  /// Responses to requests passed on with TCP_Channel::forward stream back
  /// to their requesters (the reader's MODE_FORWARD_RESPONSE).
  bool forward_responses;
  /// Enter the channel in JSON_RPC_Channel_Map while it is connected (true).
  bool register_channel;
  /// Enter it in JSON_RPC_Channel_Pool too (false).
  bool use_pool;
  /// Length of a listener's queue of connections not yet accepted; 0, the
  /// default, asks for the most the system allows (net.core.somaxconn), so
  /// that a burst of connects waits there instead of being dropped.
  int listen_backlog;
  /// Most connections a listener keeps open at once; 0, the default, sets
  /// no limit. One past it is closed as soon as it is accepted, with a line
  /// at warning priority, instead of being left to hang.
  size_t max_connections;
  /// The I/O threads that serve the connections. Null: a listener makes
  /// its own, io_threads of them, and an outgoing connection gets one
  /// thread of its own. Many connections can share one reactor.
  std::shared_ptr<TCP_Reactor> reactor;
  /// Threads of a listener's own reactor (0, the default: one for each
  /// processor).
  size_t io_threads;
  /// Permissions of a Unix domain socket's file, as chmod takes them
  /// (0660: its owner and group may connect).
  unsigned int unix_mode;
  /// Runs before registration, with type 0 and the id set to the peer's
  /// address text; it may change both. -1 refuses the connection.
  std::function<int(TCP_Channel&)> on_connect;
  /// Runs on the connection's I/O thread once the channel has been
  /// deregistered.
  std::function<void(TCP_Channel&)> on_close;
};

/// The path of "unix:PATH", the address form of a Unix domain socket; empty
/// for any other text.
JSON_RPC_TCP_EXPORT std::string unix_socket_path(const std::string& text);

struct sockaddr_un;
/// A Unix domain stream socket (close-on-exec) and addr filled for path:
/// its descriptor, or -1 with errno (ENAMETOOLONG for a path that does not
/// fit, or is empty).
JSON_RPC_TCP_EXPORT int unix_stream_socket(const std::string& path, sockaddr_un& addr);

/// Reads "HOST:PORT" ("127.0.0.1:4000", "localhost:0", "[::1]:4000"; port
/// 0 lets the system pick one when listening) into addr. -1 with errno
/// EINVAL, and no log line, if the text is no such address or the host
/// can't be resolved.
JSON_RPC_TCP_EXPORT int parse_tcp_address(const std::string& text, ACE_INET_Addr& addr);

#endif
