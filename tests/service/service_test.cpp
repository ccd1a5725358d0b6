// The service object: handler configuration files (each bad record or file
// leaves one log line and nothing behind, and the rest is served), its
// options and pool, and the example libraries it boots.
#include "service_support.h"
#include "test_state.h"

#include "json_rpc/json_restful.h"
#include "json_rpc/json_rpc_handler.h"
#include "json_rpc/json_rpc_params_filter.h"
#include "json_rpc/json_rpc_thread_pool_handler.h"
#include "tessel/thread_helper.h"

#include <ace/Service_Config.h>
#include <gtest/gtest.h>

#include <dlfcn.h>

#include <cstdint>
#include <mutex>

// Under ThreadSanitizer: ACE takes its library manager's lock and a library
// handle's lock in both orders while it unloads a library, which the tests
// make it do when the service closes its tables. That is ACE's own affair,
// on one thread, at start and stop only.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions()
{
  return "deadlock:*Map::close_instance\n";
}

namespace
{
  const std::string dll = TEST_HANDLERS_DLL;

  bool library_loaded()
  {
    void* handle = dlopen(dll.c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (handle)
      dlclose(handle);
    return handle != nullptr;
  }

  Thread_Pool_Helper* pool() { return JSON_RPC_Thread_Pool_Handler::thread_pool_.get(); }

  class Service_Conf : public ::testing::Test
  {
  protected:
    void SetUp() override { test_state().reset(); }
    Temp_Dir dir;
  };

  using json_spirit::Array;
  using json_spirit::Value;

  // The example handler libraries, booted from examples/svc.conf by ACE's
  // service configurator as a host would (the file's paths, relative to the
  // repository root, are pointed at this build). host_test.sh calls each
  // method through a host; here is what a call alone can't show.
  class Examples : public ::testing::Test
  {
  protected:
    void SetUp() override
    {
      // Opened once for the process, without the default svc.conf and static services.
      static std::once_flag once;
      std::call_once(once, [] {
        ACE_Service_Config::open(ACE_TEXT("service_tests"), ACE_DEFAULT_LOGGER_KEY, true, true, false);
      });
      const std::string examples = EXAMPLES_DIR, lib = EXAMPLES_LIB_DIR;
      for (const char* name : {"handlers.json", "filters.json", "restful.json"})
        dir.write(name, replace_all(read_file(examples + "/conf/" + name), "build/lib/", lib + "/"));
      std::string conf = replace_all(read_file(examples + "/svc.conf"), "build/lib/", lib + "/");
      std::string svc = dir.write("svc.conf", replace_all(conf, "examples/conf/", dir.file("")));
      Log_Capture log;
      ASSERT_EQ(0, ACE_Service_Config::process_file(svc.c_str())) << log.text();
      ASSERT_EQ(0u, log.count_priority(LM_ERROR)) << log.text();
      ASSERT_EQ(9u, log.count("Loaded ")) << log.text();
    }
    void TearDown() override
    {
      ACE_Service_Config::remove("JSON_RPC_Service");
      JSON_RESTful_Handler_Creator_Map::close_instance();
    }

    Temp_Dir dir;
    // The dispatcher's line for each call stays out of the output.
    Log_Capture quiet;
  };
}

TEST_F(Service_Conf, EachBadRecordOrFileLeavesOneLineAndTheRestIsServed)
{
  std::string handlers = dir.write(
    "handlers.json", "[" + record("echo", "make_tagged", "first") + ",\n" +
                       record("no.library", "make_tagged", "", "/nonexistent/libnothing.so") + ",\n" +
                       record("no.symbol", "no_such_factory", "") + ",\n" + record("null.factory", "make_nothing", "") +
                       ",\n" + record("init.fails", "make_tagged", "fail") + ",\n" +
                       record("echo", "make_tagged", "second") + ",\n" + record("after", "make_tagged", "after") +
                       "]");
  std::string broken = dir.write("broken.json", "[" + record("half", "make_tagged", "half") + ", {\"method\": ");
  std::string missing = dir.file("missing.json");

  Log_Capture log;
  {
    Service_Run run("-j " + handlers + " -j " + missing + " -j " + broken);
    EXPECT_EQ(0, run.result);

    const std::string expected[] = {
      "Unable to open dll '/nonexistent/libnothing.so': ",
      "Unable to get symbol 'no_such_factory' from dll '" + dll + "': ",
      "Failed to create JSON-RPC handler for method 'null.factory': No such file or directory\n",
      "Failed to init JSON-RPC handler for method 'init.fails': Invalid argument\n",
      "Failed to load JSON-RPC handelr(uri='echo', dll='" + dll + "', init='make_tagged', params='second')\n",
      "Failed to open configuration file '" + missing + "': No such file or directory\n",
      "Failed to parse configuration file '" + broken + "': ",
    };
    for (const std::string& line : expected)
      EXPECT_EQ(1u, log.count(line)) << line << "\n---\n" << log.text();
    EXPECT_EQ(std::size(expected), log.count_priority(LM_ERROR)) << log.text();
    EXPECT_EQ(1u, log.count("Loaded JSON-RPC handler(uri='echo', dll='" + dll + "', init='make_tagged', params='first')\n"));

    // The first record of a method wins; records after a bad one still load,
    // and so does what a broken file held before its fault.
    EXPECT_EQ("\"first\"", call("echo"));
    EXPECT_EQ("\"after\"", call("after"));
    EXPECT_EQ("\"half\"", call("half"));
    EXPECT_EQ("error -32601", call("init.fails"));
    EXPECT_EQ("error -32601", call("null.factory"));

    // The refused objects went at once, each by its destroy function.
    EXPECT_EQ(2, test_state().destroyed.load());
    EXPECT_EQ(2, test_state().deleted.load());
    EXPECT_TRUE(library_loaded());
  }
  // Three entries of one library: it goes with the last of them.
  EXPECT_EQ(5, test_state().destroyed.load());
  EXPECT_EQ(5, test_state().deleted.load());
  EXPECT_FALSE(library_loaded());
}

TEST_F(Service_Conf, ParamsAreSplitIntoTheArgumentVectorOfInit)
{
  setenv("SERVICE_TEST_WORD", "substituted", 1);
  std::string file = dir.write("handlers.json", "[" + record("two", "make_tagged", "alpha  beta") + "," +
                                                  record("none", "make_tagged", "") + "," +
                                                  record("env", "make_tagged", "$SERVICE_TEST_WORD") + "]");
  Service_Run run("-j " + file);
  auto inits = test_state().inits();
  ASSERT_EQ(3u, inits.size());
  EXPECT_EQ(2, inits[0].argc);
  EXPECT_EQ((std::vector<std::string>{"alpha", "beta"}), inits[0].argv);
  EXPECT_EQ(0, inits[1].argc);
  EXPECT_TRUE(inits[1].argv_null);
  EXPECT_EQ(std::vector<std::string>{"substituted"}, inits[2].argv);
  EXPECT_EQ("\"alpha\"", call("two"));
}

TEST_F(Service_Conf, AnObjectWithoutDestroyFunctionIsDeletedThroughItsDestructor)
{
  std::string file = dir.write("handlers.json", "[" + record("plain", "make_tagged_no_destroy", "kept") + "," +
                                                  record("plain.fails", "make_tagged_no_destroy", "fail") + "]");
  {
    Log_Capture log;
    Service_Run run("-j " + file);
    EXPECT_EQ("\"kept\"", call("plain"));
    // The refused one is not left allocated.
    EXPECT_EQ(1, test_state().deleted.load());
    EXPECT_EQ(1u, log.count("Failed to init JSON-RPC handler for method 'plain.fails'"));
  }
  EXPECT_EQ(2, test_state().deleted.load());
  EXPECT_EQ(0, test_state().destroyed.load());
  EXPECT_FALSE(library_loaded());
}

TEST_F(Service_Conf, FiltersAndRestCreatorsLoadUnderTheirOwnKeysAndWords)
{
  std::string filters = dir.write("filters.json", "[" + record("sum", "make_filter_creator", "f") + "," +
                                                    record("bad", "make_filter_creator", "fail") + "]");
  std::string rest = dir.write("rest.json", "[" + record("/x", "make_rest_creator", "a b", dll, "uri") + "," +
                                              record("/x", "make_rest_creator", "c", dll, "uri") + "]");
  Log_Capture log;
  {
    Service_Run run("-f " + filters + " -r " + rest);
    EXPECT_EQ(1u, log.count("Failed to init JSON-RPC Params handler for method 'bad': Invalid argument\n"));
    EXPECT_EQ(1u, log.count("Failed to load JSON RESTful handelr(uri='/x', dll='" + dll +
                            "', init='make_rest_creator', params='c')\n"));
    EXPECT_EQ(1u, log.count("Loaded JSON RESTful handler(uri='/x', dll='" + dll +
                            "', init='make_rest_creator', params='a b')\n"));
    EXPECT_EQ(2u, log.count_priority(LM_ERROR));
    EXPECT_NE(nullptr, JSON_RPC_Params_Handler_Map::instance()->find("sum"));
    EXPECT_EQ(nullptr, JSON_RPC_Params_Handler_Map::instance()->find("bad"));
    Object_Creator_T<JSON_RESTful_Handler>* creator = JSON_RESTful_Handler_Creator_Map::instance()->find("/x");
    ASSERT_NE(nullptr, creator);
    // The creator keeps its own copy of the arguments.
    ASSERT_EQ(2, creator->argc);
    EXPECT_STREQ("a", creator->argv[0]);
    EXPECT_STREQ("b", creator->argv[1]);
  }
  // The service leaves the REST creators to the embedding process.
  EXPECT_NE(nullptr, JSON_RESTful_Handler_Creator_Map::instance()->find("/x"));
  EXPECT_TRUE(library_loaded());
  JSON_RESTful_Handler_Creator_Map::close_instance();
  EXPECT_FALSE(library_loaded());
  EXPECT_EQ(test_state().deleted.load(), 4);
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

TEST(Service_Options, StopEndsThePoolBeforeAnyHandlerGoes)
{
  // Notes, as it is destroyed, whether the pool was still there.
  struct Stop_Witness : JSON_RPC_Handler
  {
    explicit Stop_Witness(int& pool_gone) : pool_gone_(pool_gone) {}
    ~Stop_Witness() override { pool_gone_ = JSON_RPC_Thread_Pool_Handler::thread_pool_ ? 0 : 1; }
    int handle_object(JSON_RPC_Channel_Weak_Ptr, JSON_RPC_Object_Ptr) override { return 0; }

    int& pool_gone_;
  };
  int pool_gone = -1;
  {
    Service_Run run("-n 2");
    ASSERT_NE(nullptr, pool());
    ASSERT_EQ(0, JSON_RPC_Request_Map::instance()->insert("witness", "", new Stop_Witness(pool_gone), nullptr));
  }
  EXPECT_EQ(1, pool_gone);
}

TEST_F(Examples, SubscribedChannelsGetWhatIsPublished)
{
  JSON_RPC_Channel_Strong_Ptr subscriber = make_channel(), publisher = make_channel();
  JSON_RPC_Channel_Weak_Ptr weak(subscriber);
  JSON_RPC_Dispatcher* dispatcher = JSON_RPC_Dispatcher::instance();
  auto publish = [&](const char* subject) {
    dispatcher->dispatch(JSON_RPC_Channel_Weak_Ptr(publisher), make_message(subject, Array{subject}));
  };
  auto last_result = [&] { return answer_text(*fake(subscriber).sent().back()); };

  dispatcher->dispatch(weak, make_message("subscribe", Array{"news", "sport"}, 1));
  EXPECT_EQ("[\"news\",\"sport\"]", last_result());
  // Subscribing again does not double what arrives.
  dispatcher->dispatch(weak, make_message("subscribe", "news", 2));
  EXPECT_EQ("[\"news\"]", last_result());
  publish("news");
  publish("weather");
  publish("sport");
  ASSERT_EQ((std::vector<std::string>{"", "", "news", "sport"}), fake(subscriber).methods());
  EXPECT_EQ(JSON_RPC_Object::TYPE_NOTIFICATION, fake(subscriber).sent()[2]->type);

  dispatcher->dispatch(weak, make_message("unsubscribe", "news", 3));
  EXPECT_EQ("true", last_result());
  publish("news");
  publish("sport");
  EXPECT_EQ(6u, fake(subscriber).count());
  dispatcher->dispatch(weak, make_message("unsubscribe", Value(), 4));
  publish("sport");
  EXPECT_EQ(7u, fake(subscriber).count());
  // Nothing answers a notification.
  dispatcher->dispatch(JSON_RPC_Channel_Weak_Ptr(publisher), make_message("echo", 1));
  EXPECT_EQ(0u, fake(publisher).count());
}

TEST_F(Examples, RestCreatorMakesHandlersThatGreet)
{
  struct Fake_REST_Channel : JSON_RESTful_Channel
  {
    ssize_t write(char const* data, size_t length) override
    {
      body.append(data, length);
      return static_cast<ssize_t>(length);
    }
    std::string method() const override { return "GET"; }
    std::string uri() const override { return "/hello"; }
    std::string header(const char*) const override { return ""; }
    ssize_t read(char*, size_t) override { return 0; }
    int status(int code) override { return status_code = code, 0; }
    int put_header(const char* name, const char* value) override
    {
      headers += std::string(name) + ": " + value + "\n";
      return 0;
    }

    int status_code = 0;
    std::string headers, body;
  } channel;
  Object_Creator_T<JSON_RESTful_Handler>* creator = JSON_RESTful_Handler_Creator_Map::instance()->find("/hello");
  ASSERT_NE(nullptr, creator);
  JSON_RESTful_Handler* handler = creator->create();
  ASSERT_NE(nullptr, handler);
  EXPECT_EQ(0, handler->handle_exchange(channel));
  creator->destroy(handler);
  EXPECT_EQ(200, channel.status_code);
  EXPECT_EQ("Content-Type: application/json\n", channel.headers);
  EXPECT_EQ("{\"hello\":\"world\"}", channel.body);
}
