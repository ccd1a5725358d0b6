#include "http_test_util.h"
#include "log_capture.h"

#include "json_rpc/json_form_post.h"
#include "json_rpc/json_restful_client.h"

#include <gtest/gtest.h>

using json_spirit::Object;
using json_spirit::Value;

TEST(JSON_RESTful_Client, GetPostPutDeleteFormsAndCookiesAgainstJsonServer)
{
  struct Items : JSON_Generator
  {
    bool generate_i(YAJL_Gen& gen) override
    {
      ++runs;
      gen.map_open() << "name" << "generated" << "n" << runs;
      return gen.map_close().ok();
    }
    int runs = 0;
  };
  Node_Peer rest("rest_server.js");
  JSON_RESTful_Client client("127.0.0.1", rest.port(), false, true);
  ASSERT_TRUE(static_cast<bool>(client));
  // How many requests reached json-server's REST routes, and the last head.
  auto server_log = [&client] {
    Value seen;
    EXPECT_TRUE(client.get("/__requests", &seen));
    return seen;
  };
  Log_Capture log;

  Value items;
  ASSERT_TRUE(client.get("/items", &items));
  ASSERT_EQ(json_spirit::array_type, items.type());
  EXPECT_EQ(2u, items.get_array().size());

  Value body = parse_json("{\"name\":\"third\",\"tags\":[\"x\"]}");
  HTTP_Response response;
  Value created;
  ASSERT_TRUE(client.post("/items", &body, response, &created));
  EXPECT_EQ(201, response.status());
  EXPECT_EQ("third", created.get_obj().at("name").get_str());
  std::string id = std::to_string(created.get_obj().at("id").get_int());

  Value changed = parse_json("{\"name\":\"renamed\"}");
  Value after;
  ASSERT_TRUE(client.put(("/items/" + id).c_str(), &changed, &after));
  EXPECT_EQ("{\"id\":" + id + ",\"name\":\"renamed\"}", dump_json(after));

  Value profile;
  Items generated;
  ASSERT_TRUE(client.post("/items", generated, &profile));
  EXPECT_EQ("generated", profile.get_obj().at("name").get_str());

  ASSERT_TRUE(client.del(("/items/" + id).c_str(), response));
  EXPECT_EQ(200, response.status());
  Value missing = parse_json("[1]");
  EXPECT_FALSE(client.get(("/items/" + id).c_str(), response, &missing));
  EXPECT_EQ(404, response.status());
  EXPECT_EQ("{}", dump_json(missing)) << "the server's document of a 404 is read";
  EXPECT_TRUE(log.contains("Failed to GET data from 'http://127.0.0.1:" + std::to_string(rest.port()) + "/items/" +
                           id + "', status=404\n"));

  // One request each: nothing was repeated, the 404 neither.
  EXPECT_EQ(6, server_log().get_obj().at("requests").get_int());
  client.logging_error(false);
  log.clear();
  EXPECT_FALSE(client.del(("/items/" + id).c_str()));
  EXPECT_FALSE(log.contains("status=404"));

  // The body goes out chunked as it is made, or buffered with its length.
  Value out;
  ASSERT_TRUE(client.post("/items", &body, &out));
  Object last = server_log().get_obj().at("last").get_obj().at("headers").get_obj();
  EXPECT_EQ("chunked", last.at("transfer-encoding").get_str());
  EXPECT_EQ(0u, last.count("content-length"));
  client.streaming(false);
  ASSERT_TRUE(client.post("/items", &changed, &out));
  last = server_log().get_obj().at("last").get_obj().at("headers").get_obj();
  EXPECT_EQ("18", last.at("content-length").get_str());
  EXPECT_EQ("application/json", last.at("content-type").get_str());
  EXPECT_EQ(0u, last.count("transfer-encoding"));
  // GET never says chunked.
  client.streaming(true);
  ASSERT_TRUE(client.get("/items/1", &out));
  EXPECT_EQ(0u, server_log().get_obj().at("last").get_obj().at("headers").get_obj().count("transfer-encoding"));

  // A form, encoded as express decodes it.
  HTTP_Session_Ptr session = local_session(rest.port());
  HTTP_Request form_request(HTTP_Request::METHOD_POST, "/items");
  std::map<std::string, std::string> form = {{"name", "from a form"}, {"kind", "a&b=c +%"}};
  ASSERT_TRUE(http_post_urlencoded_form(session, form_request, form, response, &out));
  EXPECT_EQ(201, response.status());
  EXPECT_EQ("from a form", out.get_obj().at("name").get_str());
  EXPECT_EQ("a&b=c +%", out.get_obj().at("kind").get_str());

  // express's cookies: the one of Max-Age 0 is dropped, the other sent.
  HTTP_Request login(HTTP_Request::METHOD_GET, "/__login");
  HTTP_Connection_Ptr connection = session->begin_request(login);
  ASSERT_TRUE(connection.get());
  ASSERT_EQ(0, connection->read_response(response));
  read_all(*connection, 4096);
  EXPECT_EQ(1u, session->cookie_count());
  ASSERT_TRUE(JSON_RESTful_Client(session, true).get("/items", &out));
  EXPECT_EQ("sid=abc123", server_log().get_obj().at("last").get_obj().at("headers").get_obj().at("cookie").get_str());
}

TEST(JSON_HTTP_Session, RepeatsFailuresOnTheConnectionOnly)
{
  Recorded_Waits waits;
  std::string doc = "{\"n\":\"" + std::string(3000, '1') + "\"}";
  Reply good = Reply::json(200, "{\"ok\":true}");
  Reply big = Reply::json(200, doc);
  Scripted_Server server({Reply::cut(good, 10), Reply::cut(big, big.bytes.size() / 2), good,
                          Reply::json(200, "{\"ok\":true}", "text/html"), Reply::json(200, "{\"ok\":"), good});
  JSON_HTTP_Session session(local_session(server.port()), 5, 300);
  Log_Capture log;
  HTTP_Request request(HTTP_Request::METHOD_GET, "/r");
  HTTP_Response response;
  Value out;
  ASSERT_TRUE(session.get(request, response, out));
  EXPECT_EQ("{\"ok\":true}", dump_json(out));
  EXPECT_EQ(3, server.heads()) << "cut in the head, cut in the body, then whole";
  EXPECT_EQ((std::vector<unsigned int>{1, 2}), Recorded_Waits::waits);
  EXPECT_EQ(1u, log.count("Retry(1) "));
  EXPECT_EQ(1u, log.count("Retry(2) "));
  EXPECT_EQ(2u, log.count("json_http_session.cpp:")) << log.text();
  EXPECT_TRUE(log.contains("Failed to receive response from http://127.0.0.1:"));
  EXPECT_TRUE(log.contains("Failed to GET data from JSON http://127.0.0.1:"));

  // A wrong type and a bad document are not mended by trying again.
  log.clear();
  EXPECT_FALSE(session.get(request, response, out));
  EXPECT_EQ(4, server.heads());
  EXPECT_TRUE(log.contains("HTTP response Content-Type (text/html) of JSON http://127.0.0.1:"));
  EXPECT_FALSE(session.get(request, response, out));
  EXPECT_EQ(5, server.heads());
  EXPECT_TRUE(log.contains("Failed to finish parsing JSON http://127.0.0.1:"));
  EXPECT_EQ(0u, log.count("Retry("));
}

TEST(JSON_HTTP_Session, LimitsEndTheRepeats)
{
  Recorded_Waits waits;
  Log_Capture log;
  Scripted_Server server({Reply::cut(Reply::json(200, "{}"), 5)});
  HTTP_Request request(HTTP_Request::METHOD_GET, "/");
  HTTP_Response response;
  Value out;
  JSON_HTTP_Session session(local_session(server.port()), 1, -1);
  // retries, retry_timeout, and the heads the server has seen after the call.
  // With 4 seconds, waits of 1, 2 and 4 start while less than 4 were waited.
  const int limits[][3] = {{1, -1, 2}, {0, -1, 3}, {-1, 0, 4}, {-1, 4, 8}};
  for (const auto& l : limits)
  {
    session.retries(l[0]);
    session.retry_timeout(l[1]);
    EXPECT_FALSE(session.get(request, response, &out));
    EXPECT_EQ(l[2], server.heads()) << "retries " << l[0] << ", retry_timeout " << l[1];
  }
  EXPECT_EQ((std::vector<unsigned int>{1, 1, 2, 4}), Recorded_Waits::waits);
}

TEST(JSON_RESTful_Client, StatusRulesAndBodylessResponses)
{
  Scripted_Server server({Reply::json(500, "{\"error\":\"boom\"}"), Reply::json(500, "{\"error\":\"boom\"}"),
                          Reply::json(204, ""), Reply::json(200, "{\"x\":1}", nullptr), Reply::json(299, "[]"),
                          Reply::json(300, "[]")});
  JSON_RESTful_Client client(local_session(server.port()), true);
  Log_Capture log;
  Value out;
  EXPECT_FALSE(client.get("/e", &out));
  EXPECT_EQ("{\"error\":\"boom\"}", dump_json(out));
  JSON_RESTful_Client lenient(local_session(server.port()), false);
  EXPECT_TRUE(lenient.get("/e", &out));
  out = parse_json("[1]");
  EXPECT_TRUE(client.get("/empty", &out));
  EXPECT_TRUE(out.is_null());
  client.skip_content_type(true);
  EXPECT_TRUE(client.get("/untyped", &out)) << "no Content-Type passes when it is skipped";
  EXPECT_EQ("{\"x\":1}", dump_json(out));
  EXPECT_TRUE(client.get("/299", &out));
  EXPECT_FALSE(client.get("/300", &out));
  EXPECT_EQ(6, server.heads());
  EXPECT_FALSE(client.is_status_ok(199));
  EXPECT_FALSE(client.is_status_ok(304));
  EXPECT_TRUE(client.is_status_ok(204));
  EXPECT_TRUE(lenient.is_status_ok(500));
}

TEST(JSON_RESTful_Client, FillsEachRequestOnceAndSetsSessionHeaders)
{
  struct Filling_Client : JSON_RESTful_Client
  {
    using JSON_RESTful_Client::JSON_RESTful_Client;
    bool fill_request(HTTP_Request& request) const override
    {
      ++fills;
      request.headers().put("Authorization", "Bearer t");
      return allow;
    }
    mutable int fills = 0;
    bool allow = true;
  };
  Recorded_Waits waits;
  Scripted_Server server({Reply::cut(Reply::json(200, "{}"), 3), Reply::json(200, "{}")});
  Filling_Client client(local_session(server.port()), true);
  Log_Capture log;
  ASSERT_TRUE(client.set_header("X-Client", "c"));
  ASSERT_TRUE(client.set_header(HTTP_Headers::ACCEPT, "application/json"));
  Value out;
  ASSERT_TRUE(client.get("/a", &out));
  EXPECT_EQ(1, client.fills) << "once per call, not per repeat";
  EXPECT_EQ(2, server.heads());
  std::vector<Scripted_Request> seen = server.requests_copy();
  ASSERT_EQ(2u, seen.size());
  for (Scripted_Request& r : seen)
  {
    EXPECT_EQ("Bearer t", r.headers["authorization"]);
    EXPECT_EQ("c", r.headers["x-client"]);
    EXPECT_EQ("application/json", r.headers["accept"]);
  }

  log.clear();
  client.allow = false;
  EXPECT_FALSE(client.del("/gone"));
  EXPECT_TRUE(log.contains("Failed to fill request of DELETE 'http://127.0.0.1:"));
  EXPECT_EQ(2, server.heads());
}

TEST(JSON_RESTful_Client, WithoutASessionEveryRequestFails)
{
  Log_Capture log;
  JSON_RESTful_Client client("no-such-host.invalid", 80, false, true);
  EXPECT_FALSE(static_cast<bool>(client));
  Value out;
  EXPECT_FALSE(client.get("/x", &out));
  EXPECT_TRUE(log.contains("session_ is false"));
  EXPECT_FALSE(client.set_header("X", "y"));
  log.clear();
  EXPECT_FALSE(client.post("", static_cast<const Value*>(nullptr), &out));
  EXPECT_FALSE(client.post(static_cast<const char*>(nullptr), static_cast<const Value*>(nullptr), &out));
  EXPECT_EQ(2u, log.count("uri is NULL or \"\""));
  EXPECT_EQ(0u, log.count("session_ is false")) << "the uri is tested first";
  JSON_HTTP_Session bare{HTTP_Session_Ptr(), 0, 0};
  EXPECT_FALSE(bare.clear_cookie());
  EXPECT_TRUE(log.contains("session_ is NULL"));

  Scripted_Server server({Reply::json(200, "{}")});
  EXPECT_TRUE(client.reset("127.0.0.1", server.port(), false, 5, 5, 0, 0, 0));
  EXPECT_TRUE(client.get("/x", &out));
  EXPECT_FALSE(client.reset("no-such-host.invalid", 80, false, 5, 5, 0, 3, 0));
  EXPECT_TRUE(client.get("/x", &out)) << "a failed reset changes nothing";
}

TEST(JSON_HTTP_Session, TakesABodyToASinkInTwoSteps)
{
  struct String_Sink : IO_Base
  {
    ssize_t write(char const* data, size_t length) override
    {
      text.append(data, length);
      return static_cast<ssize_t>(length);
    }
    std::string text;
  };
  std::string doc = "[\"" + std::string(20000, 'q') + "\"]";
  Scripted_Server server({Reply::chunked(200, doc, 3000), Reply::json(200, "x", "text/plain")});
  JSON_HTTP_Session session(local_session(server.port()), 0, 0);
  HTTP_Request request(HTTP_Request::METHOD_POST, "/download");
  HTTP_Response response;
  HTTP_Connection_Ptr connection = session.get(request, response);
  ASSERT_TRUE(connection.get());
  EXPECT_EQ(HTTP_Request::METHOD_GET, request.method());
  EXPECT_EQ(200, response.status());
  String_Sink sink;
  ASSERT_TRUE(session.get(request, response, connection, sink));
  EXPECT_EQ(doc, sink.text);

  Log_Capture log;
  connection = session.get(request, response);
  String_Sink refused;
  EXPECT_FALSE(session.get(request, response, connection, refused));
  EXPECT_EQ("", refused.text);
  session.skip_content_type(true);
  connection = session.get(request, response);
  EXPECT_TRUE(session.get(request, response, connection, refused));
  EXPECT_EQ("x", refused.text);
}

TEST(Form_Post, EncodesPairsInNameOrder)
{
  Scripted_Server server({Reply::json(200, "{}")});
  HTTP_Session_Ptr session = local_session(server.port());
  std::map<std::string, std::string> form = {{"b", "x y"}, {"a", "1"}, {"a b", ""}, {"", "lost"},
                                             {"path", "/p+q~r"}, {"u", "\xc3\xa9!*"}};
  HTTP_Request request(HTTP_Request::METHOD_POST, "/form");
  HTTP_Response response;
  ASSERT_TRUE(http_post_urlencoded_form(session, request, form, response, nullptr));
  HTTP_Request empty(HTTP_Request::METHOD_PUT, "/empty");
  Value out;
  ASSERT_TRUE(http_post_urlencoded_form(session, empty, {}, response, &out));
  EXPECT_EQ("{}", json_spirit::write_string(out));

  std::vector<Scripted_Request> seen = server.requests_copy();
  ASSERT_EQ(2u, seen.size());
  EXPECT_EQ("a=1&a+b=&b=x+y&path=%2fp%2bq~r&u=%c3%a9%21%2a", seen[0].body);
  EXPECT_EQ("application/x-www-form-urlencoded", seen[0].headers["content-type"]);
  EXPECT_EQ(std::to_string(seen[0].body.size()), seen[0].headers["content-length"]);
  EXPECT_EQ(0u, seen[0].headers.count("accept")) << "no result wanted";
  EXPECT_EQ("PUT", seen[1].method);
  EXPECT_EQ("", seen[1].body);
  EXPECT_EQ("0", seen[1].headers["content-length"]);
  EXPECT_EQ("application/json", seen[1].headers["accept"]);
}

TEST(Form_Post, OneAttemptAndNoStatusOrTypeTest)
{
  Scripted_Server server({Reply::json(500, "{\"e\":1}", "text/html"), Reply::json(204, ""), Reply::json(204, ""),
                          Reply::json(200, "nope"), Reply::cut(Reply::json(200, "{\"a\":1}"), 5)});
  HTTP_Session_Ptr session = local_session(server.port());
  HTTP_Request request(HTTP_Request::METHOD_POST, "/f");
  HTTP_Response response;
  Value out;
  Log_Capture log;
  EXPECT_TRUE(http_post_urlencoded_form(session, request, {{"a", "b"}}, response, &out));
  EXPECT_EQ(500, response.status());
  EXPECT_EQ("{\"e\":1}", json_spirit::write_string(out));
  EXPECT_TRUE(http_post_urlencoded_form(session, request, {}, response, nullptr));
  EXPECT_FALSE(http_post_urlencoded_form(session, request, {}, response, &out));
  EXPECT_TRUE(log.contains("Response from 'http://127.0.0.1:" + std::to_string(server.port()) + "/f' has no body."));
  EXPECT_FALSE(http_post_urlencoded_form(session, request, {}, response, &out));
  EXPECT_TRUE(log.contains("Failed to parse JSON response from 'http://127.0.0.1:"));
  EXPECT_FALSE(http_post_urlencoded_form(session, request, {}, response, &out));
  EXPECT_TRUE(log.contains("Failed to receive response from 'http://127.0.0.1:"));
  EXPECT_EQ(5, server.heads());

  HTTP_Session_Ptr nowhere = local_session(free_port());
  EXPECT_FALSE(http_post_urlencoded_form(nowhere, request, {}, response, &out));
  EXPECT_TRUE(log.contains("Failed to send request to 'http://127.0.0.1:"));
}
