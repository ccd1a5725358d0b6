#include "rpc_test_util.h"

#include "log_capture.h"

#include <gtest/gtest.h>

TEST(JSON_RPC_Reader, AssemblesEachKindOfMessage)
{
  // Each text and describe() of what it reads as.
  const std::pair<const char*, const char*> cases[] = {
    {"{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"m\",\"params\":[1,2]}",
     "type=2 version=2.0 id=1 method=m params=[1,2]"},
    {"{\"method\":\"m\"}", "type=1 version= id=null method=m params=null"},
    {"{\"method\":\"m\",\"id\":\"a\"}", "type=2 version= id=\"a\" method=m params=null"},
    {"{\"id\":\"a\",\"method\":\"m\"}", "type=2 version= id=\"a\" method=m params=null"},
    {"{\"id\":null,\"method\":\"m\"}", "type=1 version= id=null method=m params=null"},
    {"{\"method\":\"m\",\"id\":null}", "type=2 version= id=null method=m params=null"},
    {"{\"params\":[],\"method\":\"m\"}", "type=1 version= id=null method=m params=[]"},
    {"{\"params\":{\"a\":{\"b\":[{}]}},\"jsonrpc\":\"x\",\"method\":\"m\",\"id\":-3}",
     "type=2 version=x id=-3 method=m params={\"a\":{\"b\":[{}]}}"},
    {"{\"method\":\"m\",\"params\":12.5}", "type=1 version= id=null method=m params=12.5"},
    {"{\"method\":\"m\",\"params\":\"text\"}", "type=1 version= id=null method=m params=\"text\""},
    {"{\"method\":\"m\",\"params\":false}", "type=1 version= id=null method=m params=false"},
    {"{\"method\":\"m\",\"params\":null}", "type=1 version= id=null method=m params=null"},
    {"{\"method\":\"m\",\"params\":[1],\"params\":{\"k\":2}}", "type=1 version= id=null method=m params={\"k\":2}"},
    {"{\"jsonrpc\":\"1.0\",\"id\":1,\"result\":true}", "type=3 version=1.0 id=1 result=true"},
    {"{\"result\":{\"r\":[]},\"id\":18446744073709551615}", "type=3 version= id=18446744073709551615 result={\"r\":[]}"},
    {"{\"result\":null}", "type=3 version= id=null result=null"},
    {"{\"id\":7,\"error\":{\"code\":-32601,\"message\":\"x\",\"data\":{\"a\":1}}}",
     "type=4 version= id=7 code=-32601 message=x data={\"a\":1}"},
    {"{\"id\":7,\"error\":{\"message\":\"x\"}}", "type=4 version= id=7 code=-32603 message=x data=null"},
    {"{\"error\":{\"data\":[1,[2]],\"code\":5},\"id\":\"late\",\"jsonrpc\":\"2.0\"}",
     "type=4 version=2.0 id=\"late\" code=5 message= data=[1,[2]]"},
    {"{\"error\":{\"code\":-2147483648}}", "type=4 version= id=null code=-2147483648 message= data=null"},
    {"{\"id\":7,\"error\":{}}", "no object"},
    {"{\"id\":1}", "no object"},
    {"{}", "no object"},
    {"{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"m\",\"error\":{}}", "type=2 version=2.0 id=1 method=m params=null"},
    {"42", "no object"},
  };
  for (const auto& c : cases)
  {
    Read_Outcome r = read_message(c.first);
    EXPECT_TRUE(r.ok) << c.first;
    EXPECT_EQ(c.second, describe(r.object)) << c.first;
    EXPECT_EQ(0u, r.err) << c.first;
  }
}

TEST(JSON_RPC_Reader, RefusesWhatMakesNoSenseForTheMember)
{
  const std::pair<const char*, unsigned int> cases[] = {
    {"{\"id\":1.5,\"method\":\"m\"}", 9},
    {"{\"method\":\"m\",\"id\":1e2}", 9},
    {"{\"id\":100000000000000000000,\"method\":\"m\"}", 9},
    {"{\"method\":\"m\",\"params\":1e400}", 9},
    {"{\"id\":7,\"error\":{\"code\":1.5}}", 4},
    {"{\"id\":7,\"error\":{\"code\":2147483648}}", 4},
    // Members of two kinds: the first decides and the other is refused.
    {"{\"method\":\"m\",\"result\":1}", 9},
    {"{\"result\":1,\"method\":\"m\"}", 9},
    {"{\"result\":1,\"params\":[]}", 9},
    {"{\"params\":[],\"error\":{\"code\":1}}", 9},
    {"{\"error\":{\"message\":\"x\"},\"params\":{\"a\":1}}", 9},
    {"{\"error\":{\"data\":null},\"result\":[]}", 9},
    {"{\"result\":{},\"error\":{\"data\":1}}", 9},
  };
  for (const auto& c : cases)
  {
    Log_Capture cap;
    Read_Outcome r = read_message(c.first);
    EXPECT_FALSE(r.ok) << c.first;
    EXPECT_EQ(c.second, r.err) << c.first;
    EXPECT_EQ(1u, cap.count(", err=" + std::to_string(c.second) + ", level=")) << c.first << "\n" << cap.text();
  }
}

TEST(JSON_RPC_Reader, IsCleanAfterAFailureOnceOpenedAgain)
{
  Log_Capture cap;
  JSON_RPC_Reader reader;
  Read_Outcome bad = read_message(reader, "{\"method\":\"m\",\"params\":{\"a\":{\"b\":1,", 3);
  EXPECT_FALSE(bad.ok);
  EXPECT_EQ("type=1 version= id=null method=m params={\"a\":{\"b\":1}}", describe(bad.object));

  Read_Outcome refused = read_message(reader, "{\"result\":[1],\"method\":\"m\"}", 1);
  EXPECT_FALSE(refused.ok);
  EXPECT_EQ(9u, refused.err);

  Read_Outcome good = read_message(reader, "{\"id\":2,\"result\":[3]}", 2);
  EXPECT_TRUE(good.ok);
  EXPECT_EQ(0u, good.err);
  EXPECT_EQ("type=3 version= id=2 result=[3]", describe(good.object));
  // The object taken before belongs to its holder alone.
  EXPECT_EQ("type=1 version= id=null method=m params={\"a\":{\"b\":1}}", describe(bad.object));

  // Nothing of the last message leaks into the next: not its id, nor its version.
  Read_Outcome next = read_message(reader, "{\"method\":\"n\"}");
  EXPECT_EQ("type=1 version= id=null method=n params=null", describe(next.object));
}

TEST(JSON_RPC_Reader, OpenKeepsTheModeAndStartsReading)
{
  JSON_RPC_Reader reader;
  EXPECT_EQ(JSON_RPC_Reader::STATE_IDLE, reader.state());
  EXPECT_EQ(1u, reader.mode());
  reader.mode(JSON_RPC_Reader::MODE_ASSEMBLE | JSON_RPC_Reader::MODE_FILTER_RESPONSE);
  ASSERT_TRUE(reader.open());
  ASSERT_TRUE(reader.open());
  EXPECT_EQ(JSON_RPC_Reader::STATE_READING, reader.state());
  EXPECT_FALSE(reader.handled_indirectly());
  EXPECT_EQ(17u, reader.mode());
  EXPECT_TRUE(reader.object().null());
  reader.close();
  EXPECT_EQ(JSON_RPC_Reader::STATE_IDLE, reader.state());
  EXPECT_EQ(17u, reader.mode());
  EXPECT_FALSE(reader.is_open());
}

TEST(Message_Limits, AMillionLevelsOfParamsAreRefusedWithALogLine)
{
  Log_Capture cap;
  JSON_RPC_Reader reader;
  const std::string text = "{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"m\",\"params\":" + std::string(1000000, '[') +
                           std::string(1000000, ']') + "}";
  Read_Outcome r = read_message(reader, text, 65536);
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(1u, cap.count("Failed to parse JSON-RPC: ")) << cap.text().substr(0, 2000);
  EXPECT_EQ(1u, cap.count("JSON-RPC message nested deeper than 127 levels refused.\n")) << cap.text().substr(0, 2000);

  // The reader is fine for the next message.
  Read_Outcome next = read_message(reader, "{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"m\",\"params\":[1]}");
  EXPECT_TRUE(next.ok);
  EXPECT_EQ("type=2 version=2.0 id=1 method=m params=[1]", describe(next.object));
}

TEST(Reading_In_Pieces, EveryCutGivesTheSameObjectAndText)
{
  const char* const corpus[] = {
    "{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"sum\",\"params\":[1,2,3]}",
    "{\"jsonrpc\":\"2.0\",\"method\":\"notify\",\"params\":{\"level\":\"info\",\"n\":-0.5}}",
    "{\"method\":\"bare\"}",
    " { \"id\" : \"0b7c\" , \"method\" : \"x.y\" , \"params\" : null , \"jsonrpc\" : \"2.0\" } ",
    "{\"params\":{\"deep\":[[[[{\"a\":[[]]}]]]],\"e\":{}},\"method\":\"nested\",\"id\":null}",
    "{\"jsonrpc\":\"2.0\",\"id\":\"r\",\"result\":{\"list\":[true,false,null],\"s\":\"\\u00e9\\u4e2d\\ud83d\\ude00\"}}",
    "{\"jsonrpc\":\"2.0\",\"id\":9223372036854775807,\"result\":[18446744073709551615,-9223372036854775808,"
    "100000000000000000000,1e-7,6.02214076e23,-0.0]}",
    "{\"jsonrpc\":\"2.0\",\"id\":18446744073709551615,\"result\":\"\"}",
    "{\"id\":-1,\"result\":null}",
    "{\"jsonrpc\":\"2.0\",\"id\":3,\"error\":{\"code\":-32601,\"message\":\"Method not found\"}}",
    "{\"error\":{\"data\":{\"trace\":[\"a\",\"b\"],\"n\":1.25},\"message\":\"m\\n\\t\\\"q\\\"\",\"code\":42},\"id\":\"e\"}",
    "{\"jsonrpc\":\"2.0\",\"method\":\"esc\",\"params\":[\"\\\\\\/\\b\\f\\n\\r\\t\\u0000\\u001f\\u007f\"]}",
    "{\"jsonrpc\":\"2.0\",\"method\":\"keys\",\"params\":{\"\":1,\"\\u00fc\":2,\"a b\":{\"\":[]}}}",
    "{\"id\":0,\"method\":\"m\",\"params\":12345678901234567890}",
    "{\"method\":\"m\",\"id\":null,\"params\":\"late null id\"}",
    "{\"id\":7,\"error\":{\"message\":\"default code\"}}",
  };
  auto expect_same = [](const std::string& text, const Read_Outcome& whole, const Read_Outcome& other,
                        const std::string& how) {
    ASSERT_TRUE(other.ok) << how << ": " << text;
    EXPECT_EQ(describe(whole.object), describe(other.object)) << how << ": " << text;
    EXPECT_EQ(write_object(*whole.object), write_object(*other.object)) << how << ": " << text;
  };
  JSON_RPC_Reader reader;
  for (const std::string text : corpus)
  {
    Read_Outcome whole = read_message(reader, text);
    ASSERT_TRUE(whole.ok) << text;
    ASSERT_FALSE(whole.object.null()) << text;
    // Keep the first object: the reader is used again below.
    for (size_t cut = 1; cut < text.size(); ++cut)
    {
      bool ok = reader.open() && reader.read(text.data(), cut) &&
                reader.read(text.data() + cut, text.size() - cut) && reader.read(nullptr, 0);
      expect_same(text, whole, Read_Outcome{ok, reader.object(), 0}, "cut at " + std::to_string(cut));
    }
    expect_same(text, whole, read_message(reader, text, 1), "byte by byte");
  }
}
