// The scope that opens and closes the library in a program without a
// service: what it makes, in what order it closes, and a second scope.
#include "fake_channel.h"
#include "log_capture.h"

#include "json_rpc/json_rpc_function_handler.h"
#include "json_rpc/json_rpc_scope.h"
#include "json_rpc/json_rpc_service.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using json_spirit::Value;

namespace
{
  // Records when the function object that holds it is destroyed.
  struct Destroy_Mark
  {
    explicit Destroy_Mark(std::function<void()> f) : on_destroy(std::move(f)) {}
    ~Destroy_Mark() { on_destroy(); }
    std::function<void()> on_destroy;
  };

  TEST(Scope, OpensTheLibraryAndClosingDestroysTheMethods)
  {
    Log_Capture log;
    std::atomic<bool> destroyed{false};
    {
      JSON_RPC_Scope scope;
      ASSERT_TRUE(scope.ok());
      EXPECT_TRUE(JSON_RPC_Scope::is_open());
      auto mark = std::make_shared<Destroy_Mark>([&destroyed] { destroyed = true; });
      ASSERT_EQ(0, add_json_rpc_method("m", [mark](Value) { return Value("served"); }));
      mark.reset();
      // What a transport's thread uses is there.
      JSON_RPC_Channel_Strong_Ptr channel = make_channel(2, "peer");
      EXPECT_EQ(0, JSON_RPC_Channel_Map::instance()->insert(channel));
      EXPECT_EQ("\"served\"", call("m"));
      EXPECT_FALSE(destroyed);
    }
    EXPECT_TRUE(destroyed);
    EXPECT_FALSE(JSON_RPC_Scope::is_open());

    // A new scope starts from empty tables.
    JSON_RPC_Scope again;
    EXPECT_TRUE(again.ok());
    EXPECT_EQ(nullptr, JSON_RPC_Request_Map::instance()->find("m"));
    EXPECT_TRUE(JSON_RPC_Channel_Map::instance()->find(2, "peer").null());
  }

  TEST(Scope, ASecondScopeIsRefusedAndLeavesTheFirstAlone)
  {
    Log_Capture log;
    JSON_RPC_Scope first;
    add_json_rpc_method("m", [](Value) { return Value(1); });
    {
      JSON_RPC_Scope second(4);
      EXPECT_FALSE(second.ok());
      EXPECT_TRUE(log.contains("JSON_RPC_Scope: the library is open in another scope already; this one does nothing."));
      second.close();
    }
    EXPECT_TRUE(JSON_RPC_Scope::is_open());
    EXPECT_EQ("1", call("m"));
    // The second asked for a pool, and started none.
    add_json_rpc_method("pool", [](Value) { return Value(2); }, JSON_RPC_Function_Handler::THREAD_POOL);
    EXPECT_EQ("refused", call("pool"));
  }

  TEST(Scope, ClosingTwiceIsHarmless)
  {
    Log_Capture log;
    JSON_RPC_Scope scope;
    add_json_rpc_method("m", [](Value) { return Value(1); });
    scope.close();
    EXPECT_FALSE(scope.ok());
    EXPECT_FALSE(JSON_RPC_Scope::is_open());
    scope.close();
    EXPECT_FALSE(JSON_RPC_Scope::is_open());
    // Closed means closed: a later user makes fresh, empty tables.
    EXPECT_EQ(nullptr, JSON_RPC_Request_Map::instance()->find("m"));
    JSON_RPC_Scope::close_singletons();
  }

  // The workers stop before the handlers go: a call running on the pool
  // when the scope closes ends before its method is destroyed.
  TEST(Scope, ThePoolStopsBeforeTheMethodsAreDestroyed)
  {
    Log_Capture log;
    std::mutex mutex;
    std::condition_variable changed;
    bool started = false, release = false;
    std::vector<std::string> events;
    auto record = [&](const std::string& event) {
      std::lock_guard<std::mutex> guard(mutex);
      events.push_back(event);
      changed.notify_all();
    };

    JSON_RPC_Scope scope(1);
    ASSERT_TRUE(scope.ok());
    auto mark = std::make_shared<Destroy_Mark>([&] { record("method destroyed"); });
    add_json_rpc_method(
      "slow",
      [&, mark](Value) {
        std::unique_lock<std::mutex> lock(mutex);
        started = true;
        changed.notify_all();
        changed.wait(lock, [&] { return release; });
        events.push_back("call ended");
        return Value(true);
      },
      JSON_RPC_Function_Handler::THREAD_POOL);
    mark.reset();

    JSON_RPC_Channel_Strong_Ptr channel = make_channel();
    ASSERT_EQ(0, JSON_RPC_Dispatcher::instance()->dispatch(JSON_RPC_Channel_Weak_Ptr(channel),
                                                           make_message("slow", Value(), 1)));
    {
      std::unique_lock<std::mutex> lock(mutex);
      ASSERT_TRUE(changed.wait_for(lock, std::chrono::seconds(20), [&] { return started; }));
    }
    std::thread closer([&] { scope.close(); });
    {
      std::lock_guard<std::mutex> guard(mutex);
      release = true;
      changed.notify_all();
    }
    closer.join();
    EXPECT_EQ((std::vector<std::string>{"call ended", "method destroyed"}), events);
    EXPECT_EQ(1u, fake(channel).count());
  }

  // The service orders the same singletons with the same code.
  TEST(Scope, TheServiceOpensAndClosesWhatTheScopeDoes)
  {
    Log_Capture log;
    JSON_RPC_Service service;
    ASSERT_EQ(0, service.init(0, nullptr));
    add_json_rpc_method("m", [](Value) { return Value(1); });
    EXPECT_EQ("1", call("m"));
    EXPECT_FALSE(JSON_RPC_Scope::is_open());
    EXPECT_EQ(0, service.fini());
    EXPECT_EQ(nullptr, JSON_RPC_Request_Map::instance()->find("m"));
    JSON_RPC_Scope::close_singletons();
  }
}
