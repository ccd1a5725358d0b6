// The registers that remember channels: channel map, notification manager,
// pool, global channel, forward map and response map.
#include "fake_channel.h"
#include "log_capture.h"

#include "json_rpc/json_rpc_channel_map.h"
#include "json_rpc/json_rpc_forward_map.h"
#include "json_rpc/json_rpc_handler.h"
#include "json_rpc/json_rpc_notify_manager.h"

#include <gtest/gtest.h>

#include <set>

namespace
{
  JSON_RPC_Object_Ptr notification(const std::string& method) { return make_message(method); }

  // Each test starts with fresh registers and no global channel.
  class Registers : public ::testing::Test
  {
  protected:
    void TearDown() override { close_singletons(); }
  };
}

TEST_F(Registers, ChannelMapFindsByTypeAndIdAndPrefersTheLowestType)
{
  auto a = make_channel(2, "peer"), b = make_channel(1, "peer"), c = make_channel(2, "other");
  auto* map = JSON_RPC_Channel_Map::instance();
  for (const auto& channel : {a, b, c})
    ASSERT_EQ(0, map->insert(channel));
  EXPECT_EQ(b.get(), JSON_RPC_Channel_Strong_Ptr(map->find("peer")).get());
  EXPECT_EQ(a.get(), JSON_RPC_Channel_Strong_Ptr(map->find(2, "peer")).get());
  EXPECT_TRUE(JSON_RPC_Channel_Strong_Ptr(map->find(3, "peer")).null());
  EXPECT_TRUE(JSON_RPC_Channel_Strong_Ptr(map->find("nobody")).null());
}

TEST_F(Registers, ANewerChannelUnderTheSameKeySurvivesTheRemovalOfTheOld)
{
  auto watcher = make_channel(5, "watcher");
  JSON_RPC_Notify_Manager::instance()->subscribe(JSON_RPC_Channel_Weak_Ptr(watcher), {"*"});
  auto* map = JSON_RPC_Channel_Map::instance();
  auto old_channel = make_channel(1, "agent"), new_channel = make_channel(1, "agent");
  map->insert(old_channel);
  map->insert(new_channel);
  EXPECT_EQ((std::vector<std::string>{"channel.registered", "channel.registered"}), fake(watcher).methods());
  EXPECT_EQ(0, map->remove(old_channel));
  EXPECT_EQ(2u, fake(watcher).count());
  EXPECT_EQ(new_channel.get(), JSON_RPC_Channel_Strong_Ptr(map->find(1, "agent")).get());
  // Removing by key works even for a key never registered, and is announced.
  EXPECT_EQ(0, map->remove(9, "ghost"));
  EXPECT_EQ("channel.unregistered", fake(watcher).methods().back());
  EXPECT_EQ(0, map->remove(JSON_RPC_Channel_Strong_Ptr()));
}

TEST_F(Registers, ChannelInfosListsTheLivingAndSweepsTheDead)
{
  auto* map = JSON_RPC_Channel_Map::instance();
  auto a = make_channel(1, "a", 1001), b = make_channel(2, "b", 1002);
  map->insert(a);
  map->insert(b);
  {
    auto dead = make_channel(2, "dead");
    map->insert(dead);
  }
  auto watcher = make_channel(5, "watcher");
  JSON_RPC_Notify_Manager::instance()->subscribe(JSON_RPC_Channel_Weak_Ptr(watcher), {"channel.unregistered"});
  Log_Capture log;
  std::vector<JSON_RPC_Channel_Map::Channel_Info> infos;
  ASSERT_EQ(0, map->channel_infos(infos, 0));
  ASSERT_EQ(2u, infos.size());
  EXPECT_EQ("a", infos[0].id);
  EXPECT_EQ(1002, infos[1].addr.get_port_number());
  EXPECT_TRUE(log.contains("JSON-RPC channel dead is gone.\n"));
  EXPECT_EQ(1u, fake(watcher).count());
  infos.clear();
  map->channel_infos(infos, 2);
  ASSERT_EQ(1u, infos.size());
  EXPECT_EQ("b", infos[0].id);
  EXPECT_EQ(1u, log.count("is gone")); // swept by the first listing
}

TEST_F(Registers, ChannelMapNotifySendsToLivingChannelsAndOnlyToStringIds)
{
  auto* map = JSON_RPC_Channel_Map::instance();
  EXPECT_EQ(0, map->notify(notification("x")));
  auto a = make_channel(3, "a"), b = make_channel(3, "b"), c = make_channel(4, "c");
  for (const auto& channel : {a, b, c})
    map->insert(channel);
  fake(a).fail(true);
  EXPECT_EQ(0, map->notify(notification("all")));
  EXPECT_EQ(1u, fake(b).count());
  EXPECT_EQ(1u, fake(c).count());
  EXPECT_EQ(0, map->notify(3, "b", notification("one")));
  EXPECT_EQ(0, map->notify(3, "zzz", notification("none")));
  EXPECT_EQ(2u, fake(b).count());
  EXPECT_EQ(0, map->notify(3, std::vector<json_spirit::Value>{42, "b", "b"}, notification("listed")));
  EXPECT_EQ((std::vector<std::string>{"all", "one", "listed", "listed"}), fake(b).methods());
  EXPECT_EQ(1u, fake(c).count());
}

TEST_F(Registers, NotifyReachesSubjectThenStarThenGlobalAndSkipsTheDead)
{
  auto* nm = JSON_RPC_Notify_Manager::instance();
  auto subject = make_channel(0, "s"), star = make_channel(0, "star"), global = make_channel(0, "g");
  Global_JSON_RPC_Channel::instance(JSON_RPC_Channel_Weak_Ptr(global));
  nm->subscribe(JSON_RPC_Channel_Weak_Ptr(subject), {"news", "news"});
  nm->subscribe(JSON_RPC_Channel_Weak_Ptr(star), {"*"});
  {
    auto dead = make_channel();
    nm->subscribe(JSON_RPC_Channel_Weak_Ptr(dead), {"news"});
  }
  fake(subject).fail(true);
  EXPECT_EQ(0, nm->notify("news", notification("news")));
  fake(subject).fail(false);
  EXPECT_EQ(0, nm->notify("news", notification("news")));
  EXPECT_EQ(2u, fake(subject).count()); // subscribed twice: two copies
  EXPECT_EQ(2u, fake(star).count());
  EXPECT_EQ(2u, fake(global).count());
  EXPECT_EQ(0, nm->notify("other", notification("other")));
  EXPECT_EQ(2u, fake(subject).count());
  EXPECT_EQ(3u, fake(star).count());
  EXPECT_EQ(3u, fake(global).count());
  // "*" as the subject reaches the star subscribers twice.
  nm->notify("*", notification("*"));
  EXPECT_EQ(5u, fake(star).count());
}

TEST_F(Registers, UnsubscribeFormsRemoveWhatTheySayAndSweepDeadChannels)
{
  auto* nm = JSON_RPC_Notify_Manager::instance();
  auto a = make_channel(), b = make_channel();
  JSON_RPC_Channel_Weak_Ptr wa(a), wb(b);
  nm->subscribe(wa, {"x", "x", "y"});
  nm->subscribe(wb, {"x", "z"});
  EXPECT_EQ(0, nm->subscribe(wa, {}));
  EXPECT_EQ(5u, nm->size());
  EXPECT_EQ(0, nm->unsubscribe(wa, std::vector<std::string>{"x"}));
  EXPECT_EQ(3u, nm->size());
  EXPECT_EQ(0, nm->unsubscribe(std::string("nothing")));
  EXPECT_EQ(0, nm->unsubscribe(std::vector<std::string>{"z"}));
  EXPECT_EQ(2u, nm->size());
  {
    auto d1 = make_channel(), d2 = make_channel();
    nm->subscribe(JSON_RPC_Channel_Weak_Ptr(d1), {"x"});
    nm->subscribe(JSON_RPC_Channel_Weak_Ptr(d2), {"q"});
  }
  EXPECT_EQ(4u, nm->size());
  // A dead pointer sweeps every dead entry and leaves the living.
  EXPECT_EQ(0, nm->unsubscribe(JSON_RPC_Channel_Weak_Ptr()));
  EXPECT_EQ(2u, nm->size());
  EXPECT_EQ(0, nm->unsubscribe(wa));
  EXPECT_EQ(1u, nm->size());
  nm->notify("x", notification("x"));
  EXPECT_EQ(1u, fake(b).count());
  EXPECT_EQ(0u, fake(a).count());
}

TEST_F(Registers, PoolAddsOnceSweepsTheDeadAndPicksStablyWithinASecond)
{
  auto* pool = JSON_RPC_Channel_Pool::instance();
  EXPECT_TRUE(JSON_RPC_Channel_Strong_Ptr(pool->channel()).null());
  auto a = make_channel(), b = make_channel(), c = make_channel();
  EXPECT_EQ(0, pool->insert(JSON_RPC_Channel_Weak_Ptr(a)));
  EXPECT_EQ(-1, pool->insert(JSON_RPC_Channel_Weak_Ptr(a)));
  EXPECT_EQ(-1, pool->insert(JSON_RPC_Channel_Weak_Ptr()));
  {
    auto d = make_channel();
    pool->insert(JSON_RPC_Channel_Weak_Ptr(d));
  }
  // Removing a dead pointer sweeps every dead element.
  EXPECT_EQ(2u, pool->size());
  EXPECT_EQ(0, pool->remove(JSON_RPC_Channel_Weak_Ptr()));
  EXPECT_EQ(1u, pool->size());
  EXPECT_EQ(a.get(), JSON_RPC_Channel_Strong_Ptr(pool->channel()).get());
  EXPECT_EQ(0, pool->remove(JSON_RPC_Channel_Weak_Ptr(b)));
  EXPECT_EQ(1u, pool->size());
  pool->insert(JSON_RPC_Channel_Weak_Ptr(b));
  pool->insert(JSON_RPC_Channel_Weak_Ptr(c));
  std::set<JSON_RPC_Channel*> picked;
  for (int i = 0; i < 5; ++i)
    picked.insert(JSON_RPC_Channel_Strong_Ptr(pool->channel()).get());
  // Seeded by the second: a change of second between the calls may give two.
  EXPECT_LE(picked.size(), 2u);
  EXPECT_EQ(0u, picked.count(nullptr));
}

TEST(Forward_Map, CountsOnHandsEachEntryOutOnceAndAnswersOnClear)
{
  JSON_RPC_Forward_Map map;
  auto requester = make_channel(0, "r");
  JSON_RPC_Channel_Weak_Ptr weak(requester);
  EXPECT_EQ(1, map.put(json_spirit::Value("abc"), weak));
  EXPECT_EQ(2, map.put(json_spirit::Value(7), weak));
  JSON_RPC_Forward_Map::Entry entry;
  EXPECT_EQ(-1, map.get(0, entry));
  EXPECT_EQ(-1, map.get(-1, entry));
  ASSERT_EQ(0, map.get(1, entry));
  EXPECT_EQ("abc", entry.first.get_str());
  EXPECT_EQ(requester.get(), JSON_RPC_Channel_Strong_Ptr(entry.second).get());
  EXPECT_EQ(-1, map.get(1, entry));

  Log_Capture log;
  map.put(json_spirit::Value(), weak);
  {
    auto gone = make_channel();
    map.put(json_spirit::Value("lost"), JSON_RPC_Channel_Weak_Ptr(gone));
  }
  map.clear();
  EXPECT_TRUE(log.contains("Abort sending JSON-RPC error, requester (id=lost, forward_id=4) is gone\n"));
  ASSERT_EQ(2u, fake(requester).count());
  for (const auto& sent : fake(requester).sent())
  {
    ASSERT_EQ("error -32603", answer_text(*sent)); // an error object, without data
    EXPECT_EQ("Internal error, forwarder is closed.", static_cast<const JSON_RPC_Response_Error&>(*sent).message);
  }
  EXPECT_EQ(7, fake(requester).sent()[0]->id.get_int());
  EXPECT_TRUE(fake(requester).sent()[1]->id.is_null());
  EXPECT_EQ(5, map.put(json_spirit::Value(1), weak));
  Log_Capture quiet;
  JSON_RPC_Forward_Map().clear();
  EXPECT_TRUE(quiet.empty());
}

TEST_F(Registers, ResponseMapKeysByValueAndKeepsHeldHandlersAlive)
{
  struct Counting_Handler : JSON_RPC_Handler
  {
    explicit Counting_Handler(int* alive) : alive_(alive) { ++*alive_; }
    ~Counting_Handler() override { --*alive_; }
    int handle_object(JSON_RPC_Channel_Weak_Ptr, JSON_RPC_Object_Ptr) override { return 0; }
    int* alive_;
  };
  int alive = 0;
  auto* map = JSON_RPC_Response_Map::instance();
  JSON_RPC_Handler_Ptr first(new Counting_Handler(&alive)), second(new Counting_Handler(&alive));
  EXPECT_EQ(0, map->insert(json_spirit::Value(5), first));
  EXPECT_EQ(-1, map->insert(json_spirit::Value(5), second));
  EXPECT_EQ(0, map->insert(json_spirit::Value("5"), second)); // a string is another key
  EXPECT_EQ(first.get(), map->find(json_spirit::Value(5)).get());
  EXPECT_EQ(-1, map->remove(json_spirit::Value(6)));
  JSON_RPC_Handler_Ptr held = map->find(json_spirit::Value("5"));
  second.reset();
  map->clear();
  EXPECT_EQ(nullptr, map->find(json_spirit::Value(5)).get());
  EXPECT_EQ(2, alive); // first and held
  held.reset();
  EXPECT_EQ(1, alive);
}
