#ifndef TRANSPORT_TCP_ACCEPTOR_H
#define TRANSPORT_TCP_ACCEPTOR_H

#include "transport/tcp_export.h"
#include "transport/tcp_options.h"
#include "json_rpc/json_rpc_object.h"

#include <ace/INET_Addr.h>
#include <ace/SOCK_Acceptor.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

class ACE_Log_Msg_Callback;

/// Listens on one address and makes a started TCP_Channel of every
/// connection, with the listener's options. It owns its connections: a
/// thread of its own accepts and also joins the read threads of connections
/// that have ended. Its log settings are those of the thread that calls
/// open().
class JSON_RPC_TCP_EXPORT TCP_Acceptor
{
public:
  TCP_Acceptor();
  /// close(true).
  ~TCP_Acceptor();
  TCP_Acceptor(const TCP_Acceptor&) = delete;
  TCP_Acceptor& operator=(const TCP_Acceptor&) = delete;

  /// Listens on addr (port 0: the system picks one) and starts accepting.
  /// -1 with errno if it can't, or if the acceptor is open already.
  int open(const ACE_INET_Addr& addr, const TCP_Options& options);
  /// The address bound, with the real port.
  const ACE_INET_Addr& local_addr() const { return local_addr_; }
  unsigned short port() const { return local_addr_.get_port_number(); }

  /// Stops accepting. With close_connections every connection is closed too,
  /// and their read threads have ended when it returns. Without, they go on,
  /// each until its peer leaves or it is closed, and free themselves then.
  void close(bool close_connections = true);

  /// The connections that are up.
  std::vector<JSON_RPC_Channel_Strong_Ptr> connections() const;

private:
  struct Shared;

  void run(unsigned long log_mask, ACE_Log_Msg_Callback* log_callback);
  bool accept_all();
  void reap();
  size_t open_connections() const;

  std::shared_ptr<Shared> shared_;
  ACE_SOCK_Acceptor listener_;
  ACE_INET_Addr local_addr_;
  TCP_Options options_;
  std::atomic<bool> stop_;
  bool out_of_descriptors_; // on the accept thread
  std::thread thread_;
};

#endif
