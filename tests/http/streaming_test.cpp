#include "http_test_util.h"
#include "peers.h"

#include "json_rpc/json_restful_client.h"
#include "json_rpc/json_rpc_http_session.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>

using json_spirit::Value;

namespace
{
  const int item_count = 65536;
  const size_t item_size = 1024;  // 64 MiB of text in all
  const long long text_size = static_cast<long long>(item_count) * (item_size + 3);

  // A JSON-RPC request whose params are item_count strings, made while sent.
  class Big_Request : public JSON_Generator
  {
  public:
    bool generate_i(YAJL_Gen& gen) override
    {
      std::string item(item_size, 'g');
      gen.map_open() << "jsonrpc" << "2.0" << "id" << 1 << "method" << "measure" << "params";
      gen.array_open();
      for (int i = 0; i < item_count && gen.ok(); ++i)
        gen << item;
      gen.array_close();
      return gen.map_close().ok();
    }
  };
}

TEST(Streaming, A64MBRequestIsGeneratedOntoTheConnection)
{
  Node_Peer jayson("jayson_server.js");
  JSON_RPC_HTTP_Session rpc(local_session(jayson.port(), 120), "/", 0, 0);
  HTTP_Request request(HTTP_Request::METHOD_POST, "/");
  HTTP_Response response;
  Big_Request body;
  Value result;
  long long before = peak_rss();
  ASSERT_TRUE(rpc.request(request, body, response, &result));
  long long growth = peak_rss() - before;
  EXPECT_EQ(200, response.status());
  const json_spirit::Object& measured = result.get_obj().at("result").get_obj();
  EXPECT_EQ(item_count, measured.at("items").get_int());
  EXPECT_EQ(static_cast<long long>(item_count) * item_size, measured.at("chars").get_int64());
  std::printf("request of %lld bytes: peak RSS grew by %lld bytes\n", text_size, growth);
  RecordProperty("rss_growth", std::to_string(growth));
  if (!HTTP_TEST_UNDER_ASAN)
  {
    EXPECT_LT(growth, 16ll << 20) << "the request text was held, not streamed";
  }
}

TEST(Streaming, A64MBResponseIsParsedPieceByPiece)
{
  Nginx_Peer nginx;
  {
    std::ofstream out(nginx.dir().file("www/big.json"), std::ios::binary);
    std::string item = "\"" + std::string(item_size, 'r') + "\"";
    out << "[";
    for (int i = 0; i < item_count; ++i)
      out << (i ? "," : "") << item;
    out << "]";
  }
  JSON_RESTful_Client client(tls_session(nginx.port(), nullptr, nullptr, 0, 120), true);
  Value out;
  long long before = peak_rss();
  ASSERT_TRUE(client.get("/big.json", &out));
  long long growth = peak_rss() - before;
  ASSERT_EQ(json_spirit::array_type, out.type());
  ASSERT_EQ(static_cast<size_t>(item_count), out.get_array().size());
  EXPECT_EQ(std::string(item_size, 'r'), out.get_array().back().get_str());
  std::printf("response of %lld bytes: peak RSS grew by %lld bytes\n", text_size, growth);
  RecordProperty("rss_growth", std::to_string(growth));
  // The Value alone takes about the text's size; text and Value together
  // would take twice that.
  if (!HTTP_TEST_UNDER_ASAN)
  {
    EXPECT_LT(growth, text_size * 3 / 2) << "the response text was held as a whole";
  }
}
