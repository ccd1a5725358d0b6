// Handler configuration files: each bad record or file leaves one log line
// and nothing behind, and the service serves what was good.
#include "service_support.h"
#include "test_state.h"

#include "json_rpc/json_restful.h"
#include "json_rpc/json_rpc_params_filter.h"

#include <gtest/gtest.h>

#include <dlfcn.h>

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

  class Service_Conf : public ::testing::Test
  {
  protected:
    void SetUp() override { test_state().reset(); }
    Temp_Dir dir;
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
    EXPECT_EQ(2, test_state().destroyed());
    EXPECT_EQ(2, test_state().deleted());
    EXPECT_TRUE(library_loaded());
  }
  // Three entries of one library: it goes with the last of them.
  EXPECT_EQ(5, test_state().destroyed());
  EXPECT_EQ(5, test_state().deleted());
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
    EXPECT_EQ(1, test_state().deleted());
    EXPECT_EQ(1u, log.count("Failed to init JSON-RPC handler for method 'plain.fails'"));
  }
  EXPECT_EQ(2, test_state().deleted());
  EXPECT_EQ(0, test_state().destroyed());
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
  EXPECT_EQ(test_state().deleted(), 4);
}
