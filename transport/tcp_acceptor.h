// The listener: accepts connections on one address and starts a channel on each.
#ifndef TRANSPORT_TCP_ACCEPTOR_H
#define TRANSPORT_TCP_ACCEPTOR_H

#include "transport/tcp_export.h"
#include "transport/tcp_options.h"
#include "transport/tcp_reactor.h"
#include "json_rpc/json_rpc_object.h"

#include <ace/INET_Addr.h>
#include <ace/Time_Value.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

/// Listens on one address and makes a started TCP_Channel of every
/// connection, with the listener's options. Accepting runs on an I/O
/// thread of the reactor that serves the connections (options.reactor, or
/// one of its own). It owns its connections.
class JSON_RPC_TCP_EXPORT TCP_Acceptor : private TCP_Reactor_Handler
{
public:
  TCP_Acceptor();
  /// close(true).
  ~TCP_Acceptor() override;
  TCP_Acceptor(const TCP_Acceptor&) = delete;
  TCP_Acceptor& operator=(const TCP_Acceptor&) = delete;

  /// Listens on addr (port 0: the system picks one) and starts accepting.
  /// -1 with errno if it can't, or if the acceptor is open already.
  int open(const ACE_INET_Addr& addr, const TCP_Options& options);
  /// Listens on a Unix domain socket at path, whose file gets
  /// options.unix_mode. A file there that is a socket nobody listens on is
  /// replaced; one that is in use fails with EADDRINUSE, anything else with
  /// EEXIST. close() removes the file.
  int open_unix(const std::string& path, const TCP_Options& options);
  /// The address bound, with the real port.
  const ACE_INET_Addr& local_addr() const { return local_addr_; }
  /// "HOST:PORT" ("[HOST]:PORT" for IPv6) or "unix:PATH", in the form the
  /// server and client take.
  std::string address() const;
  unsigned short port() const { return local_addr_.get_port_number(); }

  /// Stops accepting. With close_connections every connection is closed too,
  /// and the reactor the acceptor made stopped, when it returns. Without, they go on, each
  /// until its peer leaves or it is closed.
  void close(bool close_connections = true);

  /// A graceful stop: stops accepting and reading, gives the requests in
  /// flight up to limit to be answered, answers those left with -32001
  /// "Server shutting down", lets the peers take what is queued for them
  /// (within the limit, or a second after it), and closes every
  /// connection.
  void drain(const ACE_Time_Value& limit);
  /// Cuts short a drain that runs on another thread: it answers nothing
  /// more and closes every connection at once.
  void cut() { cut_ = true; }

  /// The connections that are up.
  std::vector<JSON_RPC_Channel_Strong_Ptr> connections() const;

private:
  struct Shared;

  void handle_events(uint32_t events) override;
  void handle_tick(std::chrono::steady_clock::time_point now) override;
  void accept_all();
  static int backlog(const TCP_Options& options);
  /// Serves the listening socket fd with options.
  int watch(int fd, const TCP_Options& options);
  /// Stops watching the listener, on its loop's thread.
  void stop_accepting();

  std::shared_ptr<Shared> shared_;
  int listen_fd_;
  ACE_INET_Addr local_addr_;
  std::string unix_path_; // a Unix domain listener's
  TCP_Options options_;
  std::shared_ptr<TCP_Reactor> reactor_;
  bool own_reactor_; // made here, stopped here
  TCP_Reactor::Loop* loop_;
  // On the loop's thread:
  std::atomic<bool> cut_;
  bool paused_;             // out of descriptors, or at the cap
  bool out_of_descriptors_; // one log line per spell
};

#endif
