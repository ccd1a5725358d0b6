// The shared pool and the per-call thread handler: what a caller can rely
// on when workers are busy, the queue is full, the pool stops or is
// replaced, and when a peer goes away while its call waits or runs.
#include "fake_channel.h"
#include "log_capture.h"
#include "test_util.h"

#include "json_rpc/json_rpc_answering.h"
#include "json_rpc/json_rpc_dispatcher.h"
#include "json_rpc/json_rpc_thread_handler.h"
#include "json_rpc/json_rpc_thread_pool_handler_impl.h"
#include "tessel/thread_helper.h"

#include <ace/Thread_Manager.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <functional>
#include <map>
#include <stdexcept>
#include <mutex>
#include <pthread.h>
#include <set>
#include <thread>
#include <vector>

namespace
{
  /// Counts events; a waiter polls (bounded) until the count reaches its number.
  struct Counter
  {
    void add() { ++count; }
    int value() const { return count; }
    bool wait_for(int n) const { return eventually([&] { return count >= n; }); }
    std::atomic<int> count{0};
  };

  /// Holds the threads that wait on it (wait_for(1)) until it is opened (add()).
  using Gate = Counter;

  JSON_RPC_Object_Ptr request(int id) { return make_message("probe", id, id); }

  // A channel that reports, as it dies, how many messages it was sent.
  struct Watched_Channel : Fake_Channel
  {
    explicit Watched_Channel(std::function<void(size_t)> gone) : gone_(std::move(gone)) {}
    ~Watched_Channel() override { gone_(count()); }

    std::function<void(size_t)> gone_;
  };

  std::string thread_name()
  {
    char name[32] = {0};
    pthread_getname_np(pthread_self(), name, sizeof name);
    return name;
  }

  // A pool method that notes each call, and holds it at a gate if it has one.
  struct Probe_Pool : JSON_RPC_Thread_Pool_Handler_Impl
  {
    int handle_request(JSON_RPC_Channel* channel, JSON_RPC_Request& request) override
    {
      {
        std::lock_guard<std::mutex> lock(mutex);
        ids.insert(request.id.get_int());
        worker_name = thread_name();
      }
      started.add();
      if (gate)
        gate->wait_for(1);
      if (on_release)
        on_release();
      if (channel)
        answer(channel, request, request.params);
      finished.add();
      return 0;
    }
    int handle_notify(JSON_RPC_Channel*, JSON_RPC_Request&) override { return notified.add(), 0; }
    int handle_response(JSON_RPC_Channel*, JSON_RPC_Response&) override { return responses.add(), 0; }
    int handle_response_error(JSON_RPC_Channel*, JSON_RPC_Response_Error&) override { return errors.add(), 0; }

    Gate* gate = nullptr;
    std::function<void()> on_release;
    Counter started, finished, notified, responses, errors;
    std::mutex mutex;
    std::multiset<int> ids;
    std::string worker_name;
  };

  class Pool_Handler : public ::testing::Test
  {
  protected:
    void TearDown() override { JSON_RPC_Thread_Pool_Handler::deactivate(); }

    // Polls, without sleeping, until the pool's queue has been shut down.
    static bool wait_until_deactivated(Thread_Pool_Helper* pool)
    {
      for (int i = 0; i < 20000000; ++i)
      {
        {
          // ACE reads the flag without the lock; the lock also orders what
          // the stopping thread did before.
          ACE_GUARD_RETURN(ACE_Thread_Mutex, guard, pool->msg_queue()->lock(), false);
          if (pool->msg_queue()->deactivated())
            return true;
        }
        std::this_thread::yield();
      }
      return false;
    }

    // A pool whose workers are all held at the gate, each in a call (ids 1
    // up) from the channel it gives.
    JSON_RPC_Channel_Strong_Ptr hold_workers(size_t workers, size_t queue)
    {
      EXPECT_EQ(0, JSON_RPC_Thread_Pool_Handler::activate("JSONRPC", workers, queue, 1));
      handler.gate = &gate;
      auto channel = make_channel();
      for (size_t id = 1; id <= workers; ++id)
        EXPECT_EQ(0, handler.handle_object(JSON_RPC_Channel_Weak_Ptr(channel), request(static_cast<int>(id))));
      EXPECT_TRUE(handler.started.wait_for(static_cast<int>(workers)));
      return channel;
    }

    Probe_Pool handler;
    Gate gate;
  };

  struct Probe_Thread : JSON_RPC_Thread_Handler
  {
    int handle_object_i(JSON_RPC_Channel_Strong_Ptr channel, JSON_RPC_Object_Ptr object) override
    {
      name = thread_name(); // read once `started` has counted it
      started.add();
      gate.wait_for(1);
      answer(channel.get(), as_request(object), as_request(object).params);
      finished.add();
      // Nothing looks at this.
      return -1;
    }

    Gate gate;
    Counter started, finished;
    std::string name;
  };
}

TEST_F(Pool_Handler, ActivationPreconditionsNameTheOperandsAndMakeNoPool)
{
  Log_Capture log;
  EXPECT_EQ(-1, JSON_RPC_Thread_Pool_Handler::activate("JSONRPC", 0, 10, 5));
  EXPECT_TRUE(log.contains("threads(0) <= 0:\n"));
  EXPECT_EQ(-1, JSON_RPC_Thread_Pool_Handler::activate("JSONRPC", 1, 10, 0));
  EXPECT_TRUE(log.contains("low_water_mark(0) <= 0:\n"));
  EXPECT_EQ(-1, JSON_RPC_Thread_Pool_Handler::activate("JSONRPC", 1, 5, 10));
  EXPECT_TRUE(log.contains("high_water_mark(5) < low_water_mark(10):\n"));
  EXPECT_EQ(3u, log.count_priority(LM_EMERGENCY));
  EXPECT_EQ(3u, log.count("Unexpected error in "));
  EXPECT_FALSE(JSON_RPC_Thread_Pool_Handler::thread_pool_);

  // Equal marks are allowed.
  EXPECT_EQ(0, JSON_RPC_Thread_Pool_Handler::activate("JSONRPC", 1, 4, 4));
  ASSERT_TRUE(JSON_RPC_Thread_Pool_Handler::thread_pool_);
  EXPECT_EQ(4u * 32, JSON_RPC_Thread_Pool_Handler::thread_pool_->msg_queue()->high_water_mark());
}

TEST_F(Pool_Handler, FullQueueRefusesTheNextCallAtOnceAndRunsTheRest)
{
  // Two workers, room for three waiting calls.
  auto channel = hold_workers(2, 3);
  JSON_RPC_Channel_Weak_Ptr weak(channel);
  for (int id = 3; id <= 5; ++id)
    ASSERT_EQ(0, handler.handle_object(weak, request(id))) << id;

  Log_Capture log;
  errno = 0;
  // With every worker held, this returns only if the enqueue does not wait.
  EXPECT_EQ(-1, handler.handle_object(weak, request(6)));
  EXPECT_EQ(EWOULDBLOCK, errno);
  EXPECT_EQ(std::vector<std::string>{"Failed to schedule task, errno=11, Resource temporarily unavailable\n"},
            log.lines());

  gate.add();
  ASSERT_TRUE(handler.finished.wait_for(5));
  ASSERT_TRUE(fake(channel).wait_for(5));
  // Once there is room again, calls are taken.
  ASSERT_EQ(0, handler.handle_object(weak, request(7)));
  ASSERT_TRUE(fake(channel).wait_for(6));
  std::lock_guard<std::mutex> lock(handler.mutex);
  EXPECT_EQ(0u, handler.ids.count(6)) << "the refused call ran";
  EXPECT_EQ(6u, handler.ids.size());
  EXPECT_EQ("JSONRPC", handler.worker_name);
}

TEST_F(Pool_Handler, ARefusedRequestIsAnsweredServerBusyAtOnceAndANotificationIsNot)
{
  // The table owns what it holds; the fixture's handler is reached through this.
  struct Via : JSON_RPC_Handler
  {
    explicit Via(JSON_RPC_Handler& to) : to_(to) {}
    int handle_object(JSON_RPC_Channel_Weak_Ptr c, JSON_RPC_Object_Ptr o) override { return to_.handle_object(c, o); }
    JSON_RPC_Handler& to_;
  };
  JSON_RPC_Request_Map::instance()->insert("probe", "", new Via(handler), nullptr);
  // One worker held, room for one waiting call.
  auto channel = hold_workers(1, 1);
  JSON_RPC_Channel_Weak_Ptr weak(channel);
  ASSERT_EQ(0, dispatch_answering(weak, request(2)));
  Log_Capture log;
  EXPECT_EQ(-1, dispatch_answering(weak, request(3)));
  ASSERT_EQ(1u, fake(channel).count()) << "the refusal is answered before dispatch returns";
  const JSON_RPC_Object& busy = *fake(channel).sent().back();
  EXPECT_EQ("error -32000", answer_text(busy));
  EXPECT_EQ(3, busy.id.get_int());
  EXPECT_EQ("Server busy", static_cast<const JSON_RPC_Response_Error&>(busy).message);
  EXPECT_EQ(1u, log.count("JSON-RPC 'probe' by 127.0.0.1:4000 refused: ")) << log.text();

  // A refused notification is only logged; a direct call of the handler
  // (not through dispatch_answering) is left to its caller, as before.
  EXPECT_EQ(-1, dispatch_answering(weak, make_message("probe", 1)));
  EXPECT_EQ(-1, handler.handle_object(weak, request(4)));
  EXPECT_EQ(1u, fake(channel).count());
  EXPECT_EQ(2u, log.count(" refused: "));

  gate.add();
  ASSERT_TRUE(fake(channel).wait_for(3));
  std::vector<int> answered;
  for (const auto& sent : fake(channel).sent())
    answered.push_back(sent->id.get_int());
  EXPECT_EQ((std::vector<int>{3, 1, 2}), answered);
  close_singletons();
}

TEST_F(Pool_Handler, AnExceptionOnAnyThreadBecomesAnInternalErrorAndTheThreadGoesOn)
{
  // What every kind of handler does with its params: throw, or echo them.
  struct Thrower
  {
    static void act(JSON_RPC_Channel* channel, const JSON_RPC_Request& request)
    {
      const json_spirit::Value& p = request.params;
      if (p.type() == json_spirit::str_type && p.get_str() == "std")
        throw std::runtime_error("bad input");
      if (p.type() == json_spirit::str_type && p.get_str() == "other")
        throw 42;
      answer(channel, request, p);
    }
  };
  struct Direct : JSON_RPC_Handler
  {
    int handle_object(JSON_RPC_Channel_Weak_Ptr channel, JSON_RPC_Object_Ptr object) override
    {
      Thrower::act(JSON_RPC_Channel_Strong_Ptr(channel).get(), as_request(object));
      return 0;
    }
  };
  struct Solo : JSON_RPC_Thread_Handler
  {
    int handle_object_i(JSON_RPC_Channel_Strong_Ptr channel, JSON_RPC_Object_Ptr object) override
    {
      Thrower::act(channel.get(), as_request(object));
      return 0;
    }
  };
  struct Pooled : JSON_RPC_Thread_Pool_Handler_Impl
  {
    int handle_request(JSON_RPC_Channel* channel, JSON_RPC_Request& request) override
    {
      Thrower::act(channel, request);
      return 0;
    }
    int handle_notify(JSON_RPC_Channel* channel, JSON_RPC_Request& request) override
    {
      Thrower::act(channel, request);
      return 0;
    }
  };
  ASSERT_EQ(0, JSON_RPC_Thread_Pool_Handler::activate("JSONRPC", 1, 16, 1));
  JSON_RPC_Request_Map* map = JSON_RPC_Request_Map::instance();
  map->insert("direct", "", new Direct, nullptr);
  map->insert("solo", "", new Solo, nullptr);
  map->insert("pooled", "", new Pooled, nullptr);

  Log_Capture log;
  for (const char* method : {"direct", "solo", "pooled"})
  {
    auto channel = make_channel();
    JSON_RPC_Channel_Weak_Ptr weak(channel);
    // In order on one worker: its throws must not end it.
    dispatch_answering(weak, make_message(method, "std", 1));
    dispatch_answering(weak, make_message(method, "other", 2));
    dispatch_answering(weak, make_message(method, "other")); // a notification: no answer
    dispatch_answering(weak, make_message(method, "fine", 3));
    ASSERT_TRUE(fake(channel).wait_for(3)) << method;
    std::map<int, std::string> answers;
    for (const auto& sent : fake(channel).sent())
      answers[sent->id.get_int()] = answer_text(*sent);
    EXPECT_EQ((std::map<int, std::string>{{1, "error -32603 \"bad input\""},
                                          {2, "error -32603 \"unknown exception\""},
                                          {3, "\"fine\""}}),
              answers)
      << method;
  }
  // The transport thread's exceptions are logged on it, once each.
  EXPECT_EQ(1u, log.count("JSON-RPC 'direct' by 127.0.0.1:4000 threw: bad input.\n")) << log.text();
  EXPECT_EQ(2u, log.count("JSON-RPC 'direct' by 127.0.0.1:4000 threw: unknown exception.\n")) << log.text();
  // The per-call threads are known to ACE until they end, as are the workers.
  JSON_RPC_Thread_Pool_Handler::deactivate();
  ACE_Thread_Manager::instance()->wait();
  close_singletons();
}

TEST_F(Pool_Handler, DeactivateWaitsForRunningCallsAndDropsQueuedOnes)
{
  auto channel = hold_workers(1, 8);
  JSON_RPC_Channel_Weak_Ptr weak(channel);
  JSON_RPC_Object_Ptr queued[] = {request(2), request(3)};
  for (const JSON_RPC_Object_Ptr& call : queued)
    ASSERT_EQ(0, handler.handle_object(weak, call));

  Thread_Pool_Helper* pool = JSON_RPC_Thread_Pool_Handler::thread_pool_.get();
  std::thread stopper([] { EXPECT_EQ(0, JSON_RPC_Thread_Pool_Handler::deactivate()); });
  ASSERT_TRUE(wait_until_deactivated(pool));
  gate.add();
  stopper.join();

  // The running call finished before deactivate returned; the queued ones
  // never ran and the pool holds their messages no more (ACE counts the
  // holders besides the first).
  EXPECT_EQ(1, handler.finished.value());
  EXPECT_EQ(1u, fake(channel).count());
  EXPECT_EQ(1, handler.started.value());
  for (const JSON_RPC_Object_Ptr& call : queued)
    EXPECT_EQ(0, call.count()) << "the pool still holds a dropped call";
  EXPECT_FALSE(JSON_RPC_Thread_Pool_Handler::thread_pool_);

  // Without a pool a call fails with its emergency line.
  Log_Capture log;
  EXPECT_EQ(-1, handler.handle_object(weak, request(4)));
  EXPECT_TRUE(log.contains("thread_pool_.get() is NULL:\n"));
  EXPECT_EQ(1u, log.count_priority(LM_EMERGENCY));
}

TEST_F(Pool_Handler, SecondActivateStopsTheOldWorkersBeforeTheNewOnesStart)
{
  size_t new_workers_then = SIZE_MAX;
  handler.on_release = [&] {
    if (new_workers_then == SIZE_MAX)
      new_workers_then = JSON_RPC_Thread_Pool_Handler::thread_pool_->thr_count();
  };
  auto channel = hold_workers(1, 8);
  JSON_RPC_Channel_Weak_Ptr weak(channel);
  ASSERT_EQ(0, handler.handle_object(weak, request(2)));

  Thread_Pool_Helper* old_pool = JSON_RPC_Thread_Pool_Handler::thread_pool_.get();
  std::thread replacer([] { EXPECT_EQ(0, JSON_RPC_Thread_Pool_Handler::activate("JSONRPC", 2, 8, 4)); });
  ASSERT_TRUE(wait_until_deactivated(old_pool));
  gate.add();
  replacer.join();

  EXPECT_EQ(0u, new_workers_then) << "new workers ran beside the old ones";
  EXPECT_EQ(1, handler.started.value()) << "the call queued in the old pool ran";
  ASSERT_TRUE(JSON_RPC_Thread_Pool_Handler::thread_pool_);
  EXPECT_EQ(2u, JSON_RPC_Thread_Pool_Handler::thread_pool_->thr_count());
  ASSERT_EQ(0, handler.handle_object(weak, request(3)));
  EXPECT_TRUE(fake(channel).wait_for(2));
}

TEST_F(Pool_Handler, EachKindOfMessageReachesItsCallback)
{
  auto channel = make_channel();
  JSON_RPC_Channel_Weak_Ptr weak(channel);
  EXPECT_EQ(0, handler.handle_object_i(weak, JSON_RPC_Object_Ptr(new JSON_RPC_Response(nullptr))));
  EXPECT_EQ(0, handler.handle_object_i(weak, JSON_RPC_Object_Ptr(new JSON_RPC_Response_Error)));
  EXPECT_EQ(0, handler.handle_object_i(weak, make_message("probe", 3)));
  EXPECT_EQ(1, handler.responses.value());
  EXPECT_EQ(1, handler.errors.value());
  EXPECT_EQ(1, handler.notified.value());
  EXPECT_EQ(0, handler.started.value());

  // The base callbacks accept and do nothing.
  JSON_RPC_Thread_Pool_Handler_Impl plain;
  EXPECT_EQ(0, plain.handle_object_i(weak, JSON_RPC_Object_Ptr(new JSON_RPC_Response(nullptr))));
  EXPECT_EQ(0, plain.handle_object_i(weak, request(4)));
  EXPECT_EQ(0u, fake(channel).count());
}

TEST_F(Pool_Handler, AnUnknownTypeOrAMismatchedClassIsRefusedWithALine)
{
  auto channel = make_channel();
  JSON_RPC_Channel_Weak_Ptr weak(channel);
  JSON_RPC_Object_Ptr odd = request(5);
  odd->type = static_cast<JSON_RPC_Object::Type>(7);
  Log_Capture log;
  EXPECT_EQ(-1, handler.handle_object_i(weak, odd));
  EXPECT_EQ(std::vector<std::string>{"An unknown type(7) of JSON-RPC object(id: 5) is receivced.\n"}, log.lines());

  // A request object that claims to be a response.
  log.clear();
  JSON_RPC_Object_Ptr liar = request(6);
  liar->type = JSON_RPC_Object::TYPE_RESPONSE;
  EXPECT_EQ(-1, handler.handle_object_i(weak, liar));
  EXPECT_TRUE(log.contains("p is NULL:\n"));
  EXPECT_EQ(0, handler.responses.value());
}

TEST_F(Pool_Handler, EveryCallFromManyThreadsIsAnsweredOnce)
{
  ASSERT_EQ(0, JSON_RPC_Thread_Pool_Handler::activate("JSONRPC", 3, 64, 32));
  auto channel = make_channel();
  JSON_RPC_Channel_Weak_Ptr weak(channel);
  const int producers = 4, per_producer = 1500;
  std::atomic<int> refused(0);
  Log_Capture log;
  std::vector<std::thread> threads;
  for (int p = 0; p < producers; ++p)
    threads.emplace_back([&, p] {
      Log_Capture::Attach attach(log);
      for (int i = 0; i < per_producer; ++i)
      {
        JSON_RPC_Object_Ptr call = request(p * per_producer + i);
        // A refusal is an overload; offer the call again, as a peer would.
        while (handler.handle_object(weak, call) == -1)
        {
          ++refused;
          std::this_thread::yield();
        }
      }
    });
  for (std::thread& t : threads)
    t.join();
  // Each refusal was told, and nothing else went wrong.
  EXPECT_EQ(static_cast<size_t>(refused.load()), log.count("Failed to schedule task, errno=11, "));
  EXPECT_EQ(static_cast<size_t>(refused.load()), log.lines().size());
  ASSERT_TRUE(fake(channel).wait_for(producers * per_producer));

  // Calls that come one by one, after the workers have gone idle.
  for (int i = 0; i < 20; ++i)
  {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    ASSERT_EQ(0, handler.handle_object(weak, request(producers * per_producer + i)));
    ASSERT_TRUE(fake(channel).wait_for(producers * per_producer + i + 1));
  }
  std::set<int> answered;
  for (const JSON_RPC_Object_Ptr& o : fake(channel).sent())
    ASSERT_TRUE(answered.insert(o->id.get_int()).second) << "id " << o->id.get_int() << " answered twice";
  EXPECT_EQ(static_cast<size_t>(producers * per_producer + 20), answered.size());
}

TEST(Pool_Helper, NoWorkerMeansNoQueueing)
{
  ACE_Time_Value zero;
  Thread_Pool_Helper pool(1, nullptr, 0, 0, &zero);
  EXPECT_TRUE(pool.name.empty());
  Log_Capture log;
  bool ran = false;
  EXPECT_EQ(-1, pool.schedule([&] { ran = true; }, false));
  EXPECT_EQ(std::vector<std::string>{"No active worker thread!\n"}, log.lines());
  EXPECT_FALSE(ran);
}

TEST(Pool_Helper, StopRunsWhatIsQueuedInOrderOrDropsIt)
{
  for (bool discard : {false, true})
  {
    ACE_Time_Value zero;
    Thread_Pool_Helper pool(1, "helper", 0, 0, &zero);
    ASSERT_EQ(0, pool.start());
    Gate gate;
    Counter started;
    std::mutex mutex;
    std::vector<char> ran;
    auto task = [&](char name) {
      return [&, name] {
        std::lock_guard<std::mutex> lock(mutex);
        ran.push_back(name);
      };
    };
    auto hold = [&] {
      started.add();
      gate.wait_for(1);
    };
    ASSERT_GE(pool.schedule(hold, false), 1);
    ASSERT_TRUE(started.wait_for(1));
    ASSERT_GE(pool.schedule(task('B'), false), 1);
    ASSERT_GE(pool.schedule(task('C'), true), 1);
    ASSERT_GE(pool.schedule(task('D'), false), 1);
    std::thread stopper([&] { EXPECT_EQ(0, pool.stop(discard)); });
    if (discard)
    {
      // B, C and D are dropped before the stop marker goes in.
      for (int i = 0; i < 20000000 && pool.msg_queue()->message_count() > 1; ++i)
        std::this_thread::yield();
    }
    gate.add();
    stopper.join();
    EXPECT_EQ(0u, pool.thr_count());
    EXPECT_TRUE(pool.msg_queue()->is_empty());
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ(discard ? std::vector<char>{} : (std::vector<char>{'C', 'B', 'D'}), ran) << "discard " << discard;
  }
}

TEST(Pool_Helper, AbsurdSizesAreRefusedOrCapped)
{
  ACE_Time_Value zero;
  Thread_Pool_Helper pool(static_cast<size_t>(INT_MAX) + 1, "big", 0, 0, &zero);
  errno = 0;
  EXPECT_EQ(-1, pool.start());
  EXPECT_EQ(EINVAL, errno);
  EXPECT_EQ(0u, pool.thr_count());

  // A mark too large for the queue's byte count is no limit, not a small one.
  ASSERT_EQ(0, JSON_RPC_Thread_Pool_Handler::activate("JSONRPC", 1, SIZE_MAX / 16, 1));
  EXPECT_EQ(SIZE_MAX, JSON_RPC_Thread_Pool_Handler::thread_pool_->msg_queue()->high_water_mark());
  JSON_RPC_Thread_Pool_Handler::deactivate();
}

TEST(Thread_Handler, APeerThatIsGoneGetsNoThread)
{
  Probe_Thread handler;
  JSON_RPC_Channel_Weak_Ptr weak;
  {
    auto channel = make_channel();
    weak = channel;
  }
  Log_Capture log;
  EXPECT_EQ(-1, handler.handle_object(weak, request(1)));
  EXPECT_EQ(std::vector<std::string>{"Abort handling JRON-RPC request, requester has gone.\n"}, log.lines());
  EXPECT_EQ(0, handler.started.value());
}

TEST(Thread_Handler, ReturnsAtOnceAndKeepsTheChannelForTheWholeCall)
{
  Probe_Thread handler;
  Counter destroyed;
  size_t sent_before_death = 0;
  JSON_RPC_Channel_Strong_Ptr channel(new Watched_Channel([&](size_t sent) {
    sent_before_death = sent;
    destroyed.add();
  }));

  // The call is held at the gate, so 0 here means it did not wait for it.
  ASSERT_EQ(0, handler.handle_object(JSON_RPC_Channel_Weak_Ptr(channel), request(1)));
  ASSERT_TRUE(handler.started.wait_for(1));
  channel = JSON_RPC_Channel_Strong_Ptr();
  EXPECT_EQ(0, destroyed.value()) << "the channel died under a running call";
  handler.gate.add();
  ASSERT_TRUE(destroyed.wait_for(1));
  EXPECT_EQ(1u, sent_before_death);
  EXPECT_EQ(1, handler.finished.value());
  EXPECT_EQ("JSONRPCSolo", handler.name);
  // Nobody joins the call's thread; ACE still knows it until it has ended,
  // and the process should not end under it.
  ACE_Thread_Manager::instance()->wait();
}
