// What goes over the wire: both framings, fed in every cut, and bad input.
#include "tcp_test_support.h"
#include "../json_rpc/rpc_test_util.h"
#include "json_rpc/json_rpc_params_filter.h"
#include "transport/tcp_framing.h"

#include <gtest/gtest.h>

#include <unistd.h>

using namespace tcp_test;

namespace
{
  const std::string parse_error = "{\"jsonrpc\":\"2.0\",\"id\":null,\"error\":{\"code\":-32700,\"message\":\"Parse error\"}}";

  std::string request(int id, const std::string& params = "[1]")
  {
    return "{\"jsonrpc\":\"2.0\",\"id\":" + std::to_string(id) + ",\"method\":\"echo\",\"params\":" + params + "}";
  }

  std::string response(int id, const std::string& result = "[1]")
  {
    return "{\"jsonrpc\":\"2.0\",\"id\":" + std::to_string(id) + ",\"result\":" + result + "}";
  }

  class Wire : public ::testing::Test
  {
  protected:
    void start(TCP_Options::Framing framing)
    {
      options.framing = framing;
      options.max_message_size = 1024 * 1024;
      ASSERT_EQ(0, server.open(loopback(0), options));
    }

    // A client of the library, to show that one connection's trouble leaves
    // the others alone.
    void bystander()
    {
      TCP_Options client;
      client.framing = options.framing;
      EXPECT_EQ(0, TCP_Connector::connect(channel, loopback(server.port()), client));
    }

    bool bystander_answers() { return echo_over(channel, 3) == json_spirit::Value(3); }

    void TearDown() override
    {
      if (!channel.null())
        close(channel);
      server.close();
    }

    Log_Capture log;
    TCP_Options options;
    TCP_Acceptor server;
    JSON_RPC_Channel_Strong_Ptr channel;
  };

  TEST_F(Wire, ContentLengthMessagesInAnyCut)
  {
    start(TCP_Options::FRAMING_CONTENT_LENGTH);
    Socket_Client peer(server.port());
    // Header names in any case, a Content-Type, spaces around the value.
    ASSERT_TRUE(peer.send("content-LENGTH:  " + std::to_string(request(1).size()) +
                          " \r\nContent-Type: application/vscode-jsonrpc; charset=utf-8\r\n\r\n" + request(1)));
    // One byte at a time.
    std::string framed = content_length_frame(request(2, "{\"s\":\"\\u00e9\\n\"}"));
    for (char c : framed)
      ASSERT_TRUE(peer.send(std::string(1, c)));
    // Several messages in one piece, one with nothing to dispatch.
    ASSERT_TRUE(peer.send(content_length_frame(request(3)) + content_length_frame("{\"id\":1}") +
                          content_length_frame(request(4))));
    ASSERT_TRUE(peer.read_until(response(4)));
    // The length counts bytes: the answer carries the character as UTF-8.
    EXPECT_EQ(content_length_frame(response(1)) + content_length_frame(response(2, "{\"s\":\"\xC3\xA9\\n\"}")) +
                content_length_frame(response(3)) + content_length_frame(response(4)),
              peer.in.substr(0, peer.in.find(response(4)) + response(4).size()));
    EXPECT_TRUE(log.contains("message with nothing to dispatch ignored."));
  }

  TEST_F(Wire, NewlineDelimitedMessagesInAnyCut)
  {
    start(TCP_Options::FRAMING_NDJSON);
    Socket_Client peer(server.port());
    ASSERT_TRUE(peer.send("\n\r\n  " + request(1) + "\r\n" + request(2) + "\n{\"id\":1}\n"));
    for (char c : request(3) + "\n")
      ASSERT_TRUE(peer.send(std::string(1, c)));
    ASSERT_TRUE(peer.read_until(response(3)));
    EXPECT_EQ(response(1) + "\n" + response(2) + "\n" + response(3) + "\n", peer.in);
    EXPECT_TRUE(log.contains("message with nothing to dispatch ignored."));
    // A refused line is answered, and the connection reads on.
    peer.in.clear();
    ASSERT_TRUE(peer.send("[1]\n" + request(4) + "\n"));
    ASSERT_TRUE(peer.read_until(response(4)));
    EXPECT_EQ("{\"jsonrpc\":\"2.0\",\"id\":null,\"error\":{\"code\":-32600,\"message\":\"Invalid Request\"}}\n" +
                response(4) + "\n",
              peer.in);
  }

  struct Bad_Input
  {
    TCP_Options::Framing framing;
    std::string bytes;
    std::string logged;
  };

  TEST_F(Wire, BrokenFramingIsAnsweredWithParseErrorAndClosesOnlyThatConnection)
  {
    const std::string too_big = request(1, "[\"" + std::string(1024 * 1024, 'b') + "\"]");
    const Bad_Input cases[] = {
      {TCP_Options::FRAMING_CONTENT_LENGTH, "X-Pad: " + std::string(9000, 'a'), "header larger than 8192 bytes"},
      {TCP_Options::FRAMING_CONTENT_LENGTH, "Content-Length: 1x\r\n\r\n{}", "bad Content-Length \"1x\""},
      {TCP_Options::FRAMING_CONTENT_LENGTH, "Content-Length: -2\r\n\r\n{}", "bad Content-Length \"-2\""},
      {TCP_Options::FRAMING_CONTENT_LENGTH, "Content-Length: 99999999999999999999\r\n\r\n", "bad Content-Length"},
      {TCP_Options::FRAMING_CONTENT_LENGTH, "Content-Length:\r\n\r\n", "bad Content-Length \"\""},
      {TCP_Options::FRAMING_CONTENT_LENGTH, "Content-Type: a/b\r\n\r\n{}", "no Content-Length header"},
      {TCP_Options::FRAMING_CONTENT_LENGTH, "Content-Length: 2\r\nContent-Length: 3\r\n\r\n", "conflicting"},
      {TCP_Options::FRAMING_CONTENT_LENGTH, request(1) + "\r\n", "malformed header line"},
      {TCP_Options::FRAMING_CONTENT_LENGTH, content_length_frame(too_big), "exceeds the limit of 1048576"},
      {TCP_Options::FRAMING_NDJSON, too_big + "\n", "exceeds the limit of 1048576"},
    };
    TCP_Options::Framing framing = TCP_Options::FRAMING_CONTENT_LENGTH;
    auto frame = [&](const std::string& body) {
      return framing == TCP_Options::FRAMING_NDJSON ? body + "\n" : content_length_frame(body);
    };
    start(framing);
    bystander();
    for (const Bad_Input& bad : cases)
    {
      SCOPED_TRACE(bad.bytes.substr(0, 60));
      if (bad.framing != framing)
      {
        close(channel);
        server.close();
        start(framing = bad.framing);
        bystander();
      }
      log.clear();
      {
        Socket_Client peer(server.port());
        // A good message first: it is answered before the bad one is seen.
        ASSERT_TRUE(peer.send(frame(request(7))));
        ASSERT_TRUE(peer.send(bad.bytes));
        ASSERT_TRUE(peer.read_to_eof());
        EXPECT_EQ(frame(response(7)) + frame(parse_error), peer.in);
      }
      EXPECT_TRUE(log.contains(bad.logged)) << log.text();
      EXPECT_TRUE(log.contains("closing the connection."));
      EXPECT_TRUE(bystander_answers());
      ASSERT_TRUE(eventually([&] { return server.connections().size() == 1; }));
    }
  }

  TEST_F(Wire, PeerThatStopsReadingLosesTheConnectionAfterTheSendLimit)
  {
    // Writers never wait for it: what it does not take stays queued, and a
    // queue over its limit for longer than the send limit ends the
    // connection.
    // A listener that accepts nothing and reads nothing.
    unsigned short port = 0;
    int listener = loopback_listener(port, 1);
    ASSERT_NE(-1, listener);
    for (TCP_Options::Framing framing : {TCP_Options::FRAMING_NDJSON, TCP_Options::FRAMING_CONTENT_LENGTH})
    {
      TCP_Options client;
      client.framing = framing;
      client.send_limit = ACE_Time_Value(0, 200 * 1000);
      client.max_send_queue = 1024 * 1024;
      JSON_RPC_Channel_Strong_Ptr stuck;
      ASSERT_EQ(0, TCP_Connector::connect(stuck, loopback(port), client));
      // Far more than the socket buffers on both sides hold.
      JSON_RPC_Object_Ptr note = make_message("flood", json_spirit::Array{std::string(16 * 1024 * 1024, 'f')});
      EXPECT_EQ(0, stuck->send_object(note));
      EXPECT_GT(TCP_Channel::cast(stuck)->queued_bytes(), client.max_send_queue);
      ASSERT_TRUE(eventually([&] { return closed(stuck); }));
      EXPECT_TRUE(log.contains("unread for more than 200 ms; closing the connection"));
      EXPECT_EQ(-1, stuck->send_object(JSON_RPC_Session::make_rpc_request("echo", json_spirit::Value())));
      close(stuck);
      log.clear();
    }
    ::close(listener);
  }

  class Stall : public Wire, public ::testing::WithParamInterface<TCP_Options::Framing>
  {
  };

  TEST_P(Stall, StalledPeerIsClosedAfterTheReadLimitWhileAnIdlePeerStays)
  {
    options.read_limit = ACE_Time_Value(0, 300 * 1000);
    start(GetParam());
    bystander();
    ASSERT_TRUE(bystander_answers());
    bool ndjson = GetParam() == TCP_Options::FRAMING_NDJSON;
    // One stops inside the header (or the line), one inside the body.
    Socket_Client in_header(server.port()), in_body(server.port());
    ASSERT_TRUE(in_header.send(ndjson ? "{\"jsonrpc\":" : "Content-Len"));
    ASSERT_TRUE(in_body.send(ndjson ? request(1).substr(0, 20) : content_length_frame(request(1)).substr(0, 30)));
    ASSERT_TRUE(in_header.read_to_eof());
    ASSERT_TRUE(in_body.read_to_eof());
    EXPECT_EQ("", in_header.in);
    EXPECT_EQ("", in_body.in);
    EXPECT_EQ(2u, log.count("message not complete within 300 ms; closing the connection."));
    // The bystander was idle between messages all that time.
    EXPECT_TRUE(bystander_answers());
    EXPECT_EQ(1u, server.connections().size());
  }

  INSTANTIATE_TEST_SUITE_P(Framing, Stall,
                           ::testing::Values(TCP_Options::FRAMING_CONTENT_LENGTH, TCP_Options::FRAMING_NDJSON),
                           [](const ::testing::TestParamInfo<TCP_Options::Framing>& info) {
                             return info.param == TCP_Options::FRAMING_NDJSON ? "NDJSON" : "ContentLength";
                           });
}

namespace
{
  // What a frame reader makes of a stream: the messages it delivers, and
  // the answers it sends to refused ones, in order.
  std::string frames_of(TCP_Options::Framing framing, const std::vector<std::string>& pieces,
                        unsigned long long limit = TCP_Options().max_message_size)
  {
    JSON_RPC_Channel_Strong_Ptr channel = make_channel();
    TCP_Options options;
    options.framing = framing;
    options.max_message_size = limit;
    TCP_Frame_Reader frames(options, JSON_RPC_Channel_Weak_Ptr(channel));
    std::string out;
    size_t answered = 0;
    auto answers = [&] {
      std::vector<JSON_RPC_Object_Ptr> sent = fake(channel).sent();
      for (; answered < sent.size(); ++answered)
        out += "answer " + write_object(*sent[answered]) + "\n";
    };
    TCP_Frame_Reader::Handler deliver = [&](JSON_RPC_Reader& reader) {
      answers();
      out += "message " + (reader.object().get() ? write_object(*reader.object()) : std::string("none")) + "\n";
      return true;
    };
    for (const std::string& piece : pieces)
      if (frames.feed(piece.data(), piece.size(), deliver) != 0)
        return out + "failed: " + frames.error();
    answers();
    return out + (frames.in_message() ? "in a message" : "");
  }

  TEST(Frame_Reader, RefusedMessagesAreAnsweredAndTheStreamReadsOnAtEverySplit)
  {
    Log_Capture log;
    const std::string error_head = "{\"jsonrpc\":\"2.0\",\"id\":";
    auto error = [&](const std::string& id, int code, const char* message) {
      return "answer " + error_head + id + ",\"error\":{\"code\":" + std::to_string(code) + ",\"message\":\"" +
             message + "\"}}\n";
    };
    auto message = [](const std::string& text) { return "message " + text + "\n"; };
    struct Refusal
    {
      std::string body;
      std::string answer;
    };
    const Refusal refusals[] = {
      // Not JSON: the id read before the fault is kept.
      {"{\"jsonrpc\":\"2.0\",\"id\":4,]", error("4", -32700, "Parse error")},
      {"{\"id\":5,\"method\":\"echo\"", error("5", -32700, "Parse error")},
      {"", error("null", -32700, "Parse error")},
      {request(6) + request(7), error("6", -32700, "Parse error")},
      // JSON, but no acceptable message.
      {"[" + request(8) + "]", error("null", -32600, "Invalid Request")},
      {"{\"jsonrpc\":\"2.0\",\"id\":9,\"method\":\"echo\",\"extra\":1}", error("9", -32600, "Invalid Request")},
      {"{\"jsonrpc\":\"2.0\",\"id\":10,\"method\":7}", error("10", -32600, "Invalid Request")},
      {"{\"id\":1.5,\"method\":\"m\"}", error("null", -32600, "Invalid Request")},
      {"{\"jsonrpc\":\"2.0\",\"id\":11,\"result\":1,\"method\":\"m\"}", error("11", -32600, "Invalid Request")},
    };
    for (TCP_Options::Framing framing : {TCP_Options::FRAMING_CONTENT_LENGTH, TCP_Options::FRAMING_NDJSON})
      for (const Refusal& refusal : refusals)
      {
        // An NDJSON line can't be empty: blank lines are skipped.
        if (framing == TCP_Options::FRAMING_NDJSON && refusal.body.empty())
          continue;
        auto frame = [&](const std::string& body) {
          return framing == TCP_Options::FRAMING_NDJSON ? body + "\n" : content_length_frame(body);
        };
        const std::string stream = frame(request(1)) + frame(refusal.body) + frame(request(2));
        const std::string expected = message(request(1)) + refusal.answer + message(request(2));
        for (size_t cut = 0; cut <= stream.size(); ++cut)
        {
          SCOPED_TRACE(stream.substr(0, cut) + "|" + stream.substr(cut));
          ASSERT_EQ(expected, frames_of(framing, {stream.substr(0, cut), stream.substr(cut)}));
        }
      }
    // Broken framing still ends the stream, wherever it is cut.
    const std::string broken = content_length_frame(request(1)) + "Content-Length: x\r\n\r\n" + request(2);
    for (size_t cut = 0; cut <= broken.size(); ++cut)
      ASSERT_EQ(message(request(1)) + "failed: bad Content-Length \"x\"",
                frames_of(TCP_Options::FRAMING_CONTENT_LENGTH, {broken.substr(0, cut), broken.substr(cut)}));
  }
}

namespace
{
  TEST(Frame_Reader, OnlyWhatIsAssembledCountsAgainstTheSizeLimit)
  {
    Log_Capture log;
    // The params of "streamed" go to a filter that takes every event.
    struct Taking_Creator : JSON_RPC_Params_Handler_Creator
    {
      YAJL_Handler* create(JSON_RPC_Channel_Weak_Ptr, JSON_RPC_Object_Ptr) override { return new YAJL_Handler; }
    };
    JSON_RPC_Params_Handler_Map::instance()->insert("streamed", "", new Taking_Creator, nullptr);
    std::string numbers = "[";
    for (int i = 0; i < 5000; ++i)
      numbers += "1,";
    numbers += "1]";
    const std::string streamed = "{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"streamed\",\"params\":" + numbers + "}";
    for (TCP_Options::Framing framing : {TCP_Options::FRAMING_CONTENT_LENGTH, TCP_Options::FRAMING_NDJSON})
    {
      auto frame = [&](const std::string& body) {
        return framing == TCP_Options::FRAMING_NDJSON ? body + "\n" : content_length_frame(body);
      };
      // Ten times the limit, streamed: read through, in pieces or whole.
      for (size_t piece : {size_t(0), size_t(64)})
      {
        std::vector<std::string> pieces;
        std::string all = frame(streamed) + frame(request(2));
        for (size_t at = 0; at < all.size(); at += piece ? piece : all.size())
          pieces.push_back(all.substr(at, piece ? piece : all.size()));
        std::string out = frames_of(framing, pieces, 1000);
        EXPECT_EQ(std::string::npos, out.find("failed")) << out;
        EXPECT_NE(std::string::npos, out.find("message " + request(2))) << out;
      }
      // The same held in a tree is refused, and the stream with it.
      EXPECT_EQ("failed: message exceeds the limit of 1000 bytes",
                frames_of(framing, {frame(request(3, numbers))}, 1000));
    }
    JSON_RPC_Params_Handler_Map::close_instance();
  }
}
