#include "rpc_test_util.h"

#include <gtest/gtest.h>

namespace
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

  void expect_same(const std::string& text, const Read_Outcome& whole, const Read_Outcome& other, const char* how)
  {
    ASSERT_TRUE(other.ok) << how << ": " << text;
    EXPECT_EQ(describe(whole.object), describe(other.object)) << how << ": " << text;
    EXPECT_EQ(write_object(*whole.object), write_object(*other.object)) << how << ": " << text;
  }
}

TEST(Reading_In_Pieces, EveryCutGivesTheSameObjectAndText)
{
  JSON_RPC_Reader reader;
  for (const std::string text : corpus)
  {
    Read_Outcome whole = read_message(reader, text);
    ASSERT_TRUE(whole.ok) << text;
    ASSERT_FALSE(whole.object.null()) << text;
    // Keep the first object: the reader is used again below.
    for (size_t cut = 1; cut < text.size(); ++cut)
    {
      Read_Outcome r{reader.open(), JSON_RPC_Object_Ptr(), 0};
      r.ok = r.ok && reader.read(text.data(), cut) && reader.read(text.data() + cut, text.size() - cut) &&
             reader.read(nullptr, 0);
      r.object = reader.object();
      expect_same(text, whole, r, ("cut at " + std::to_string(cut)).c_str());
    }
    expect_same(text, whole, read_message(reader, text, 1), "byte by byte");
  }
}
