// The service object: its options, the pool it starts, the order of its
// stop, and its loading by ACE's own service configurator.
#include "service_support.h"

#include "json_rpc/json_rpc_handler.h"
#include "json_rpc/json_rpc_thread_pool_handler.h"
#include "tessel/thread_helper.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace
{
  Thread_Pool_Helper* pool() { return JSON_RPC_Thread_Pool_Handler::thread_pool_.get(); }
}

TEST(Service_Options, ThePoolTakesItsFiguresWhateverTheOptionsPlaceOrForm)
{
  for (const char* line : {"-l 50 -h 100 -n 4",
                           "--jsonrpc-thread-queue-lwm=50 --jsonrpc-thread-queue-hwm 100 --jsonrpc-thread-number=4"})
  {
    SCOPED_TRACE(line);
    Log_Capture log;
    {
      Service_Run run(line);
      ASSERT_EQ(0, run.result);
      ASSERT_NE(nullptr, pool());
      EXPECT_EQ(4u, pool()->thr_count());
      EXPECT_EQ("JSONRPC", pool()->name);
      EXPECT_EQ(100u * 32, pool()->msg_queue()->high_water_mark());
      EXPECT_EQ(50u * 32, pool()->msg_queue()->low_water_mark());
      EXPECT_EQ(std::vector<std::string>{"JSON-RPC thread pool(number: 4, low/high water mark: 50/100) is activated.\n"},
                log.lines());
      EXPECT_EQ(1u, log.count_priority(LM_INFO));
    }
    EXPECT_EQ(nullptr, pool());
  }
}

TEST(Service_Options, NumbersAreReadByTheServiceRuleAndABadOneIsTold)
{
  // -h alone starts no pool, so it shows the conversion by itself.
  const std::pair<const char*, uint64_t> cases[] = {
    {"12abc", 12}, {"+7", 7}, {"0", 0}, {"007", 7}, {"18446744073709551615", UINT64_MAX}, {"-1", 0}, {"x", 0},
    {"\" 5\"", 0}, {"+", 0}, {"\"\"", 0}, {"18446744073709551616", UINT64_MAX}, {"99999999999999999999999", UINT64_MAX},
  };
  for (const auto& c : cases)
  {
    SCOPED_TRACE(c.first);
    Log_Capture log;
    Service_Run run(std::string("-h ") + c.first);
    EXPECT_EQ(0, run.result);
    EXPECT_EQ(c.second, run.service.queue_hwm);
    EXPECT_EQ(nullptr, pool());
  }
  Log_Capture log;
  Service_Run run("-h x");
  EXPECT_EQ(std::vector<std::string>{"Bad number 'x' for JSON_RPC_Service option -h, 0 is used.\n"}, log.lines());

  // A bad thread number is a warning, and the handlers still serve.
  Temp_Dir dir;
  std::string file = dir.write("h.json", "[" + record("echo", "make_tagged", "ok") + "]");
  for (const std::string bad : {"-n x", "-n -1", "-n \"\""})
  {
    SCOPED_TRACE(bad);
    Log_Capture log;
    Service_Run run(bad + " -j " + file);
    EXPECT_EQ(0, run.result);
    EXPECT_EQ(0u, run.service.thread_number);
    EXPECT_EQ(nullptr, pool());
    EXPECT_EQ(1u, log.count("Bad number '")) << log.text();
    EXPECT_EQ(1u, log.count_priority(LM_WARNING)) << log.text();
    EXPECT_EQ(0u, log.count_priority(LM_ERROR)) << log.text();
    EXPECT_EQ("\"ok\"", call("echo"));
  }
}

TEST(Service_Options, UnknownOptionsAndMissingArgumentsAreToldAndSkipped)
{
  Log_Capture log;
  Service_Run run("-x -n 1 --nothing=1 -j");
  EXPECT_EQ(0, run.result);
  ASSERT_NE(nullptr, pool());
  EXPECT_EQ(1u, pool()->thr_count());
  for (const char* option : {"x", "nothing", "j"})
    EXPECT_EQ(1u, log.count("Unknown JSON_RPC_Service option " + std::string(option) + "\n")) << log.text();
  EXPECT_EQ(3u, log.count_priority(LM_ERROR)) << log.text();
}

TEST(Service_Options, AFailedPoolActivationFailsInitAndKeepsTheHandlers)
{
  Temp_Dir dir;
  std::string file = dir.write("h.json", "[" + record("echo", "make_tagged", "ok") + "]");
  {
    Log_Capture log;
    Service_Run run("-n 2 -l 0 -j " + file);
    EXPECT_EQ(-1, run.result);
    EXPECT_EQ(1u, log.count("Failed to activate JSON-RPC thread pool(number: 2, low/high water mark: 0/1024).\n"))
      << log.text();
    EXPECT_EQ(nullptr, pool());
    EXPECT_EQ("\"ok\"", call("echo"));
  }
  Log_Capture log;
  Service_Run run("-n 99999999999999999999");
  EXPECT_EQ(-1, run.result);
  EXPECT_EQ(1u, log.count("Failed to activate JSON-RPC thread pool(number: 18446744073709551615, low/high water "
                          "mark: 512/1024).\n"))
    << log.text();
}

namespace
{
  // Notes, as it is destroyed, whether the pool was still there.
  class Stop_Witness : public JSON_RPC_Handler
  {
  public:
    explicit Stop_Witness(int& pool_gone) : pool_gone_(pool_gone) {}
    ~Stop_Witness() override { pool_gone_ = JSON_RPC_Thread_Pool_Handler::thread_pool_ ? 0 : 1; }
    int handle_object(JSON_RPC_Channel_Weak_Ptr, JSON_RPC_Object_Ptr) override { return 0; }

  private:
    int& pool_gone_;
  };
}

TEST(Service_Options, StopEndsThePoolBeforeAnyHandlerGoes)
{
  int pool_gone = -1;
  {
    Service_Run run("-n 2");
    ASSERT_NE(nullptr, pool());
    ASSERT_EQ(0, JSON_RPC_Request_Map::instance()->insert("witness", "", new Stop_Witness(pool_gone), nullptr));
  }
  EXPECT_EQ(1, pool_gone);
}
