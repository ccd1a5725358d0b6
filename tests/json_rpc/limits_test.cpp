#include "rpc_test_util.h"

#include "big_text.h"
#include "log_capture.h"

#include <gtest/gtest.h>

namespace
{
  std::string request_with_params(const std::string& params)
  {
    return "{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"m\",\"params\":" + params + "}";
  }

  std::string nested(unsigned int depth) { return std::string(depth, '[') + std::string(depth, ']'); }
}

TEST(Message_Limits, AMillionLevelsOfParamsAreRefusedWithALogLine)
{
  Log_Capture cap;
  JSON_RPC_Reader reader;
  const std::string text = request_with_params(nested(1000000));
  Read_Outcome r = read_message(reader, text, 65536);
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(1u, cap.count("Failed to parse JSON-RPC: ")) << cap.text().substr(0, 2000);
  EXPECT_EQ(1u, cap.count("JSON-RPC message nested deeper than 127 levels refused.\n")) << cap.text().substr(0, 2000);

  // The reader is fine for the next message.
  Read_Outcome next = read_message(reader, request_with_params("[1]"));
  EXPECT_TRUE(next.ok);
  EXPECT_EQ("type=2 version=2.0 id=1 method=m params=[1]", describe(next.object));
}

TEST(Message_Limits, AHundredMegabyteStringInParamsFedIn64KiBPieces)
{
  const Big_Text text{"{\"jsonrpc\":\"2.0\",\"method\":\"big\",\"params\":[\"",
                      "\\u00e9t\\u00e9 \\ud83d\\ude00 \\\"x\\\" line\\n 0123456789abcdef ", "\"],\"id\":\"b\"}",
                      100ull * 1024 * 1024 / 64};
  JSON_RPC_Reader reader;
  ASSERT_TRUE(reader.open());
  ASSERT_TRUE(text.feed(65536, [&](char const* data, unsigned long long n) { return reader.read(data, n); }));
  ASSERT_TRUE(reader.read(nullptr, 0));
  JSON_RPC_Object_Ptr object = reader.object();
  ASSERT_FALSE(object.null());
  ASSERT_EQ(JSON_RPC_Object::TYPE_REQUEST, object->type);
  const JSON_RPC_Request& request = static_cast<const JSON_RPC_Request&>(*object);
  const std::string unit = "\xc3\xa9t\xc3\xa9 \xf0\x9f\x98\x80 \"x\" line\n 0123456789abcdef ";
  const std::string& s = request.params.get_array()[0].get_str();
  ASSERT_EQ(unit.size() * text.repeat, s.size());
  EXPECT_EQ(unit + unit, s.substr(0, 2 * unit.size()));
  EXPECT_EQ(unit, s.substr(s.size() - unit.size()));
  reader.close();

  // Written back, the escapes come out as UTF-8 and the id ahead.
  const Big_Text expected{"{\"jsonrpc\":\"2.0\",\"id\":\"b\",\"method\":\"big\",\"params\":[\"",
                          "\xc3\xa9t\xc3\xa9 \xf0\x9f\x98\x80 \\\"x\\\" line\\n 0123456789abcdef ", "\"]}", text.repeat};
  Big_Text_Checker checker(expected);
  EXPECT_TRUE(JSON_RPC_Writer().write(*object, checker));
  EXPECT_TRUE(checker.matches()) << "printed " << checker.printed() << " of " << expected.size()
                                 << ", first difference at " << checker.first_difference();
}
