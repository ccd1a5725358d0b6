#include "json_rpc/json_rpc_parser.h"

#include "log_capture.h"
#include "test_util.h"

#include <gtest/gtest.h>

namespace
{
  // Notes every member event as "key:callback[:text]".
  struct Recording_Parser : JSON_RPC_Parser
  {
    std::vector<std::string> calls;
    std::vector<unsigned long long> seen;

    bool handle_key_i(unsigned int key, char const* value, unsigned long long length) override
    {
      std::string call = std::to_string(key) + ":" + std::to_string(callback);
      if (value)
        call += ":" + std::string(value, length);
      else if (callback == EVENT_BOOLEAN)
        call += length ? ":true" : ":false";
      calls.push_back(call);
      seen.push_back(levels.empty() ? 0 : levels.back().seen);
      return true;
    }

    bool parse(const std::string& text, size_t piece = 0)
    {
      calls.clear();
      seen.clear();
      return open() && read_in_pieces(*this, text, piece);
    }
  };
}

TEST(JSON_RPC_Parser, RefusesWhatNoMemberMayHoldWithTheReasonInTheLogLine)
{
  struct Refusal
  {
    const char* text;
    unsigned int err, level, key, parent_key;
  };
  const Refusal cases[] = {
    {"{\"jsonrpc\":\"2.0\",\"foo\":1}", 5, 1, 0, 0},
    {"[{\"jsonrpc\":\"2.0\"}]", 3, 0, 0, 0},
    {"null", 3, 0, 0, 0},
    {"true", 3, 0, 0, 0},
    {"{\"id\":true}", 5, 1, 2, 0},
    {"{\"id\":{}}", 5, 1, 2, 0},
    {"{\"id\":[1]}", 5, 1, 2, 0},
    {"{\"method\":1}", 5, 1, 8, 0},
    {"{\"method\":null}", 5, 1, 8, 0},
    {"{\"jsonrpc\":2.0}", 5, 1, 1, 0},
    {"{\"error\":\"x\"}", 5, 1, 32, 0},
    {"{\"error\":null}", 5, 1, 32, 0},
    {"{\"error\":[]}", 5, 1, 32, 0},
    {"{\"error\":{\"code\":\"1\"}}", 5, 2, 64, 32},
    {"{\"error\":{\"message\":2}}", 5, 2, 128, 32},
    {"{\"error\":{\"code\":1,\"other\":1}}", 5, 2, 0, 32},
    {"{\"params\":[],\"Params\":[]}", 5, 1, 0, 0},
  };
  for (const Refusal& c : cases)
  {
    for (size_t piece : {size_t(0), size_t(1)})
    {
      Log_Capture cap;
      Recording_Parser parser;
      EXPECT_FALSE(parser.parse(c.text, piece)) << c.text;
      EXPECT_EQ(c.err, parser.err) << c.text;
      const std::string tail = ", err=" + std::to_string(c.err) + ", level=" + std::to_string(c.level) +
                               ", key=" + std::to_string(c.key) + ", parent_key=" + std::to_string(c.parent_key) + "\n";
      ASSERT_EQ(1u, cap.lines().size()) << c.text << "\n" << cap.text();
      const std::string line = cap.lines()[0];
      EXPECT_EQ(0u, line.find("Failed to parse JSON-RPC: ")) << line;
      EXPECT_EQ(line.size() - tail.size(), line.rfind(tail)) << c.text << "\n" << line;
      EXPECT_EQ(1u, cap.count_priority(LM_ERROR));
      // Failed stays failed until opened again.
      EXPECT_FALSE(parser.read("{}", 2));
    }
  }
}

TEST(JSON_RPC_Parser, LetsScalarsAtTheTopLevelAndNullMemberValuesPass)
{
  Recording_Parser parser;
  EXPECT_TRUE(parser.parse("5"));
  EXPECT_TRUE(parser.parse(" \"x\" "));
  EXPECT_TRUE(parser.calls.empty());
  EXPECT_TRUE(parser.parse("{\"result\":null,\"params\":null,\"id\":null}"));
  EXPECT_EQ((std::vector<std::string>{"0:7", "16:1", "4:1", "2:1", "0:9"}), parser.calls);
}

TEST(JSON_RPC_Parser, PassesEachMemberValueWithItsEventAndTheSameInAnyPieces)
{
  const std::string text =
    "{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"m\",\"params\":[1,{\"a\":[2]},true],\"result\":false,"
    "\"error\":{\"code\":-5,\"message\":\"no\",\"data\":{\"x\":null},\"data\":\"d\"},\"id\":\"s\"}";
  const std::vector<std::string> expected = {"0:7",      "1:6:2.0",   "2:5:1",  "8:6:m",   "4:10",
                                             "4:11",     "16:2:false", "32:7",   "64:5:-5", "128:6:no",
                                             "256:7",    "256:9",     "256:6:d", "32:9",    "2:6:s", "0:9"};
  Recording_Parser parser;
  ASSERT_TRUE(parser.parse(text));
  EXPECT_EQ(expected, parser.calls);
  for (size_t piece = 1; piece < 8; ++piece)
  {
    ASSERT_TRUE(parser.parse(text, piece));
    EXPECT_EQ(expected, parser.calls) << "piece " << piece;
  }
  // A repeated member keeps one bit in seen.
  ASSERT_TRUE(parser.parse("{\"id\":1,\"method\":\"m\",\"id\":2}"));
  EXPECT_EQ((std::vector<unsigned long long>{0, 0x2, 0xA, 0xA, 0}), parser.seen);
}

TEST(JSON_RPC_Parser, HandsEverythingBelowADelegateToIt)
{
  struct Counting : YAJL_Handler
  {
    int events = 0;
    bool handle_number_i(char const*, unsigned long long) override { return ++events > 0; }
    bool handle_start_map_i() override { return ++events > 0; }
    bool handle_map_key_i(char const*, unsigned long long) override { return ++events > 0; }
    bool handle_end_map_i() override { return ++events > 0; }
    bool handle_end_array_i() override { return ++events > 0; }
  } sink;
  struct Delegating : Recording_Parser
  {
    YAJL_Handler* sink = nullptr;
    bool handle_key_i(unsigned int key, char const* value, unsigned long long length) override
    {
      Recording_Parser::handle_key_i(key, value, length);
      if (key == KEY_PARAMS)
        delegate = callback == EVENT_START_ARRAY ? sink : nullptr;
      return true;
    }
  } parser;
  parser.sink = &sink;
  // Keys below the delegate are not member names, however they are spelt.
  ASSERT_TRUE(parser.parse("{\"params\":[{\"error\":1,\"id\":{}}],\"id\":3}"));
  EXPECT_EQ(8, sink.events);
  EXPECT_EQ((std::vector<std::string>{"0:7", "4:10", "4:11", "2:5:3", "0:9"}), parser.calls);
}

TEST(JSON_RPC_Parser, OneMessagePerOpen)
{
  Log_Capture cap;
  Recording_Parser parser;
  EXPECT_FALSE(parser.parse("{\"id\":1} {\"id\":2}"));
  EXPECT_EQ(0u, parser.err);
  EXPECT_TRUE(cap.contains(", err=0, level=0, key=0, parent_key=0\n")) << cap.text();

  cap.clear();
  ASSERT_TRUE(parser.open());
  ASSERT_TRUE(parser.read("{\"id\":", 6));
  EXPECT_FALSE(parser.read(nullptr, 0));
  EXPECT_TRUE(cap.contains("premature EOF")) << cap.text();

  cap.clear();
  parser.close();
  EXPECT_FALSE(parser.is_open());
  EXPECT_FALSE(parser.read("{}", 2));
  EXPECT_TRUE(cap.empty());
}
