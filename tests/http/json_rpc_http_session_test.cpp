#include "fake_channel.h"
#include "http_test_util.h"
#include "log_capture.h"

#include "json_rpc/json_rpc_http_session.h"
#include "json_rpc/json_rpc_session.h"
#include "json_rpc/json_restful_client.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>

using json_spirit::Value;

namespace
{
  JSON_RPC_Object_Ptr make_request(const char* method, const char* params)
  {
    JSON_RPC_Object_Ptr request = JSON_RPC_Session::make_rpc_request(method, parse_json(params));
    JSON_RPC_Id_Generator::gen(*request);
    return request;
  }

  // GET path on 127.0.0.1:port with a plain socket; the body, empty on
  // failure. HTTP/1.0: the body ends with the connection, unchunked.
  std::string plain_get(unsigned short port, const std::string& path)
  {
    Socket_Client client(port, 10000);
    if (!client.send("GET " + path + " HTTP/1.0\r\nHost: 127.0.0.1\r\n\r\n") || !client.read_to_eof())
      return std::string();
    size_t at = client.in.find("\r\n\r\n");
    return at == std::string::npos ? std::string() : client.in.substr(at + 4);
  }

  int jayson_requests(unsigned short port)
  {
    return parse_json(plain_get(port, "/__requests")).get_obj().at("requests").get_int();
  }

  std::string envelope(const char* result)
  {
    return std::string("{\"jsonrpc\":\"2.0\",\"id\":\"x\",\"result\":") + result + "}";
  }

  // The size of the streaming tests' messages.
  const int item_count = 65536;
  const size_t item_size = 1024;  // 64 MiB of text in all
  const long long text_size = static_cast<long long>(item_count) * (item_size + 3);
}

TEST(JSON_RPC_HTTP_Session, MessageAndRawBodyPathsAgainstJayson)
{
  Node_Peer jayson("jayson_server.js");
  JSON_RPC_HTTP_Session rpc(local_session(jayson.port()), "/", 3, 10);
  JSON_RPC_Object_Ptr response = rpc.request(make_request("echo", "{\"a\":[1,2.5,\"x\"]}"));
  ASSERT_TRUE(response.get());
  EXPECT_EQ("{\"a\":[1,2.5,\"x\"]}", answer_text(*response));

  response = rpc.request(make_request("fail", "[7]"));
  ASSERT_TRUE(response.get());
  ASSERT_EQ("error -32000 {\"args\":[7]}", answer_text(*response));
  EXPECT_EQ("refused", static_cast<JSON_RPC_Response_Error&>(*response).message);

  // jayson answers a notification with 204, which is not 200.
  EXPECT_FALSE(rpc.notify(make_message("echo", json_spirit::Array())));
  EXPECT_EQ(3, jayson_requests(jayson.port()));
  Value last = parse_json(plain_get(jayson.port(), "/__requests")).get_obj().at("last");
  EXPECT_EQ("Keep-Alive", last.get_obj().at("headers").get_obj().at("connection").get_str());
  EXPECT_EQ("chunked", last.get_obj().at("headers").get_obj().at("transfer-encoding").get_str());

  Log_Capture log;
  JSON_RPC_Object_Ptr answer(new JSON_RPC_Response(nullptr));
  EXPECT_FALSE(rpc.send_request(answer).get());
  EXPECT_TRUE(log.contains("obj is neither JSON-RPC request nor notify!"));

  // The raw body path, on another URI.
  rpc.reset(local_session(jayson.port()), "/rpc");
  Value result;
  ASSERT_TRUE(rpc.request("add", parse_json("[40,2]"), &result));
  EXPECT_EQ(42, result.get_obj().at("result").get_int());
  EXPECT_EQ("2.0", result.get_obj().at("jsonrpc").get_str());

  // A JSON-RPC error inside a 200 is the caller's to open.
  ASSERT_TRUE(rpc.request("fail", parse_json("[]"), &result));
  EXPECT_EQ(-32000, result.get_obj().at("error").get_obj().at("code").get_int());
  ASSERT_TRUE(rpc.request("nope", &result));
  EXPECT_EQ(-32601, result.get_obj().at("error").get_obj().at("code").get_int());

  // A large response, read in pieces of 4096 bytes.
  ASSERT_TRUE(rpc.request("big", parse_json("{\"count\":3000,\"size\":700}"), &result));
  const json_spirit::Array& items = result.get_obj().at("result").get_array();
  ASSERT_EQ(3000u, items.size());
  EXPECT_EQ(std::string(700, 'x'), items[2999].get_str());

  HTTP_Request request(HTTP_Request::METHOD_POST, "/any");
  Value body = parse_json("{\"jsonrpc\":\"2.0\",\"id\":5,\"method\":\"echo\",\"params\":[\"p\"]}");
  HTTP_Response head;
  ASSERT_TRUE(rpc.request(request, &body, head, &result));
  EXPECT_EQ(200, head.status());
  EXPECT_EQ("{\"id\":5,\"jsonrpc\":\"2.0\",\"result\":[\"p\"]}", dump_json(result));
  EXPECT_EQ(8, jayson_requests(jayson.port()));
}

TEST(JSON_RPC_HTTP_Session, TLSThroughNginxToJayson)
{
  Node_Peer jayson("jayson_server.js");
  Nginx_Peer nginx(jayson.port());
  std::unique_ptr<ACE_SSL_Context> context(trusting(nginx.certificate()));
  HTTP_Session_Ptr session = tls_session(nginx.port(), context.get(), "localhost");
  ASSERT_TRUE(session.get());
  JSON_RPC_HTTP_Session rpc(session, "/rpc", 0, 0);
  Value result;
  for (int i = 0; i < 3; ++i)
  {
    ASSERT_TRUE(rpc.request("add", parse_json("[1,2]"), &result));
    EXPECT_EQ(3, result.get_obj().at("result").get_int());
  }
  JSON_RPC_Object_Ptr response = rpc.request(make_request("echo", "[true]"));
  ASSERT_TRUE(response.get());
  EXPECT_EQ(JSON_RPC_Object::TYPE_RESPONSE, response->type);
  EXPECT_EQ(1ul, session->connections_opened());
  EXPECT_EQ(4, jayson_requests(jayson.port()));
}

TEST(JSON_RPC_HTTP_Session, BodiesCarryTheirMembersAndOneIdPerCall)
{
  Recorded_Waits waits;
  Reply dropped;
  dropped.drop_after = 100;
  Scripted_Server server({Reply::json(200, envelope("1")), Reply::json(200, envelope("2")), dropped,
                          Reply::json(200, envelope("3"))});
  JSON_RPC_HTTP_Session rpc(local_session(server.port()), "/rpc", 2, 10);
  Value result;
  ASSERT_TRUE(rpc.request("m", &result));
  ASSERT_TRUE(rpc.request("m", parse_json("[]"), &result));
  // Big enough that the body is still going out when the server drops it.
  Value big = parse_json("[]");
  for (int i = 0; i < 20000; ++i)
    big.get_array().push_back(Value(std::string(1000, 'z')));
  Log_Capture log;
  ASSERT_TRUE(rpc.request("m", big, &result));
  EXPECT_EQ(3, result.get_obj().at("result").get_int());
  EXPECT_TRUE(log.contains("Failed to POST/PUT data to http://127.0.0.1:"));
  EXPECT_EQ(1u, log.count("Retry(1) "));
  EXPECT_EQ(1u, log.count("json_rpc_http_session.cpp:")) << log.text();

  std::vector<Scripted_Request> seen = server.requests_copy();
  ASSERT_EQ(4u, seen.size());
  std::string id0 = parse_json(seen[0].body).get_obj().at("id").get_str();
  EXPECT_EQ("{\"id\":\"" + id0 + "\",\"jsonrpc\":\"2.0\",\"method\":\"m\"}", seen[0].body);
  std::string id1 = parse_json(seen[1].body).get_obj().at("id").get_str();
  EXPECT_EQ("{\"id\":\"" + id1 + "\",\"jsonrpc\":\"2.0\",\"method\":\"m\",\"params\":[]}", seen[1].body);
  EXPECT_NE(id0, id1);
  EXPECT_EQ("application/json", seen[1].headers["content-type"]);
  EXPECT_EQ("chunked", seen[1].headers["transfer-encoding"]);
  // The dropped attempt and its repeat carry the same id.
  std::string id2 = parse_json(seen[3].body).get_obj().at("id").get_str();
  EXPECT_EQ(0u, seen[2].body.find("{\"id\":\"" + id2 + "\""));
  EXPECT_NE(id1, id2);
}

TEST(JSON_RPC_HTTP_Session, StatusAndFailuresOfEachReadingForm)
{
  const std::string error_body = "{\"jsonrpc\":\"2.0\",\"id\":1,\"error\":{\"code\":-32603,\"message\":\"m\"}}";
  const Reply error = Reply::json(500, error_body), empty = Reply::json(200, "{}"),
              charset = Reply::json(200, envelope("true"), "application/json; charset=utf-8"),
              cut = Reply::json(200, "{\"id\":1,\"res"),
              bad = Reply::json(200, "{\"id\":1 x" + std::string(9000, ' ') + "}");
  Scripted_Server server({error, error, error, charset, charset, Reply::json(200, envelope("1"), "text/plain"),
                          Reply::json(200, envelope("1"), nullptr), empty, empty, cut, cut, bad, bad});
  JSON_RPC_HTTP_Session rpc(local_session(server.port()), "/rpc", 3, 10);
  Log_Capture log;
  Value result = parse_json("[0]");
  EXPECT_FALSE(rpc.request("m", &result)) << "500 with a JSON body";
  EXPECT_EQ(dump_json(parse_json(error_body)), dump_json(result));
  EXPECT_FALSE(rpc.request("m", nullptr));

  HTTP_Request request(HTTP_Request::METHOD_PUT, "/raw");
  HTTP_Response response;
  EXPECT_TRUE(rpc.request(request, static_cast<const Value*>(nullptr), response, nullptr));
  EXPECT_EQ(500, response.status());
  EXPECT_EQ(3, server.heads());

  EXPECT_TRUE(rpc.request(make_request("m", "[]")).get()) << "a charset passes";
  EXPECT_TRUE(rpc.request("m", &result));
  EXPECT_FALSE(rpc.request(make_request("m", "[]")).get());
  EXPECT_TRUE(log.contains("Invalid Content-Type (text/plain) of JSON-RPC response."));
  EXPECT_FALSE(rpc.request("m", &result));
  EXPECT_TRUE(log.contains("HTTP response Content-Type () of JSON http://127.0.0.1:"));

  log.clear();
  EXPECT_FALSE(rpc.request(make_request("m", "[]")).get()) << "{} makes no message";
  EXPECT_TRUE(log.empty()) << log.text();
  result = parse_json("[0]");
  EXPECT_TRUE(rpc.request("m", &result));
  EXPECT_EQ("{}", dump_json(result));

  EXPECT_FALSE(rpc.request(make_request("m", "[]")).get());
  EXPECT_TRUE(log.contains("Failed to finish JSON-RPC response.\n"));
  EXPECT_FALSE(rpc.request("m", &result));
  EXPECT_TRUE(log.contains("Failed to finish parsing JOSN http://127.0.0.1:"));
  EXPECT_FALSE(rpc.request(make_request("m", "[]")).get());
  EXPECT_TRUE(log.contains("Failed to parse JSON-RPC response.\n"));
  EXPECT_FALSE(rpc.request("m", &result));
  EXPECT_TRUE(log.contains("Failed to parse JSON http://127.0.0.1:"));
  EXPECT_EQ(13, server.heads()) << "nothing after the sending is repeated";
  EXPECT_EQ(0u, log.count("Retry("));

  std::vector<Scripted_Request> seen = server.requests_copy();
  EXPECT_EQ("PUT", seen[2].method);
  EXPECT_EQ("chunked", seen[2].headers["transfer-encoding"]);
  EXPECT_EQ(0u, seen[2].headers.count("content-type"));
  EXPECT_EQ("", seen[2].body);

  log.clear();
  EXPECT_FALSE(rpc.parse_body(HTTP_Connection_Ptr(), request, response, &result));
  EXPECT_EQ(500, response.status()) << "untouched";
  EXPECT_TRUE(log.empty());
}

TEST(JSON_RPC_HTTP_Session, MessagePathTriesOnceTheRawPathRepeats)
{
  Recorded_Waits waits;
  Log_Capture log;
  JSON_RPC_HTTP_Session rpc(local_session(free_port()), "/rpc", 2, 10);
  EXPECT_FALSE(rpc.request(make_request("m", "[]")).get());
  EXPECT_EQ(1u, log.count("Failed to connect to"));
  EXPECT_TRUE(log.contains("Failed to send JSON-RPC request to HTTP connection http://127.0.0.1:"));
  log.clear();
  Value result;
  EXPECT_FALSE(rpc.request("m", &result));
  EXPECT_EQ(3u, log.count("Failed to connect to"));
  EXPECT_EQ((std::vector<unsigned int>{1, 2}), Recorded_Waits::waits);

  log.clear();
  EXPECT_FALSE(rpc.request("", &result));
  EXPECT_TRUE(log.contains("method is NULL or \"\""));
  JSON_RPC_HTTP_Session none(HTTP_Session_Ptr(), "/", 0, 0);
  EXPECT_FALSE(static_cast<bool>(none));
  EXPECT_FALSE(none.request(make_request("m", "[]")).get());
}

TEST(Streaming, A64MBRequestIsGeneratedOntoTheConnection)
{
  // A JSON-RPC request whose params are item_count strings, made while sent.
  struct Big_Request : JSON_Generator
  {
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
  EXPECT_TRUE(HTTP_TEST_UNDER_ASAN || growth < 16ll << 20) << "the request text was held, not streamed";
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
  EXPECT_TRUE(HTTP_TEST_UNDER_ASAN || growth < text_size * 3 / 2) << "the response text was held as a whole";
}
