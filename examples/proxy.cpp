// A forwarding handler: each call of its method is passed on to an upstream
// host, and the upstream's response streams back to the caller under the
// caller's own id, token by token as it arrives, never assembled here.
//
// Record params: --upstream HOST:PORT [--framing content-length|ndjson]
//                [--connect-timeout SECONDS]
//
// The configuration file is the method table: one record per method, each
// naming its upstream. Records that name the same upstream and framing share
// one connection. It is made at the first call, and made again at the next
// call once the upstream has closed it. A call that can't be passed on (no
// connection) is answered with -32603 and the reason as data; calls in
// flight when the upstream closes are answered -32603 "Internal error,
// forwarder is closed." by the transport. Notifications are passed on too.
#include "example_util.h"

#include "json_rpc/json_rpc_handler.h"
#include "transport/tcp_channel.h"
#include "transport/tcp_connector.h"

#include <ace/INET_Addr.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace
{
  // One connection to an upstream host, shared by the methods sent there.
  class Upstream
  {
  public:
    Upstream(const std::string& address, const ACE_INET_Addr& addr, const TCP_Options& options, int timeout)
      : address_(address), addr_(addr), options_(options), timeout_(timeout, 0)
    {
    }

    ~Upstream()
    {
      // Its end answers what is still in flight.
      if (!link_.null())
        TCP_Channel::cast(link_)->close();
    }

    const std::string& address() const { return address_; }

    /// The open connection, made now if there is none; empty with reason
    /// set if it can't be made.
    JSON_RPC_Channel_Strong_Ptr link(std::string& reason)
    {
      JSON_RPC_Channel_Strong_Ptr old, link;
      {
        std::lock_guard<std::mutex> guard(mutex_);
        if (!link_.null() && !TCP_Channel::cast(link_)->closed())
          return link_;
        // Let go outside the lock: the last pointer stops its I/O thread.
        old = link_;
        link_ = JSON_RPC_Channel_Strong_Ptr();
        if (TCP_Connector::connect(link, addr_, options_, &timeout_) == -1)
          reason = std::strerror(errno);
        else
          link_ = link;
      }
      return link;
    }

  private:
    const std::string address_;
    const ACE_INET_Addr addr_;
    const TCP_Options options_;
    const ACE_Time_Value timeout_;
    std::mutex mutex_;
    JSON_RPC_Channel_Strong_Ptr link_;
  };

  // Upstreams by address and framing, while a handler holds them.
  std::mutex upstreams_mutex;
  std::map<std::string, std::weak_ptr<Upstream>> upstreams;

  std::shared_ptr<Upstream> upstream_for(const std::string& address, const TCP_Options& options, int timeout)
  {
    ACE_INET_Addr addr;
    if (addr.set(address.c_str()) == -1)
      return nullptr;
    std::string key = address + (options.framing == TCP_Options::FRAMING_NDJSON ? " ndjson" : " content-length");
    std::lock_guard<std::mutex> guard(upstreams_mutex);
    std::shared_ptr<Upstream> upstream = upstreams[key].lock();
    if (!upstream)
    {
      upstream = std::make_shared<Upstream>(address, addr, options, timeout);
      upstreams[key] = upstream;
    }
    return upstream;
  }

  class Proxy : public JSON_RPC_Handler
  {
  public:
    int init(int argc, char** argv) override
    {
      const char* address = nullptr;
      TCP_Options options;
      // The responses of this link go to the callers; it is no peer of
      // this host's and is not entered in its channel tables.
      options.forward_responses = true;
      options.register_channel = false;
      int timeout = 10;
      for (int i = 0; i + 1 < argc; i += 2)
      {
        if (std::strcmp(argv[i], "--upstream") == 0)
          address = argv[i + 1];
        else if (std::strcmp(argv[i], "--framing") == 0 && std::strcmp(argv[i + 1], "ndjson") == 0)
          options.framing = TCP_Options::FRAMING_NDJSON;
        else if (std::strcmp(argv[i], "--framing") == 0 && std::strcmp(argv[i + 1], "content-length") == 0)
          options.framing = TCP_Options::FRAMING_CONTENT_LENGTH;
        else if (std::strcmp(argv[i], "--connect-timeout") == 0 && std::atoi(argv[i + 1]) > 0)
          timeout = std::atoi(argv[i + 1]);
        else
          return invalid();
      }
      if (argc % 2 || !address)
        return invalid();
      upstream_ = upstream_for(address, options, timeout);
      return upstream_ ? 0 : invalid();
    }

    int handle_object(JSON_RPC_Channel_Weak_Ptr channel, JSON_RPC_Object_Ptr object) override
    {
      std::string reason;
      // A connection found closed is made again once; so is one that
      // closes between the look and the send.
      for (int attempt = 0; attempt < 2; ++attempt)
      {
        JSON_RPC_Channel_Strong_Ptr link = upstream_->link(reason);
        if (link.null())
          break;
        int sent = object->type == JSON_RPC_Object::TYPE_REQUEST ? link->forward(channel, object)
                                                                 : link->send_object(object);
        if (sent == 0)
          return 0;
        reason = std::strerror(errno);
        if (!TCP_Channel::cast(link)->closed())
          break;
      }
      JSON_RPC_Channel_Strong_Ptr caller(channel);
      if (caller.null() || object->type != JSON_RPC_Object::TYPE_REQUEST)
        return -1;
      std::string message = "Internal error, upstream " + upstream_->address() + " is unreachable.";
      caller->send_error(-32603, object->id, message.c_str(), json_spirit::Value(reason));
      return -1;
    }

  private:
    static int invalid()
    {
      errno = EINVAL;
      return -1;
    }

    std::shared_ptr<Upstream> upstream_;
  };
}

EXAMPLE_FACTORY JSON_RPC_Handler* make_proxy(void (**destroy)(void*))
{
  return example::make<Proxy, JSON_RPC_Handler>(destroy);
}
