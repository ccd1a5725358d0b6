#include "http_test_util.h"
#include "log_capture.h"

#include "tessel/http_uri_map.h"

#include <gtest/gtest.h>

#include <thread>

namespace
{
  // One exchange with no body; the body read through blocks of block_size.
  std::string fetch(const HTTP_Session_Ptr& session, const char* uri, HTTP_Response& response, size_t block_size = 4096,
                    int* pieces = nullptr)
  {
    HTTP_Request request(HTTP_Request::METHOD_GET, uri);
    HTTP_Connection_Ptr c = session->begin_request(request);
    if (!c.get() || c->read_response(response) == -1)
      return "<failed>";
    return read_all(*c, block_size, pieces);
  }

  std::string text_of(size_t n)
  {
    std::string s;
    for (size_t i = 0; i < n; ++i)
      s += static_cast<char>('a' + i % 26);
    return s;
  }
}

TEST(HTTP_Headers, NamesIgnoreCaseAndRefuseLineBreaks)
{
  HTTP_Headers h;
  EXPECT_EQ(0, h.put(HTTP_Headers::CONTENT_TYPE, "text/plain"));
  EXPECT_STREQ("text/plain", h.get("content-type"));
  EXPECT_EQ(0, h.put("X-A", "1", false));
  EXPECT_EQ(0, h.put("x-a", "2", false));
  EXPECT_STREQ("1", h.get("X-A"));
  EXPECT_STREQ("2", h.get("X-A", false));
  EXPECT_EQ(0, h.put("X-A", "3"));
  EXPECT_STREQ("3", h.get("x-a", false));
  EXPECT_EQ(2u, h.size());
  EXPECT_EQ(0, h.put(HTTP_Headers::CONTENT_TYPE, nullptr));
  EXPECT_EQ(nullptr, h.get(HTTP_Headers::CONTENT_TYPE));
  EXPECT_EQ(-1, h.put("X-B", "a\r\nInjected: yes"));
  EXPECT_EQ(-1, h.put("Bad Name", "v"));
  EXPECT_EQ(-1, h.put(99, "v"));
  EXPECT_STREQ("Transfer-Encoding", HTTP_Headers::name(40));
  EXPECT_STREQ("Connection", HTTP_Headers::name(8));
}

TEST(HTTP_Headers, KeepAliveChunkedAndValueMatching)
{
  HTTP_Request r(HTTP_Request::METHOD_POST, "/x");
  r.content_length(12345678901ull);
  EXPECT_EQ(12345678901ull, r.content_length());
  EXPECT_TRUE(r.keep_alive());
  r.keep_alive(false);
  EXPECT_FALSE(r.keep_alive());
  r.headers().put(HTTP_Headers::CONNECTION, "Upgrade");
  EXPECT_FALSE(r.keep_alive());
  r.chunked(true);
  EXPECT_TRUE(r.chunked());
  r.chunked(false);
  EXPECT_EQ(nullptr, r.headers().get(HTTP_Headers::TRANSFER_ENCODING));
  HTTP_Response response;
  response.minor_version(0);
  EXPECT_FALSE(response.keep_alive());
  response.headers().put(HTTP_Headers::CONNECTION, "keep-alive, Upgrade");
  EXPECT_TRUE(response.keep_alive());
  response.reset();
  EXPECT_EQ(1, response.minor_version());
  EXPECT_EQ(0u, response.headers().size());

  EXPECT_TRUE(http_header_value_match("application/json; charset=utf-8", "application/json", ';'));
  EXPECT_TRUE(http_header_value_match("Keep-Alive, Upgrade", "upgrade", ','));
  EXPECT_FALSE(http_header_value_match("application/jsonx", "application/json", ';'));
  EXPECT_FALSE(http_header_value_match(nullptr, "close", ','));
}

TEST(HTTP_Client, ReadsEachFramingPieceByPieceOnOneKeptConnection)
{
  std::string body = "{\"text\":\"" + text_of(10000) + "\"}";
  Scripted_Server server({Reply::json(200, body), Reply::chunked(200, body, 777), Reply::close_delimited(200, body),
                          Reply::json(204, "")});
  HTTP_Session_Ptr session = local_session(server.port());
  for (int i = 0; i < 3; ++i)
  {
    HTTP_Response response;
    int pieces = 0;
    EXPECT_EQ(body, fetch(session, "/f", response, 1000, &pieces)) << "framing " << i;
    EXPECT_EQ(200, response.status());
    EXPECT_TRUE(response.has_body());
    EXPECT_GE(pieces, 11) << "framing " << i;
  }
  // Content-Length and chunked kept the connection; the body that ended with
  // the connection did not.
  EXPECT_EQ(1, server.connections());
  HTTP_Response response;
  EXPECT_EQ("", fetch(session, "/none", response));
  EXPECT_EQ(204, response.status());
  EXPECT_FALSE(response.has_body());
  EXPECT_EQ(2, server.connections());
  EXPECT_EQ(2ul, session->connections_opened());
  EXPECT_EQ(4, server.requests());
}

TEST(HTTP_Client, WritesChunksAsTheBodyComesAndChecksAFixedLength)
{
  Scripted_Server server({Reply::json(200, "{}")});
  HTTP_Session_Ptr session = local_session(server.port());
  std::string body = text_of(100000);
  {
    HTTP_Request request(HTTP_Request::METHOD_POST, "/chunked");
    request.chunked(true);
    request.content_length(5);  // chunked wins: the length must not go out
    HTTP_Connection_Ptr c = session->begin_form_request(request);
    ASSERT_TRUE(c.get());
    for (size_t at = 0; at < body.size(); at += 3001)
    {
      size_t n = std::min<size_t>(3001, body.size() - at);
      ASSERT_EQ(static_cast<ssize_t>(n), c->write(body.data() + at, n));
    }
    // Whole chunks went out before the end of the body.
    EXPECT_TRUE(eventually([&] { return server.body_bytes() > 0; }, 5));
    HTTP_Response response;
    ASSERT_EQ(0, c->read_response(response));
    EXPECT_EQ(HTTP_Connection::STATE_RESPONSE, c->state());
  }
  {
    HTTP_Request request(HTTP_Request::METHOD_PUT, "/fixed");
    request.content_length(10);
    HTTP_Connection_Ptr c = session->begin_request(request);
    ASSERT_TRUE(c.get());
    EXPECT_EQ(4, c->write("0123", 4));
    EXPECT_EQ(6, c->write("456789", 6));
    HTTP_Response response;
    EXPECT_EQ(0, c->read_response(response));
  }
  std::vector<Scripted_Request> seen = server.requests_copy();
  ASSERT_EQ(2u, seen.size());
  EXPECT_EQ("POST", seen[0].method);
  EXPECT_EQ("chunked", seen[0].headers["transfer-encoding"]);
  EXPECT_EQ(0u, seen[0].headers.count("content-length"));
  EXPECT_EQ(body, seen[0].body);
  EXPECT_EQ("10", seen[1].headers["content-length"]);
  EXPECT_EQ("0123456789", seen[1].body);
  EXPECT_EQ(1, server.connections());

  Log_Capture log;
  HTTP_Request request(HTTP_Request::METHOD_PUT, "/short");
  request.content_length(10);
  HTTP_Connection_Ptr c = session->begin_request(request);
  ASSERT_TRUE(c.get());
  EXPECT_EQ(3, c->write("abc", 3));
  HTTP_Response response;
  EXPECT_EQ(-1, c->read_response(response));
  EXPECT_EQ(EINVAL, c->error());
  EXPECT_TRUE(log.contains("7 bytes short of its Content-Length"));
  HTTP_Request get(HTTP_Request::METHOD_GET, "/nobody");
  HTTP_Connection_Ptr g = session->begin_request(get);
  EXPECT_EQ(-1, g->write("x", 1)) << "a GET has no body to write";
}

TEST(HTTP_Client, ConnectionsThatEndEarlyFailTheRead)
{
  std::string body = "{\"a\":\"" + text_of(5000) + "\"}";
  Reply whole = Reply::json(200, body);
  Reply chunked = Reply::chunked(200, body, 1000);
  Scripted_Server server({Reply::cut(whole, 20), Reply::cut(chunked, chunked.bytes.size() - 600),
                          Reply::cut(whole, whole.bytes.size() - 10), Reply{"HTTP/1.1 abc\r\n\r\n", true}});
  HTTP_Session_Ptr session = local_session(server.port());
  Log_Capture log;
  HTTP_Request request(HTTP_Request::METHOD_GET, "/");

  HTTP_Connection_Ptr c = session->begin_request(request);
  HTTP_Response response;
  EXPECT_EQ(-1, c->read_response(response)) << "dropped in the head";
  EXPECT_EQ(ECONNRESET, c->error());
  EXPECT_EQ(HTTP_Connection::STATE_CLOSED, c->state());

  for (const char* where : {"in a chunk", "in the body"})
  {
    c = session->begin_request(request);
    ASSERT_EQ(0, c->read_response(response)) << where;
    std::string got = read_all(*c, 4096);
    EXPECT_EQ(HTTP_Connection::STATE_CLOSED, c->state()) << where;
    EXPECT_EQ(ECONNRESET, c->error()) << where;
    EXPECT_LT(got.size(), body.size()) << where;
    EXPECT_EQ(body.substr(0, got.size()), got) << where;
  }

  c = session->begin_request(request);
  EXPECT_EQ(-1, c->read_response(response));
  EXPECT_EQ(EPROTO, c->error());
  EXPECT_TRUE(log.contains("Bad HTTP response head from http://127.0.0.1:"));
  c = HTTP_Connection_Ptr();
  EXPECT_EQ(0u, session->idle_connections()) << "no broken connection is kept";
}

TEST(HTTP_Client, ASlowServerRunsIntoTheReadLimit)
{
  Reply slow = Reply::json(200, "{}");
  slow.delay_ms = 2500;
  Scripted_Server server({slow});
  HTTP_Session_Ptr session = local_session(server.port(), 1);
  HTTP_Request request(HTTP_Request::METHOD_GET, "/slow");
  HTTP_Connection_Ptr c = session->begin_request(request);
  HTTP_Response response;
  EXPECT_EQ(-1, c->read_response(response));
  EXPECT_EQ(ETIME, c->error());
  EXPECT_EQ(1, server.heads());
}

TEST(HTTP_Client, RefusedConnectionsAndUnknownHosts)
{
  Log_Capture log;
  unsigned short port = free_port();
  HTTP_Session_Ptr session = local_session(port);
  ASSERT_TRUE(session.get());
  HTTP_Request request(HTTP_Request::METHOD_GET, "/");
  errno = 0;
  EXPECT_FALSE(session->begin_request(request).get());
  EXPECT_EQ(ECONNREFUSED, errno);
  EXPECT_TRUE(log.contains("Failed to connect to http://127.0.0.1:"));
  EXPECT_FALSE(HTTP_Session_Factory::create("no-such-host.invalid", 80, false).get());
  EXPECT_FALSE(HTTP_Session_Factory::create("", 80, false).get());
}

TEST(HTTP_Client, SessionHeadersAndCookiesGoWithLaterRequests)
{
  auto set = [](const std::string& cookie) {
    Reply r = Reply::json(200, "{}");
    r.bytes.insert(r.bytes.find("\r\n") + 2, "Set-Cookie: " + cookie + "\r\n");
    return r;
  };
  Scripted_Server server({set("sid=1; Path=/"), set("deep=2; Path=/api/v1"), set("other=3; Domain=example.com"),
                          set("secure=4; Secure"), set("sid=; Path=/; Max-Age=0"), Reply::json(200, "{}")});
  HTTP_Session_Ptr session = local_session(server.port());
  session->headers().put("X-Session", "s");
  session->headers().put(HTTP_Headers::ACCEPT, "application/json");
  HTTP_Response response;
  for (const char* uri : {"/login", "/api/v1/x", "/a", "/b", "/api/v1/items?q=1", "/api/v1/y"})
  {
    HTTP_Request request(HTTP_Request::METHOD_GET, uri);
    if (std::string(uri) == "/a")
      request.headers().put(HTTP_Headers::ACCEPT, "text/plain");
    HTTP_Connection_Ptr c = session->begin_request(request);
    ASSERT_TRUE(c.get());
    ASSERT_EQ(0, c->read_response(response));
  }
  std::vector<Scripted_Request> seen = server.requests_copy();
  ASSERT_EQ(6u, seen.size());
  EXPECT_EQ(0u, seen[0].headers.count("cookie"));
  EXPECT_EQ("s", seen[0].headers["x-session"]);
  EXPECT_EQ("application/json", seen[0].headers["accept"]);
  EXPECT_EQ("text/plain", seen[2].headers["accept"]) << "the request's own field wins";
  EXPECT_EQ("sid=1", seen[1].headers["cookie"]) << "deep=2 came with this response";
  EXPECT_EQ("sid=1", seen[2].headers["cookie"]) << "no other domain, and /a is outside /api/v1";
  EXPECT_EQ("deep=2; sid=1", seen[4].headers["cookie"]) << "longer path first; no Secure over plain HTTP";
  EXPECT_EQ("deep=2", seen[5].headers["cookie"]) << "Max-Age=0 dropped sid";
  EXPECT_EQ(1u, session->cookie_count());
  session->clear_cookie();
  EXPECT_EQ(0u, session->cookie_count());
}

TEST(HTTP_Client, TLSKeepsOneConnectionAndChecksTheCertificate)
{
  Nginx_Peer nginx;
  nginx.serve("doc.json", "{\"tls\":true}");
  std::unique_ptr<ACE_SSL_Context> context(trusting(nginx.certificate()));
  HTTP_Session_Ptr session = tls_session(nginx.port(), context.get());
  ASSERT_TRUE(session.get());
  for (int i = 0; i < 5; ++i)
  {
    HTTP_Response response;
    EXPECT_EQ("{\"tls\":true}", fetch(session, "/doc.json", response));
    EXPECT_EQ(200, response.status());
    EXPECT_STREQ("application/json", response.content_type());
  }
  EXPECT_EQ(1ul, session->connections_opened());
  std::vector<std::string> log = nginx.access_log(5);
  ASSERT_EQ(5u, log.size());
  std::string connection = log[0].substr(0, log[0].find(' '));
  for (size_t i = 0; i < log.size(); ++i)
    EXPECT_EQ(connection + " " + std::to_string(i + 1) + " 200 GET /doc.json", log[i]);

  Log_Capture capture;
  HTTP_Request request(HTTP_Request::METHOD_GET, "/doc.json");
  HTTP_Session_Ptr untrusting = HTTP_Session_Factory::create("127.0.0.1", nginx.port(), true, nullptr, 3, nullptr,
                                                             false, 10, 10, 0, 0);
  ASSERT_TRUE(untrusting.get());
  EXPECT_FALSE(untrusting->begin_request(request).get());
  EXPECT_TRUE(capture.contains("TLS handshake with 127.0.0.1 failed: self-signed certificate")) << capture.text();

  EXPECT_FALSE(tls_session(nginx.port(), context.get(), "example.com")->begin_request(request).get());
  HTTP_Response response;
  EXPECT_EQ("{\"tls\":true}", fetch(tls_session(nginx.port(), context.get(), "localhost"), "/doc.json", response));

  HTTP_Session_Ptr anyone = tls_session(nginx.port(), nullptr);
  EXPECT_EQ("{\"tls\":true}", fetch(anyone, "/doc.json", response));
  // A Secure cookie is kept over TLS.
  EXPECT_EQ("{\"ok\":true}", fetch(anyone, "/cookie", response));
  EXPECT_EQ(1u, anyone->cookie_count());
}

TEST(HTTP_Client, AConnectionTheServerClosedIsReplacedQuietly)
{
  Nginx_Peer nginx(0, 1);
  nginx.serve("a.json", "[1]");
  HTTP_Session_Ptr session = tls_session(nginx.port(), nullptr);
  HTTP_Response response;
  EXPECT_EQ("[1]", fetch(session, "/a.json", response));
  std::this_thread::sleep_for(std::chrono::milliseconds(2500));
  EXPECT_EQ("[1]", fetch(session, "/a.json", response));
  EXPECT_EQ(2ul, session->connections_opened());

  // The limits of the session close connections before the server does.
  HTTP_Session_Ptr counted = tls_session(nginx.port(), nullptr, nullptr, 2);
  for (int i = 0; i < 5; ++i)
    EXPECT_EQ("[1]", fetch(counted, "/a.json", response));
  EXPECT_EQ(3ul, counted->connections_opened());
}

TEST(HTTP_Client, RedirectAndFileMapsSendURIsElsewhere)
{
  Scripted_Server first({Reply::json(200, "{\"from\":1}")});
  Scripted_Server second({Reply::json(200, "{\"from\":2}")});
  Temp_Dir dir;
  dir.write("local.json", "{\"from\":\"file\"}");
  HTTP_Redirect_URI_Map* redirects = HTTP_Redirect_URI_Map::instance();
  HTTP_File_URI_Map* files = HTTP_File_URI_Map::instance();
  redirects->bind("/old", "/new?x=1");
  redirects->bind("/away", "http://127.0.0.1:" + std::to_string(second.port()) + "/there");
  redirects->bind("/bad", "ftp://x/");
  files->bind("/local", dir.file("local.json"));
  files->bind("/missing", dir.file("none.json"));

  HTTP_Session_Ptr session = local_session(first.port());
  HTTP_Response response;
  EXPECT_EQ("{\"from\":1}", fetch(session, "/old", response));
  EXPECT_EQ("{\"from\":2}", fetch(session, "/away", response));
  EXPECT_EQ("{\"from\":\"file\"}", fetch(session, "/local", response));
  EXPECT_STREQ("application/json", response.content_type());
  Log_Capture log;
  EXPECT_EQ("", fetch(session, "/missing", response));
  EXPECT_EQ(404, response.status());
  HTTP_Request bad(HTTP_Request::METHOD_GET, "/bad");
  EXPECT_FALSE(session->begin_request(bad).get());
  EXPECT_TRUE(log.contains("The redirect of HTTP URI /bad to 'ftp://x/' is no URL."));
  // A form always reaches a server.
  HTTP_Request form(HTTP_Request::METHOD_POST, "/local");
  form.content_length(0);
  HTTP_Connection_Ptr c = session->begin_form_request(form);
  ASSERT_TRUE(c.get());
  ASSERT_EQ(0, c->read_response(response));
  EXPECT_EQ("{\"from\":1}", read_all(*c, 4096));

  for (const char* uri : {"/old", "/away", "/bad"})
    redirects->unbind(uri);
  files->unbind("/local");
  files->unbind("/missing");
  std::vector<Scripted_Request> seen = first.requests_copy();
  ASSERT_EQ(2u, seen.size());
  EXPECT_EQ("/new?x=1", seen[0].target);
  EXPECT_EQ("/local", seen[1].target);
  ASSERT_EQ(1, second.requests());
  EXPECT_EQ("/there", second.requests_copy()[0].target);
}
