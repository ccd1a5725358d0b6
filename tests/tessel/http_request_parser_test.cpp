// The request parser fed in memory: the same heads, body bytes and ends
// wherever the input is cut, and the right status for each refusal.

#include "tessel/http_request_parser.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace
{
  using Options = HTTP_Request_Parser::Options;

  // What came out, as lines; body pieces in a row are joined, since where
  // they break depends on the cuts.
  struct Recorder : HTTP_Request_Parser::Handler
  {
    std::vector<std::string> events;
    bool pause = false;

    void on_head(const HTTP_Request_Head& head) override
    {
      const HTTP_Request& r = head.request;
      std::string e = "head " + head.method + "(" + std::to_string(r.method()) + ") " + r.uri() + " 1." +
                      std::to_string(r.minor_version()) + (head.keep_alive ? " keep-alive" : " close");
      if (head.expect_continue)
        e += " continue";
      if (head.chunked)
        e += " chunked";
      if (head.has_content_length)
        e += " length=" + std::to_string(head.content_length);
      for (size_t i = 0; i < r.headers().size(); ++i)
        e += std::string(" | ") + r.headers().name_at(i) + ": " + r.headers().value_at(i);
      events.push_back(e);
    }

    void on_body(char const* data, size_t length) override
    {
      if (events.empty() || events.back().compare(0, 5, "body ") != 0)
        events.push_back("body ");
      events.back().append(data, length);
    }

    bool on_end(const HTTP_Headers& trailers) override
    {
      std::string e = "end";
      for (size_t i = 0; i < trailers.size(); ++i)
        e += std::string(" | ") + trailers.name_at(i) + ": " + trailers.value_at(i);
      events.push_back(e);
      return !pause;
    }
  };

  struct Outcome
  {
    std::vector<std::string> events;
    int result = HTTP_Request_Parser::PARSE_MORE;
    size_t left = 0;  // bytes after the last message, with PARSE_LAST
    int status = 0;
    std::string reason;
    bool idle = false;

    bool operator==(const Outcome& o) const
    {
      return events == o.events && result == o.result && left == o.left && status == o.status &&
             reason == o.reason && idle == o.idle;
    }
  };

  std::ostream& operator<<(std::ostream& out, const Outcome& o)
  {
    out << "result " << o.result << ", left " << o.left << ", status " << o.status << " " << o.reason
        << (o.idle ? ", idle" : "");
    for (const std::string& e : o.events)
      out << "\n  " << e;
    return out;
  }

  // Feeds input in the pieces that cuts mark. With pause, the handler stops
  // feed after each message, and the rest of the piece goes in again.
  Outcome feed(const std::string& input, const std::vector<size_t>& cuts, bool pause,
               const Options& options = Options())
  {
    HTTP_Request_Parser parser(options);
    Recorder recorder;
    recorder.pause = pause;
    Outcome out;
    size_t from = 0;
    for (size_t k = 0; k <= cuts.size(); ++k)
    {
      size_t to = k < cuts.size() ? cuts[k] : input.size();
      for (size_t at = from, rounds = 0; rounds < input.size() + 2; ++rounds)
      {
        size_t consumed = 0;
        out.result = parser.feed(input.data() + at, to - at, recorder, consumed);
        if (consumed > to - at)
          ADD_FAILURE() << "consumed " << consumed << " of " << to - at;
        at += consumed;
        if (out.result == HTTP_Request_Parser::PARSE_PAUSED)
        {
          recorder.events.push_back("paused at " + std::to_string(at) + (parser.idle() ? "" : " not idle"));
          continue;
        }
        if (out.result == HTTP_Request_Parser::PARSE_MORE && at != to)
          ADD_FAILURE() << "more wanted with " << to - at << " bytes not taken";
        if (out.result == HTTP_Request_Parser::PARSE_LAST)
          out.left = input.size() - at;
        break;
      }
      if (out.result == HTTP_Request_Parser::PARSE_LAST || out.result == HTTP_Request_Parser::PARSE_ERROR)
        break;
      from = to;
    }
    out.events = recorder.events;
    out.status = parser.status();
    out.reason = parser.reason();
    out.idle = parser.idle();
    return out;
  }

  // Whole, cut once at every place, and byte by byte, with and without
  // pauses: all give what the whole input gives.
  Outcome expect_same_at_every_cut(const std::string& input, const Options& options = Options())
  {
    Outcome whole = feed(input, {}, false, options);
    for (bool pause : {false, true})
    {
      Outcome want = feed(input, {}, pause, options);
      if (!pause)
      {
        EXPECT_EQ(whole, want);
      }
      for (size_t cut = 0; cut <= input.size(); ++cut)
      {
        Outcome got = feed(input, {cut}, pause, options);
        if (!(got == want))
        {
          ADD_FAILURE() << "cut at " << cut << (pause ? " with pauses" : "") << ": " << got << "\nwanted "
                        << want;
          break;
        }
      }
      std::vector<size_t> bytes;
      for (size_t i = 1; i < input.size(); ++i)
        bytes.push_back(i);
      EXPECT_EQ(want, feed(input, bytes, pause, options)) << "byte by byte" << (pause ? " with pauses" : "");
    }
    return whole;
  }

  Outcome more(std::vector<std::string> events)
  {
    Outcome o;
    o.events = std::move(events);
    o.idle = true;
    return o;
  }

  Outcome last(std::vector<std::string> events, size_t left = 0)
  {
    Outcome o = more(std::move(events));
    o.result = HTTP_Request_Parser::PARSE_LAST;
    o.left = left;
    return o;
  }

  char const get_request[] = "GET /status?x=1 HTTP/1.1\r\nHost: a.test\r\nUser-Agent: t/1\r\n\r\n";
  char const get_head[] = "head GET(3) /status?x=1 1.1 keep-alive | Host: a.test | User-Agent: t/1";

  char const post_request[] = "POST /rpc HTTP/1.1\r\nHost: a.test\r\nContent-Type: application/json\r\n"
                              "Content-Length: 17\r\n\r\n{\"jsonrpc\":\"2.0\"}";
  char const post_head[] = "head POST(8) /rpc 1.1 keep-alive length=17 | Host: a.test | Content-Type: "
                           "application/json | Content-Length: 17";

  char const chunked_request[] = "PUT /up HTTP/1.1\r\nHost: a.test\r\nTransfer-Encoding: chunked\r\n"
                                 "Trailer: X-Sum\r\n\r\n"
                                 "5;name=value\r\nhello\r\n"
                                 "7;a;b=\"q; x\"\r\n, world\r\n"
                                 "A\r\n\r\n01234567\r\n"
                                 "0;end\r\nX-Sum: 12\r\nX-More: yes\r\n\r\n";
  char const chunked_head[] = "head PUT(9) /up 1.1 keep-alive chunked | Host: a.test | Transfer-Encoding: chunked | "
                              "Trailer: X-Sum";
}

TEST(HTTP_Request_Parser, SingleRequestsReadTheSameAtEveryCut)
{
  EXPECT_EQ(more({get_head, "end"}), expect_same_at_every_cut(get_request));
  EXPECT_EQ(more({post_head, "body {\"jsonrpc\":\"2.0\"}", "end"}), expect_same_at_every_cut(post_request));
  EXPECT_EQ(more({chunked_head, "body hello, world\r\n01234567", "end | X-Sum: 12 | X-More: yes"}),
            expect_same_at_every_cut(chunked_request));

  // The client waits for a 100 before its body; the body still reads.
  EXPECT_EQ(more({"head POST(8) /rpc 1.1 keep-alive continue length=2 | Expect: 100-Continue | "
                  "Content-Length: 2",
                  "body {}", "end"}),
            expect_same_at_every_cut("POST /rpc HTTP/1.1\r\nExpect: 100-Continue\r\nContent-Length: 2\r\n\r\n{}"));

  // HTTP/1.0 ends the connection unless it asks otherwise, and knows no 100.
  EXPECT_EQ(last({"head POST(8) /old 1.0 close length=3 | Expect: 100-continue | Content-Length: 3", "body abc",
                  "end"}),
            expect_same_at_every_cut("POST /old HTTP/1.0\r\nExpect: 100-continue\r\nContent-Length: 3\r\n\r\nabc"));

  // A method outside the table keeps its name.
  EXPECT_EQ(more({"head PROPFIND(-1) * 1.1 keep-alive | Depth: 0", "end"}),
            expect_same_at_every_cut("PROPFIND * HTTP/1.1\r\nDepth: 0\r\n\r\n"));
}

TEST(HTTP_Request_Parser, PipelinedRequestsReadTheSameAtEveryCut)
{
  std::string three = std::string(get_request) + post_request + chunked_request;
  Outcome got = expect_same_at_every_cut(three);
  EXPECT_EQ(more({get_head, "end", post_head, "body {\"jsonrpc\":\"2.0\"}", "end", chunked_head,
                  "body hello, world\r\n01234567", "end | X-Sum: 12 | X-More: yes"}),
            got);

  // Pauses fall exactly between the messages.
  std::vector<std::string> paused = feed(three, {}, true).events;
  EXPECT_EQ("paused at " + std::to_string(sizeof get_request - 1), paused.at(2));
  EXPECT_EQ("paused at " + std::to_string(sizeof get_request - 1 + sizeof post_request - 1), paused.at(6));

  // Connection: close makes the second the last; the third stays unread.
  std::string closing = std::string(get_request) +
                        "POST /bye HTTP/1.1\r\nConnection: close\r\nContent-Length: 1\r\n\r\nx" + post_request;
  EXPECT_EQ(last({get_head, "end", "head POST(8) /bye 1.1 close length=1 | Connection: close | Content-Length: 1",
                  "body x", "end"},
                 sizeof post_request - 1),
            expect_same_at_every_cut(closing));

  // An HTTP/1.0 keep-alive goes on to the next, which closes.
  std::string old = "GET /a HTTP/1.0\r\nConnection: keep-alive\r\n\r\nGET /b HTTP/1.0\r\n\r\nGET /c HTTP/1.1\r\n\r\n";
  EXPECT_EQ(last({"head GET(3) /a 1.0 keep-alive | Connection: keep-alive", "end", "head GET(3) /b 1.0 close", "end"},
                 19),
            expect_same_at_every_cut(old));
}

TEST(HTTP_Request_Parser, RefusalsGiveTheirStatusAtEveryCut)
{
  struct Case
  {
    char const* what;
    std::string input;
    Options options;
    int status;
    std::vector<std::string> before;  // what came out before the refusal
  };
  Options small_head;
  small_head.header_limit = 64;
  Options few_fields;
  few_fields.field_limit = 2;
  Options small_body;
  small_body.body_limit = 10;
  std::string head_66 = "GET / HTTP/1.1\r\nX-Long: " + std::string(38, 'v') + "\r\n\r\n";
  std::string chunked_start = "POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n";
  std::string chunked_head_line = "head POST(8) / 1.1 keep-alive chunked | Transfer-Encoding: chunked";

  const Case cases[] = {
    {"head over the limit", head_66, small_head, 431, {}},
    {"head over the limit, after a request", get_request + head_66, small_head, 431, {get_head, "end"}},
    {"too many fields", "GET / HTTP/1.1\r\nA: 1\r\nB: 2\r\nC: 3\r\n\r\n", few_fields, 431, {}},
    {"too many trailer fields", chunked_start + "0\r\nA: 1\r\nB: 2\r\nC: 3\r\n\r\n", few_fields, 431,
     {chunked_head_line}},
    {"trailer over the limit", chunked_start + "1\r\nx\r\n0\r\nX-T: " + std::string(80, 't') + "\r\n\r\n",
     small_head, 431, {chunked_head_line, "body x"}},
    {"chunk line over the limit", chunked_start + "1;" + std::string(80, 'e') + "\r\nx\r\n0\r\n\r\n", small_head,
     431, {chunked_head_line}},
    {"Content-Length over the body limit", "POST / HTTP/1.1\r\nContent-Length: 11\r\n\r\n01234567890", small_body,
     413, {}},
    {"chunks over the body limit", chunked_start + "5\r\nhello\r\n6\r\n world\r\n0\r\n\r\n", small_body, 413,
     {chunked_head_line, "body hello"}},
    {"bad chunk size", chunked_start + "5\r\nhello\r\nzz\r\n", Options(), 400, {chunked_head_line, "body hello"}},
    {"chunk data without its CRLF", chunked_start + "1\r\nxy\r\n0\r\n\r\n", Options(), 400,
     {chunked_head_line, "body x"}},
    {"HTTP/2.0", "GET / HTTP/2.0\r\n\r\n", Options(), 505, {}},
    {"HTTP/1.2", "GET / HTTP/1.2\r\nHost: a\r\n\r\n", Options(), 505, {}},
    {"a version badly written", "GET / HTTP/1.x\r\n\r\n", Options(), 400, {}},
    {"no version", "GET /\r\n\r\n", Options(), 400, {}},
    {"a field without colon", "GET / HTTP/1.1\r\nHost a.test\r\n\r\n", Options(), 400, {}},
    {"two Content-Lengths", "POST / HTTP/1.1\r\nContent-Length: 3\r\nContent-Length: 4\r\n\r\nabcd", Options(),
     400, {}},
    {"a Content-Length list that disagrees", "POST / HTTP/1.1\r\nContent-Length: 3, 4\r\n\r\nabcd", Options(), 400,
     {}},
    {"Content-Length then chunked",
     "POST / HTTP/1.1\r\nContent-Length: 3\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n0\r\n\r\n", Options(),
     400, {}},
    {"chunked then Content-Length",
     "POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\nContent-Length: 3\r\n\r\n3\r\nabc\r\n0\r\n\r\n", Options(),
     400, {}},
    {"a coding before chunked", "POST / HTTP/1.1\r\nTransfer-Encoding: gzip, chunked\r\n\r\n0\r\n\r\n", Options(),
     501, {}},
    {"a coding in a field of its own",
     "POST / HTTP/1.1\r\nTransfer-Encoding: gzip\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n", Options(), 501,
     {}},
    {"a coding that is not chunked last", "POST / HTTP/1.1\r\nTransfer-Encoding: gzip\r\n\r\nabc", Options(), 400,
     {}},
    {"chunked twice", "POST / HTTP/1.1\r\nTransfer-Encoding: chunked, chunked\r\n\r\n0\r\n\r\n", Options(), 400,
     {}},
    {"bytes that are no request", std::string("\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03", 11) + "\r\n\r\n",
     Options(), 400, {}},
  };
  for (const Case& c : cases)
  {
    SCOPED_TRACE(c.what);
    Outcome got = expect_same_at_every_cut(c.input, c.options);
    EXPECT_EQ(HTTP_Request_Parser::PARSE_ERROR, got.result);
    EXPECT_EQ(c.status, got.status);
    EXPECT_NE("", got.reason);
    EXPECT_EQ(c.before, got.events);
  }
}

TEST(HTTP_Request_Parser, LimitsAdmitWhatIsJustWithin)
{
  Options o;
  o.header_limit = 66;
  o.field_limit = 2;
  o.body_limit = 10;
  std::string head_66 = "GET / HTTP/1.1\r\nX-Long: " + std::string(38, 'v') + "\r\n\r\n";
  ASSERT_EQ(66u, head_66.size());
  EXPECT_EQ(2u, expect_same_at_every_cut(head_66, o).events.size());
  EXPECT_EQ(more({"head POST(8) / 1.1 keep-alive length=10 | A: 1 | Content-Length: 10", "body 0123456789", "end"}),
            expect_same_at_every_cut("POST / HTTP/1.1\r\nA: 1\r\nContent-Length: 10\r\n\r\n0123456789", o));
  // The body limit is on all the chunks together; trailers have a field limit of their own.
  EXPECT_EQ(more({"head POST(8) / 1.1 keep-alive chunked | Transfer-Encoding: chunked", "body helloworld",
                  "end | A: 1 | B: 2"}),
            expect_same_at_every_cut(
              "POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n5\r\nworld\r\n0\r\nA: 1\r\nB: 2\r\n\r\n",
              o));
  // The same length twice is one length.
  EXPECT_EQ(more({"head POST(8) / 1.1 keep-alive length=3 | Content-Length: 3 | Content-Length: 3", "body abc",
                  "end"}),
            feed("POST / HTTP/1.1\r\nContent-Length: 3\r\nContent-Length: 3\r\n\r\nabc", {}, false));
}

TEST(HTTP_Request_Parser, StreamsABodyOfAnySizeWithoutALimit)
{
  // Beast's own limit for a request body is 1 MB.
  const size_t size = 3 * 1024 * 1024 + 7;
  std::string input = "POST /big HTTP/1.1\r\nContent-Length: " + std::to_string(size) + "\r\n\r\n";
  for (size_t i = 0; i < size; ++i)
    input += static_cast<char>('a' + i % 26);
  input += "GET /next HTTP/1.1\r\n\r\n";

  struct Counter : HTTP_Request_Parser::Handler
  {
    size_t bytes = 0, wrong = 0, ends = 0;
    void on_head(const HTTP_Request_Head&) override {}
    void on_body(char const* data, size_t length) override
    {
      for (size_t i = 0; i < length; ++i)
        wrong += data[i] != static_cast<char>('a' + (bytes + i) % 26);
      bytes += length;
    }
    bool on_end(const HTTP_Headers&) override { return ++ends, true; }
  } counter;
  HTTP_Request_Parser parser;
  for (size_t at = 0; at < input.size();)
  {
    size_t n = std::min<size_t>(65536, input.size() - at), consumed = 0;
    ASSERT_EQ(HTTP_Request_Parser::PARSE_MORE, parser.feed(input.data() + at, n, counter, consumed));
    ASSERT_EQ(n, consumed);
    at += n;
  }
  EXPECT_EQ(size, counter.bytes);
  EXPECT_EQ(0u, counter.wrong);
  EXPECT_EQ(2u, counter.ends);
  EXPECT_TRUE(parser.idle());
}

TEST(HTTP_Request_Parser, TakesNothingAfterARefusalOrTheLastMessageUntilReset)
{
  Recorder recorder;
  HTTP_Request_Parser parser;
  size_t consumed = 99;
  EXPECT_TRUE(parser.idle());
  EXPECT_EQ(HTTP_Request_Parser::PARSE_MORE, parser.feed("GET / HT", 8, recorder, consumed));
  EXPECT_EQ(8u, consumed);
  EXPECT_FALSE(parser.idle());  // a close here cuts a request
  EXPECT_EQ(HTTP_Request_Parser::PARSE_ERROR, parser.feed("TP/1.1\r\nbad\r\n\r\n", 15, recorder, consumed));
  EXPECT_EQ(400, parser.status());
  EXPECT_EQ(HTTP_Request_Parser::PARSE_ERROR, parser.feed(get_request, 10, recorder, consumed));
  EXPECT_EQ(0u, consumed);
  EXPECT_TRUE(recorder.events.empty());

  parser.reset();
  EXPECT_EQ(0, parser.status());
  EXPECT_STREQ("", parser.reason());
  std::string closing = "GET / HTTP/1.1\r\nConnection: close\r\n\r\n";
  EXPECT_EQ(HTTP_Request_Parser::PARSE_LAST, parser.feed(closing.data(), closing.size(), recorder, consumed));
  EXPECT_EQ(closing.size(), consumed);
  EXPECT_EQ(HTTP_Request_Parser::PARSE_LAST, parser.feed(get_request, 10, recorder, consumed));
  EXPECT_EQ(0u, consumed);
  EXPECT_EQ(2u, recorder.events.size());

  parser.reset();
  EXPECT_EQ(HTTP_Request_Parser::PARSE_MORE, parser.feed(get_request, sizeof get_request - 1, recorder, consumed));
  EXPECT_EQ(4u, recorder.events.size());
  EXPECT_TRUE(parser.idle());
}
