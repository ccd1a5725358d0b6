// The reader's two ways past assembly: a response streamed to the channel
// that asked for it, and params handed to a filter while they arrive.
#include "fake_channel.h"
#include "rpc_test_util.h"

#include "json_rpc/json_rpc_params_filter.h"
#include "log_capture.h"

#include <ace/Lock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <map>
#include <memory>

namespace
{
  const unsigned int all_modes = JSON_RPC_Reader::MODE_FORWARD_RESPONSE | JSON_RPC_Reader::MODE_FILTER_REQUEST;

  // Counts what the reader does with a channel's I/O lock; either step can
  // be made to fail.
  class Counting_Lock : public ACE_Lock
  {
  public:
    int acquired = 0, released = 0;
    bool fail_acquire = false, fail_release = false;

    int remove() override { return 0; }
    int acquire() override { return step(fail_acquire, EDEADLK, acquired); }
    int tryacquire() override { return acquire(); }
    int release() override { return step(fail_release, EPERM, released); }
    int acquire_read() override { return acquire(); }
    int acquire_write() override { return acquire(); }
    int tryacquire_read() override { return acquire(); }
    int tryacquire_write() override { return acquire(); }
    int tryacquire_write_upgrade() override { return 0; }
    bool held() const { return acquired > released; }

  private:
    static int step(bool fail, int error, int& count)
    {
      if (fail)
      {
        errno = error;
        return -1;
      }
      ++count;
      return 0;
    }
  };

  // Both sides of a forward in one class: as the link it hands out forward
  // entries, as the requester it collects what send_begin opens.
  class Forward_Channel : public Fake_Channel
  {
  public:
    yajl_gen_t* send_begin() override
    {
      ++begun;
      // What the reader writes must come under the lock, if there is one.
      lock_held_at_begin = !lock || lock->held();
      if (refuse_begin)
        return nullptr;
      gen_.reset(yajl_gen_alloc(nullptr));
      yajl_gen_config(gen_.get(), yajl_gen_print_callback, &YAJL_Printer::print_s, &printer_);
      if (spoil_generator)
        yajl_gen_null(gen_.get()); // a finished document takes no further token
      return gen_.get();
    }
    int send_end() override
    {
      ++ended;
      return end_result;
    }
    int get_forward_entry(int forward_id, JSON_RPC_Channel_Weak_Ptr& requester, json_spirit::Value& id) override
    {
      ++lookups;
      auto i = entries.find(forward_id);
      if (i == entries.end())
        return -1;
      requester = i->second.second;
      id = i->second.first;
      entries.erase(i);
      return 0;
    }
    int io_state() override { return state; }
    ACE_Lock* io_mutex() override { return lock; }

    std::map<int, std::pair<json_spirit::Value, JSON_RPC_Channel_Weak_Ptr>> entries;
    std::string text;
    Counting_Lock* lock = nullptr;
    int begun = 0, ended = 0, lookups = 0;
    int end_result = 0, state = 0;
    bool refuse_begin = false, spoil_generator = false, lock_held_at_begin = false;

  private:
    YAJL_String_Printer printer_{&text};
    std::unique_ptr<yajl_gen_t, void (*)(yajl_gen_t*)> gen_{nullptr, yajl_gen_free};
  };

  // The reader's destructor, and a fresh reader in its place.
  void renew(JSON_RPC_Reader& reader)
  {
    reader.~JSON_RPC_Reader();
    new (&reader) JSON_RPC_Reader;
  }

  struct Forward_Setup
  {
    Forward_Setup()
      : link(new Forward_Channel), requester_object(new Forward_Channel),
        requester(static_cast<Forward_Channel*>(requester_object.get()))
    {
      requester->lock = &lock;
      reader.mode(JSON_RPC_Reader::MODE_FORWARD_RESPONSE);
    }

    Forward_Channel& link_channel() { return static_cast<Forward_Channel&>(*link); }
    void expect(int forward_id, json_spirit::Value requester_id)
    {
      link_channel().entries[forward_id] = {requester_id, JSON_RPC_Channel_Weak_Ptr(requester_object)};
    }
    // open, the channel, then the text in pieces of `piece` bytes.
    bool feed(const std::string& text, size_t piece = 1)
    {
      EXPECT_TRUE(reader.open());
      reader.channel(JSON_RPC_Channel_Weak_Ptr(link));
      return read_in_pieces(reader, text, piece, false);
    }
    bool read(const std::string& text, size_t piece = 1) { return feed(text, piece) && reader.read(nullptr, 0); }

    Counting_Lock lock;
    JSON_RPC_Channel_Strong_Ptr link;
    JSON_RPC_Channel_Strong_Ptr requester_object;
    Forward_Channel* requester;
    JSON_RPC_Reader reader;
  };

  // What the filters of the tests saw and how many are alive.
  struct Filter_Record
  {
    int created = 0, destroyed = 0;
    std::string events;
    JSON_RPC_Channel* channel = nullptr;
  } record;

  class Recording_Filter : public YAJL_Handler
  {
  public:
    explicit Recording_Filter(int refuse_at) : refuse_at_(refuse_at) { ++record.created; }
    ~Recording_Filter() override { ++record.destroyed; }

    bool handle_null_i() override { return note("null"); }
    bool handle_boolean_i(bool v) override { return note(v ? "true" : "false"); }
    bool handle_number_i(char const* t, unsigned long long n) override { return note(std::string(t, n)); }
    bool handle_string_i(char const* t, unsigned long long n) override { return note("\"" + std::string(t, n) + "\""); }
    bool handle_start_map_i() override { return note("{"); }
    bool handle_map_key_i(char const* t, unsigned long long n) override { return note(std::string(t, n) + ":"); }
    bool handle_end_map_i() override { return note("}"); }
    bool handle_start_array_i() override { return note("["); }
    bool handle_end_array_i() override { return note("]"); }

  private:
    bool note(const std::string& event)
    {
      record.events += event + " ";
      return --refuse_at_ != 0;
    }
    int refuse_at_;
  };

  // Made with the event at which its filters refuse (0: never), or -1 for
  // a creator that refuses every call.
  struct Recording_Creator : JSON_RPC_Params_Handler_Creator
  {
    explicit Recording_Creator(int refuse_at) : refuse_at_(refuse_at) {}
    YAJL_Handler* create(JSON_RPC_Channel_Weak_Ptr channel, JSON_RPC_Object_Ptr object) override
    {
      record.channel = JSON_RPC_Channel_Strong_Ptr(channel).get();
      EXPECT_NE(nullptr, object.get());
      return refuse_at_ < 0 ? nullptr : new Recording_Filter(refuse_at_);
    }

    int refuse_at_;
  };

  struct Filters : ::testing::Environment
  {
    void SetUp() override
    {
      JSON_RPC_Params_Handler_Map* map = JSON_RPC_Params_Handler_Map::instance();
      map->insert("filtered", "", new Recording_Creator(0), nullptr);
      map->insert("refused.at.3", "", new Recording_Creator(3), nullptr);
      map->insert("refused", "", new Recording_Creator(-1), nullptr);
    }
    void TearDown() override { JSON_RPC_Params_Handler_Map::close_instance(); }
  };
  ::testing::Environment* const filters = ::testing::AddGlobalTestEnvironment(new Filters);

  class Reader_Filter : public ::testing::Test
  {
  protected:
    Reader_Filter()
    {
      record = Filter_Record();
      reader.mode(JSON_RPC_Reader::MODE_FILTER_REQUEST);
    }
    ~Reader_Filter() override { EXPECT_EQ(record.created, record.destroyed); }

    Log_Capture log;
    JSON_RPC_Reader reader;
  };
}

TEST(Reader_Forwarding, OnlyAnIntegerForwardIdAheadOfResultIsForwarded)
{
  Log_Capture log;
  Forward_Setup f;
  // No entry for the id: an ordinary response.
  ASSERT_TRUE(f.read("{\"id\":5,\"result\":1}"));
  EXPECT_EQ("type=3 version= id=5 result=1", describe(f.reader.object()));
  EXPECT_EQ(JSON_RPC_Reader::STATE_READING, f.reader.state());
  EXPECT_EQ(1, f.link_channel().lookups);

  f.expect(5, 9);
  const std::pair<const char*, const char*> never[] = {
    {"{\"result\":1,\"id\":5}", "type=3 version= id=5 result=1"},
    {"{\"id\":\"5\",\"result\":1}", "type=3 version= id=\"5\" result=1"},
    // Beyond 32 bits: no forward id, even though its low bits are 5.
    {"{\"id\":4294967301,\"result\":1}", "type=3 version= id=4294967301 result=1"},
    {"{\"id\":-4294967291,\"result\":1}", "type=3 version= id=-4294967291 result=1"},
    {"{\"id\":5,\"error\":{\"code\":1,\"message\":\"m\"}}", "type=4 version= id=5 code=1 message=m data=null"},
  };
  for (const auto& c : never)
  {
    ASSERT_TRUE(f.read(c.first)) << c.first;
    EXPECT_EQ(c.second, describe(f.reader.object())) << c.first;
    EXPECT_EQ(JSON_RPC_Reader::STATE_READING, f.reader.state()) << c.first;
  }
  EXPECT_EQ(1, f.link_channel().lookups);
  EXPECT_EQ(1u, f.link_channel().entries.size());

  // Without a channel to ask, and with the mode off, nothing is looked up.
  JSON_RPC_Reader alone;
  alone.mode(JSON_RPC_Reader::MODE_FORWARD_RESPONSE);
  EXPECT_EQ("type=3 version= id=5 result=[1]", describe(read_message(alone, "{\"id\":5,\"result\":[1]}").object));
  f.reader.mode(JSON_RPC_Reader::MODE_ASSEMBLE | JSON_RPC_Reader::MODE_FORWARD_REQUEST);
  ASSERT_TRUE(f.read("{\"id\":5,\"result\":1}"));
  EXPECT_EQ("type=3 version= id=5 result=1", describe(f.reader.object()));
  EXPECT_EQ(1, f.link_channel().lookups);
  EXPECT_EQ(0, f.requester->begun);
  EXPECT_TRUE(log.empty()) << log.text();
}

TEST(Reader_Forwarding, ResponseStreamsToTheRequesterUnderItsOwnIdWhileItIsRead)
{
  Forward_Setup f;
  f.expect(5, 9);
  const std::string head = "{\"jsonrpc\":\"2.0\",\"id\":5,\"result\":{\"a\":[1,";
  ASSERT_TRUE(f.feed(head));
  // Out before the message has ended, and under the requester's lock.
  EXPECT_EQ("{\"jsonrpc\":\"2.0\",\"id\":9,\"result\":{\"a\":[1", f.requester->text);
  EXPECT_TRUE(f.requester->lock_held_at_begin);
  EXPECT_EQ(JSON_RPC_Reader::STATE_FORWARDING, f.reader.state());
  EXPECT_TRUE(f.lock.held());
  EXPECT_EQ(0, f.requester->ended);

  ASSERT_TRUE(read_in_pieces(f.reader, "2]}}"));
  EXPECT_EQ("{\"jsonrpc\":\"2.0\",\"id\":9,\"result\":{\"a\":[1,2]}}", f.requester->text);
  EXPECT_EQ(1, f.requester->ended);
  EXPECT_EQ(1, f.lock.acquired);
  EXPECT_EQ(1, f.lock.released);
  EXPECT_EQ(nullptr, f.reader.object().get());
  EXPECT_EQ(JSON_RPC_Reader::STATE_FORWARDING, f.reader.state());
  EXPECT_TRUE(f.reader.request_channel().null());
  // The entry is used up: the same id again is an ordinary response.
  EXPECT_TRUE(f.link_channel().entries.empty());
  ASSERT_TRUE(f.read("{\"id\":5,\"result\":2}"));
  EXPECT_EQ("type=3 version= id=5 result=2", describe(f.reader.object()));
  EXPECT_EQ(1, f.requester->begun);
}

TEST(Reader_Forwarding, TheCopyKeepsWhatCameAfterResultAndLeavesOutAMissingVersion)
{
  Forward_Setup f;
  f.requester->lock = nullptr; // a channel that needs no lock
  f.expect(1, "caller-7");
  f.expect(2, json_spirit::Value());
  ASSERT_TRUE(f.read("{\"id\":1,\"result\":[true,null,\"s\\n\",1.5e3,{}],\"x\":{\"y\":[]},\"jsonrpc\":\"2.0\"}", 3));
  ASSERT_TRUE(f.read("{\"id\":2,\"result\":\"\\u00e9\"}", 7));
  EXPECT_EQ("{\"id\":\"caller-7\",\"result\":[true,null,\"s\\n\",1.5e3,{}],\"x\":{\"y\":[]},\"jsonrpc\":\"2.0\"}"
            "{\"id\":null,\"result\":\"\xc3\xa9\"}",
            f.requester->text);
  EXPECT_EQ(2, f.requester->ended);
  EXPECT_EQ(0, f.lock.acquired);
}

TEST(Reader_Forwarding, ARequesterThatIsGoneCostsOneLineAndNothingIsWritten)
{
  Log_Capture log;
  Forward_Setup f;
  f.expect(5, 9);
  f.requester_object = JSON_RPC_Channel_Strong_Ptr(); // the only owner lets go
  ASSERT_TRUE(f.read("{\"jsonrpc\":\"2.0\",\"id\":5,\"result\":{\"a\":[1,null,true,\"s\",{}]},\"more\":[3]}"));
  EXPECT_EQ(nullptr, f.reader.object().get());
  EXPECT_EQ(JSON_RPC_Reader::STATE_FORWARDING, f.reader.state());
  EXPECT_EQ(std::vector<std::string>{"Abort forwarding JSON-RPC response, requester is gone.\n"}, log.lines());
  EXPECT_EQ(0, f.lock.acquired);
  // The stream goes on with the next message.
  ASSERT_TRUE(f.read("{\"method\":\"m\"}"));
  EXPECT_EQ("type=1 version= id=null method=m params=null", describe(f.reader.object()));
}

TEST(Reader_Forwarding, TheEndOfAForwardAndItsFailures)
{
  // How the requester or its lock fails, whether the read still succeeds,
  // the one line logged ("" for none), and the text the requester got.
  struct Case
  {
    int end_result, state;
    bool fail_acquire, fail_release, ok;
    const char* line;
    const char* text;
  };
  const Case cases[] = {
    // A channel that reports its own closing (7) needs no line of ours.
    {-1, 7, false, false, true, "", "{\"id\":9,\"result\":1}"},
    {-1, 3, false, false, false, "Failed to forward response: failed to send end to channel.\n",
     "{\"id\":9,\"result\":1}"},
    {0, 0, true, false, false, "Failed to lock request channel, errno=35, ", ""},
    {0, 0, false, true, true, "Failed to release request channel, errno=1, ", "{\"id\":9,\"result\":1}"},
  };
  for (const Case& c : cases)
  {
    SCOPED_TRACE(c.line);
    Log_Capture log;
    Forward_Setup f;
    f.expect(5, 9);
    f.requester->end_result = c.end_result;
    f.requester->state = c.state;
    f.lock.fail_acquire = c.fail_acquire;
    f.lock.fail_release = c.fail_release;
    EXPECT_EQ(c.ok, f.read("{\"id\":5,\"result\":1}"));
    EXPECT_EQ(*c.line ? 1u : 0u, log.count(c.line)) << log.text();
    EXPECT_EQ(*c.line == 0, log.empty()) << log.text();
    EXPECT_EQ(c.text, f.requester->text);
    EXPECT_EQ(c.fail_acquire ? 0 : 1, f.requester->begun);
    EXPECT_EQ(c.fail_acquire || c.fail_release ? 0 : 1, f.lock.released);
    EXPECT_TRUE(c.state != 3 || f.reader.request_channel().null());
  }
  for (bool refuse_begin : {true, false})
  {
    // No generator, or one that takes no token: the parse fails and the
    // lock is free again at once or with the next message.
    Log_Capture log;
    Forward_Setup f;
    f.expect(5, 9);
    f.requester->refuse_begin = refuse_begin;
    f.requester->spoil_generator = !refuse_begin;
    EXPECT_FALSE(f.read("{\"id\":5,\"result\":1}"));
    EXPECT_EQ(1, f.lock.acquired);
    EXPECT_EQ(refuse_begin ? 1 : 0, f.lock.released);
    EXPECT_EQ(0, f.requester->ended);
    EXPECT_FALSE(log.contains("Failed to forward response")) << log.text();
    f.reader.open();
    EXPECT_EQ(1, f.lock.released);
  }
}

TEST(Reader_Forwarding, AStreamThatBreaksMidForwardLetsGoOfTheLock)
{
  Log_Capture log;
  for (int how = 0; how < 3; ++how)
  {
    Forward_Setup f;
    f.expect(5, 9);
    ASSERT_TRUE(f.feed("{\"id\":5,\"result\":[1,2,"));
    ASSERT_FALSE(f.reader.read("}", 1));
    EXPECT_TRUE(f.lock.held());
    if (how == 0)
      f.reader.open();
    else if (how == 1)
      f.reader.close();
    else
      renew(f.reader);
    EXPECT_EQ(1, f.lock.released) << how;
    EXPECT_TRUE(f.reader.request_channel().null());
    EXPECT_EQ(0, f.requester->ended);
    // Reused, the reader assembles again.
    EXPECT_EQ("type=3 version= id=1 result=2", describe(read_message(f.reader, "{\"id\":1,\"result\":2}").object));
  }
}

TEST_F(Reader_Filter, SeesEveryEventOfParamsAndIsDeletedBeforeTheMessageEnds)
{
  JSON_RPC_Channel_Strong_Ptr stream(new Forward_Channel);
  ASSERT_TRUE(reader.open());
  reader.request_channel(stream);
  const std::string head = "{\"jsonrpc\":\"2.0\",\"method\":\"filtered\",\"params\":{\"a\":[1,\"b\",null,true,{}]}";
  ASSERT_TRUE(read_in_pieces(reader, head, 1, false));
  EXPECT_EQ("{ a: [ 1 \"b\" null true { } ] } ", record.events);
  EXPECT_EQ(1, record.destroyed);
  EXPECT_EQ(stream.get(), record.channel);
  ASSERT_TRUE(read_in_pieces(reader, ",\"id\":3}"));
  EXPECT_EQ("type=2 version=2.0 id=3 method=filtered params=null", describe(reader.object()));
  EXPECT_TRUE(reader.handled_indirectly());
  EXPECT_EQ(JSON_RPC_Reader::STATE_READING, reader.state());
  // The flag belongs to one message.
  ASSERT_TRUE(read_message(reader, "{\"method\":\"plain\",\"params\":[1]}").ok);
  EXPECT_FALSE(reader.handled_indirectly());
  EXPECT_TRUE(log.empty()) << log.text();
}

TEST_F(Reader_Filter, ParamsAreAssembledWhenNoFilterCanBeFound)
{
  const std::pair<const char*, const char*> cases[] = {
    {"{\"params\":[1,2],\"method\":\"filtered\"}", "type=1 version= id=null method=filtered params=[1,2]"},
    {"{\"method\":\"plain\",\"params\":{\"k\":[]}}", "type=1 version= id=null method=plain params={\"k\":[]}"},
  };
  for (unsigned int mode : {0u + JSON_RPC_Reader::MODE_FILTER_REQUEST, all_modes | JSON_RPC_Reader::MODE_FORWARD_REQUEST})
  {
    reader.mode(mode);
    for (const auto& c : cases)
    {
      Read_Outcome r = read_message(reader, c.first, 2);
      EXPECT_TRUE(r.ok) << c.first;
      EXPECT_EQ(c.second, describe(r.object)) << c.first;
      EXPECT_FALSE(reader.handled_indirectly()) << c.first;
    }
  }
  // With the mode off, even a method with a filter is assembled.
  reader.mode(JSON_RPC_Reader::MODE_ASSEMBLE | JSON_RPC_Reader::MODE_FORWARD_REQUEST);
  EXPECT_EQ("type=1 version= id=null method=filtered params=[3]",
            describe(read_message(reader, "{\"method\":\"filtered\",\"params\":[3]}").object));
  EXPECT_EQ(0, record.created);
}

TEST_F(Reader_Filter, AScalarParamsGoesToTheFilterAloneAndTheRestOfTheMessageIsRead)
{
  for (const std::string params : {"7", "\"s\"", "null", "false"})
  {
    record.events.clear();
    ASSERT_TRUE(reader.open());
    ASSERT_TRUE(read_in_pieces(reader, "{\"method\":\"filtered\",\"params\":" + params + ",", 0, false));
    // Gone at once: a scalar has no closing event to wait for.
    EXPECT_EQ(record.created, record.destroyed) << params;
    ASSERT_TRUE(read_in_pieces(reader, "\"id\":\"x\",\"jsonrpc\":\"2.0\"}"));
    EXPECT_EQ(params + " ", record.events);
    EXPECT_EQ("type=2 version=2.0 id=\"x\" method=filtered params=null", describe(reader.object())) << params;
    EXPECT_TRUE(reader.handled_indirectly());
  }
  EXPECT_EQ(4, record.created);
}

TEST_F(Reader_Filter, AFilterLeftBehindByAMessageThatIsGivenUpIsReleased)
{
  // The filter refuses its third event: the parse fails with it still in
  // place, and the next open() deletes it.
  ASSERT_TRUE(reader.open());
  EXPECT_FALSE(read_in_pieces(reader, "{\"method\":\"refused.at.3\",\"params\":[1,2,3]}", 0, false));
  EXPECT_EQ("[ 1 2 ", record.events);
  EXPECT_EQ(0, record.destroyed);
  EXPECT_TRUE(log.contains("Failed to parse JSON-RPC"));
  ASSERT_TRUE(reader.open());
  EXPECT_EQ(1, record.destroyed);

  // Given up half-way by the owner, in each of the ways it can.
  const std::string half = "{\"method\":\"filtered\",\"params\":{\"a\":[";
  for (int how = 0; how < 3; ++how)
  {
    ASSERT_TRUE(reader.open());
    ASSERT_TRUE(reader.read(half.data(), half.size()));
    int before = record.destroyed;
    if (how == 0)
      reader.clear();
    else if (how == 1)
      reader.close();
    else
      renew(reader);
    EXPECT_EQ(before + 1, record.destroyed) << how;
    reader.mode(JSON_RPC_Reader::MODE_FILTER_REQUEST);
  }

  // A creator that refuses the call fails the parse, with err 0.
  log.clear();
  Read_Outcome r = read_message(reader, "{\"method\":\"refused\",\"params\":[1]}");
  EXPECT_FALSE(r.ok);
  EXPECT_TRUE(log.contains("err=0,")) << log.text();
}
