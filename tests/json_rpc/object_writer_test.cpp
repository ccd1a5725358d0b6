#include "rpc_test_util.h"

#include "log_capture.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <memory>
#include <set>

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

TEST(Message_Objects, ErrorTextsIdsAndDumps)
{
  const std::pair<int, const char*> messages[] = {{-32700, "Parse error"},      {-32600, "Invalid Request"},
                                                  {-32601, "Method not found"}, {-32602, "Invalid params"},
                                                  {-32603, "Internal error"},   {0, nullptr},
                                                  {1, nullptr},                 {-32604, nullptr}};
  for (const auto& m : messages)
    EXPECT_STREQ(m.second, json_rpc_error_message(m.first)) << m.first;

  const std::pair<Value, const char*> ids[] = {
    {Value(42), "42"}, {Value(-7), "-7"}, {Value("abc"), "abc"}, {Value(1.5), "1.500000"},
    {Value(), "<null type>"}, {Value(true), "<invalid type>"}, {Value(Array{Value(1)}), "<invalid type>"},
    {Value(Object()), "<invalid type>"}, {Value(3000000000LL), "3000000000"},
    {Value(LLONG_MIN), "-9223372036854775808"}};
  for (const auto& id : ids)
    EXPECT_STREQ(id.second, JSON_RPC_Id(id.first).c_str());
  // Cut at the 32-byte buffer.
  EXPECT_EQ(31u, std::strlen(JSON_RPC_Id(Value(1e300)).c_str()));

  JSON_RPC_Request r;
  r.method = "ping";
  r.id = Value(7);
  r.params = Value(Array{Value("not shown")});
  EXPECT_STREQ("JSON-RPC request (version='2.0', method='ping', id='7')", JSON_RPC_Request_Dump(r).c_str());
  // An answer takes the request's version and id.
  r.version = "1.5";
  JSON_RPC_Response answer(&r);
  EXPECT_EQ("1.5", answer.version);
  EXPECT_EQ(Value(7), answer.id);

  std::set<std::string> fresh;
  for (int i = 0; i < 100; ++i)
    fresh.insert(JSON_RPC_Id_Generator::get());
  EXPECT_EQ(100u, fresh.size());
  JSON_RPC_Response_Error e;
  JSON_RPC_Id_Generator::gen(e);
  EXPECT_EQ(36u, e.id.get_str().size());
}

TEST(JSON_RPC_Writer, WritesEachKindInItsMemberOrder)
{
  JSON_RPC_Request notification;
  notification.type = JSON_RPC_Object::TYPE_NOTIFICATION;
  notification.method = "m";
  notification.id = Value(9); // never written for a notification
  EXPECT_EQ("{\"jsonrpc\":\"2.0\",\"method\":\"m\"}", write_object(notification));

  JSON_RPC_Request request;
  request.id = Value(1);
  request.method = "m";
  request.params = Value(Array{Value(1)});
  EXPECT_EQ("{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"m\",\"params\":[1]}", write_object(request));
  request.id = Value();
  request.params = Value(Object{{"s", Value("\"\\\n\x01/")}});
  request.version.clear();
  EXPECT_EQ("{\"jsonrpc\":\"\",\"id\":null,\"method\":\"m\",\"params\":{\"s\":\"\\\"\\\\\\n\\u0001/\"}}",
            write_object(request));

  JSON_RPC_Response response(nullptr);
  response.id = Value(1);
  EXPECT_EQ("{\"jsonrpc\":\"2.0\",\"id\":1,\"result\":null}", write_object(response));
  response.id = Value("x");
  response.result = Value(ULLONG_MAX);
  EXPECT_EQ("{\"jsonrpc\":\"2.0\",\"id\":\"x\",\"result\":18446744073709551615}", write_object(response));

  JSON_RPC_Response_Error error;
  error.id = Value(1);
  EXPECT_EQ("{\"jsonrpc\":\"2.0\",\"id\":1,\"error\":{\"code\":-32603,\"message\":\"\"}}", write_object(error));
  error.code = -32601;
  error.message = "Method not found";
  error.data = Value(false);
  EXPECT_EQ("{\"jsonrpc\":\"2.0\",\"id\":1,\"error\":{\"code\":-32601,\"message\":\"Method not found\","
            "\"data\":false}}",
            write_object(error));
}

TEST(JSON_RPC_Writer, RefusesAnUnknownTypeAfterClosingTheMap)
{
  JSON_RPC_Request odd;
  odd.type = static_cast<JSON_RPC_Object::Type>(5);
  odd.method = "m";
  std::string out;
  YAJL_String_Printer printer(&out);
  JSON_RPC_Writer writer;
  EXPECT_FALSE(writer.write(odd, printer));
  EXPECT_EQ("{\"jsonrpc\":\"2.0\",\"id\":null}", out);

  // The writer is fresh for every message.
  out.clear();
  odd.type = JSON_RPC_Object::TYPE_REQUEST;
  EXPECT_TRUE(writer.write(odd, printer));
  EXPECT_TRUE(writer.write(odd, printer));
  EXPECT_EQ("{\"jsonrpc\":\"2.0\",\"id\":null,\"method\":\"m\"}{\"jsonrpc\":\"2.0\",\"id\":null,\"method\":\"m\"}", out);

  // One given up half-way (a map and a key left open) leaves nothing behind
  // for the next.
  struct Half : JSON_Generator
  {
    bool generate(yajl_gen_t* gen) override
    {
      yajl_gen_map_open(gen);
      yajl_gen_string(gen, reinterpret_cast<const unsigned char*>("k"), 1);
      return false;
    }
    bool generate_i(YAJL_Gen&) override { return false; }
  } half;
  out.clear();
  EXPECT_FALSE(writer.write(half, printer));
  EXPECT_EQ("{\"k\"", out);
  out.clear();
  EXPECT_TRUE(writer.write(odd, printer));
  EXPECT_EQ("{\"jsonrpc\":\"2.0\",\"id\":null,\"method\":\"m\"}", out);
}

TEST(JSON_RPC_Writer, OpenPrintsAsItGoesAndNothingReachesThePrinterAfterClose)
{
  JSON_RPC_Writer writer;
  std::string out;
  auto printer = std::make_unique<YAJL_String_Printer>(&out);
  yajl_gen_t* gen = writer.open(*printer);
  ASSERT_NE(nullptr, gen);
  yajl_gen_map_open(gen);
  yajl_gen_string(gen, reinterpret_cast<const unsigned char*>("k"), 1);
  // Each token is in the printer once it is made, before close().
  EXPECT_EQ("{\"k\"", out);
  writer.close();
  // The writer keeps its generator: a handle used after close() prints
  // nowhere, and close() again does nothing.
  yajl_gen_integer(gen, 1);
  yajl_gen_map_close(gen);
  writer.close();
  EXPECT_EQ("{\"k\"", out);

  // A printer whose owner has gone while the writer was open is never
  // touched again, not even by the writer's own end (ASan would see it).
  gen = writer.open(*printer);
  yajl_gen_map_open(gen);
  printer.reset();
  EXPECT_EQ("{\"k\"{", out);
  writer.close();
  std::string next;
  YAJL_String_Printer other(&next);
  JSON_RPC_Request note;
  note.type = JSON_RPC_Object::TYPE_NOTIFICATION;
  note.method = "m";
  EXPECT_TRUE(writer.write(note, other));
  EXPECT_EQ("{\"jsonrpc\":\"2.0\",\"method\":\"m\"}", next);
}

namespace
{
  struct List_Generator : JSON_Generator
  {
    bool ok = true;
    bool generate_i(YAJL_Gen& gen) override
    {
      gen.array_open() << 1 << "two";
      gen.array_close();
      return ok;
    }
  };

  std::string generate(JSON_RPC_Request_Generator& g, bool expect)
  {
    std::string out;
    YAJL_String_Printer printer(&out);
    EXPECT_EQ(expect, JSON_RPC_Writer().write(g, printer));
    return out;
  }
}

TEST(JSON_RPC_Request_Generator, WritesMethodIdAndStreamedParams)
{
  JSON_RPC_Request_Generator plain("m", nullptr);
  const std::string id = plain.id();
  EXPECT_EQ("{\"jsonrpc\":\"2.0\",\"method\":\"m\",\"id\":\"" + id + "\",\"params\":null}", generate(plain, true));
  EXPECT_EQ(id, plain.id());

  List_Generator list;
  JSON_RPC_Request_Generator with_params("sum", &list);
  const std::string text = generate(with_params, true);
  EXPECT_EQ("{\"jsonrpc\":\"2.0\",\"method\":\"sum\",\"id\":\"" + with_params.id() + "\",\"params\":[1,\"two\"]}",
            text);
  EXPECT_NE(id, with_params.id());
  // The reader takes this member order too.
  Read_Outcome r = read_message(text);
  ASSERT_TRUE(r.ok);
  EXPECT_EQ("type=2 version=2.0 id=\"" + with_params.id() + "\" method=sum params=[1,\"two\"]", describe(r.object));

  // A failing params generator fails the whole; the map is still closed.
  list.ok = false;
  EXPECT_EQ("{\"jsonrpc\":\"2.0\",\"method\":\"sum\",\"id\":\"" + with_params.id() + "\",\"params\":[1,\"two\"]}",
            generate(with_params, false));
}

TEST(JSON_RPC_Request_Generator, RefusesNoMethodAndNoGeneratorWithALogLine)
{
  Log_Capture cap;
  JSON_RPC_Request_Generator nameless(nullptr, nullptr);
  EXPECT_EQ("{\"jsonrpc\":\"2.0\"}", generate(nameless, false));
  ASSERT_EQ(1u, cap.count_priority(LM_EMERGENCY));
  EXPECT_EQ(0u, cap.text().find("Unexpected error in ")) << cap.text();
  EXPECT_TRUE(cap.contains(", method_ is empty:\n"));

  cap.clear();
  EXPECT_FALSE(nameless.generate(nullptr));
  ASSERT_EQ(1u, cap.count_priority(LM_EMERGENCY));
  EXPECT_TRUE(cap.contains(", gen is NULL:\n"));
}
