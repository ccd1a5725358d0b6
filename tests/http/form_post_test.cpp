#include "http_test_util.h"
#include "log_capture.h"
#include "peers.h"
#include "scripted_server.h"

#include "json_rpc/json_form_post.h"
#include "json_spirit/json_spirit_reader.h"
#include "json_spirit/json_spirit_writer.h"

#include <gtest/gtest.h>

using json_spirit::Value;

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
