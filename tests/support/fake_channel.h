#ifndef TESTS_SUPPORT_FAKE_CHANNEL_H
#define TESTS_SUPPORT_FAKE_CHANNEL_H

#include "json_rpc/json_rpc_channel.h"
#include "json_rpc/json_rpc_generator.h"

#include <ace/INET_Addr.h>

#include <cerrno>
#include <chrono>
#include <functional>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

/// A channel that keeps what is sent to it. Thread-safe; send_object can be
/// made to fail, and a hook can run on every send (to answer a call, say).
class Fake_Channel : public JSON_RPC_Channel
{
public:
  explicit Fake_Channel(int type = 0, const std::string& id = std::string(), unsigned short port = 4000)
    : addr_(port, "127.0.0.1")
  {
    JSON_RPC_Channel::type(type);
    JSON_RPC_Channel::id(id);
  }

  int send_object(JSON_RPC_Object_Ptr object) override
  {
    std::function<void(JSON_RPC_Object_Ptr)> hook;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (fail_)
      {
        errno = EPIPE;
        return -1;
      }
      sent_.push_back(object);
      hook = on_send_;
    }
    changed_.notify_all();
    if (hook)
      hook(object);
    return 0;
  }

  int send_generator(JSON_Generator& generator) override
  {
    std::string text;
    YAJL_String_Printer printer(&text);
    if (!JSON_RPC_Writer().write(generator, printer))
      return -1;
    std::lock_guard<std::mutex> lock(mutex_);
    if (fail_)
    {
      errno = EPIPE;
      return -1;
    }
    generated_.push_back(text);
    changed_.notify_all();
    return 0;
  }

  yajl_gen_t* send_begin() override { return nullptr; }
  int send_end() override { return -1; }
  int get_local_addr(ACE_Addr& addr) const override { return get_remote_addr(addr); }
  int get_remote_addr(ACE_Addr& addr) const override
  {
    static_cast<ACE_INET_Addr&>(addr) = addr_;
    return 0;
  }
  int io_state() override { return 0; }

  void fail(bool f)
  {
    std::lock_guard<std::mutex> lock(mutex_);
    fail_ = f;
  }

  void on_send(std::function<void(JSON_RPC_Object_Ptr)> hook)
  {
    std::lock_guard<std::mutex> lock(mutex_);
    on_send_ = std::move(hook);
  }

  std::vector<JSON_RPC_Object_Ptr> sent() const
  {
    std::lock_guard<std::mutex> lock(mutex_);
    return sent_;
  }

  std::vector<std::string> generated() const
  {
    std::lock_guard<std::mutex> lock(mutex_);
    return generated_;
  }

  size_t count() const
  {
    std::lock_guard<std::mutex> lock(mutex_);
    return sent_.size();
  }

  /// Waits (bounded) until at least n objects were sent.
  bool wait_for(size_t n, int seconds = 10) const
  {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(seconds), [&] { return sent_.size() >= n; });
  }

private:
  ACE_INET_Addr addr_;
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  bool fail_ = false;
  std::vector<JSON_RPC_Object_Ptr> sent_;
  std::vector<std::string> generated_;
  std::function<void(JSON_RPC_Object_Ptr)> on_send_;
};

/// The method and params of a sent notification or request.
inline const JSON_RPC_Request& as_request(const JSON_RPC_Object_Ptr& object)
{
  return static_cast<const JSON_RPC_Request&>(*object);
}

#endif
