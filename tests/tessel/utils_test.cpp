#include "tessel/json_base_conf.h"
#include "tessel/utils.h"

#include "log_capture.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cstdlib>
#include <set>
#include <vector>

namespace
{
  std::vector<unsigned int> waits(Exponential_Backoff_Iterator it, size_t at_most)
  {
    std::vector<unsigned int> out;
    for (; it != Exponential_Backoff_Iterator() && out.size() < at_most; ++it)
      out.push_back(*it);
    return out;
  }

  struct Recording_Conf : JSON_Base_Conf
  {
    explicit Recording_Conf(std::vector<std::string>* out) : JSON_Base_Conf("name", 4), out_(out) {}
    bool handle_record() override
    {
      out_->push_back(key() + "|" + dll() + "|" + init() + "|" + params());
      return key() != "refused";
    }
    std::vector<std::string>* out_;
  };

  class Config_File : public ::testing::Test
  {
  protected:
    int load(const std::string& content)
    {
      return load_json_config(dir_.write("conf.json", content).c_str(), Recording_Conf(&records_));
    }

    Temp_Dir dir_;
    std::string path_ = dir_.file("conf.json");
    std::vector<std::string> records_;
  };
}

TEST(Exponential_Backoff_Iterator, DoublesUpToTheCeilingCumulatesAndEnds)
{
  EXPECT_EQ((std::vector<unsigned int>{1, 2, 4, 8, 16, 32, 60, 60, 60}),
            waits(Exponential_Backoff_Iterator(1, 4294967295u, 60, true), 9));
  EXPECT_EQ((std::vector<unsigned int>{5, 5, 5}), waits(Exponential_Backoff_Iterator(5, 3, 60, false), 10));
  // A first wait above the ceiling is cut to it.
  EXPECT_EQ((std::vector<unsigned int>{10, 10}), waits(Exponential_Backoff_Iterator(90, 2, 10, true), 10));

  // What was waited counts the ceiling, not the doubling.
  Exponential_Backoff_Iterator ceiling(1, 4294967295u, 60, true);
  for (int i = 0; i < 9; ++i)
    ++ceiling;
  EXPECT_EQ(1u + 2 + 4 + 8 + 16 + 32 + 60 * 3, ceiling.cumulation());

  const Exponential_Backoff_Iterator end;
  EXPECT_FALSE(end != Exponential_Backoff_Iterator());
  EXPECT_FALSE(Exponential_Backoff_Iterator(1, 0, 60, true) != end);
  Exponential_Backoff_Iterator it(1, 3, 60, true), same(1, 3, 60, true);
  EXPECT_EQ(0u, it.cumulation());
  ++it;
  EXPECT_TRUE(it != same);
  ++same;
  EXPECT_FALSE(it != same);
  ++it;
  EXPECT_TRUE(it != end);
  EXPECT_EQ(4u, *it);
  ++it;
  EXPECT_FALSE(it != end);
  EXPECT_EQ(7u, it.cumulation());
  // Stepping past the end changes nothing.
  ++it;
  EXPECT_FALSE(it != end);
  EXPECT_EQ(7u, it.cumulation());
}

TEST(uuid_string, IsLowerCaseCanonicalTextAndFresh)
{
  std::set<std::string> seen;
  for (int i = 0; i < 1000; ++i)
  {
    std::string id;
    EXPECT_EQ(&id, &uuid_string(id, false));
    ASSERT_EQ(36u, id.size());
    for (size_t k = 0; k < id.size(); ++k)
    {
      if (k == 8 || k == 13 || k == 18 || k == 23)
        EXPECT_EQ('-', id[k]) << id;
      else
        EXPECT_TRUE(std::isxdigit(static_cast<unsigned char>(id[k])) && !std::isupper(id[k])) << id;
    }
    seen.insert(id);
  }
  EXPECT_EQ(1000u, seen.size());

  std::string upper;
  uuid_string(upper, true);
  for (char c : upper)
    EXPECT_FALSE(std::islower(static_cast<unsigned char>(c))) << upper;
  // A random (version 4) id of the RFC 4122 variant.
  EXPECT_EQ('4', upper[14]) << upper;
  EXPECT_NE(std::string("89AB").find(upper[19]), std::string::npos) << upper;
}

// Ids come from a reserve of randomness per thread: a forked child must not
// repeat the ids that its parent makes next.
TEST(uuid_string, AForkedChildDoesNotRepeatItsParentsIds)
{
  std::string first;
  uuid_string(first);
  int fds[2];
  ASSERT_EQ(0, ::pipe(fds));
  pid_t child = ::fork();
  ASSERT_NE(-1, child);
  if (child == 0)
  {
    std::string id;
    uuid_string(id);
    ssize_t n = ::write(fds[1], id.data(), id.size());
    ::_exit(n == 36 ? 0 : 1);
  }
  ::close(fds[1]);
  std::string mine;
  uuid_string(mine);
  char text[36];
  ssize_t got = ::read(fds[0], text, sizeof text);
  ::close(fds[0]);
  int status = 0;
  ::waitpid(child, &status, 0);
  ASSERT_EQ(36, got);
  EXPECT_NE(mine, std::string(text, 36));
}

TEST(Utils, EnvironmentAndAddressTexts)
{
  ::setenv("TESSEL_TEST_VARIABLE", "a value", 1);
  EXPECT_EQ("a value", get_env_r("TESSEL_TEST_VARIABLE"));
  ::unsetenv("TESSEL_TEST_VARIABLE");
  EXPECT_EQ("", get_env_r("TESSEL_TEST_VARIABLE"));
  EXPECT_EQ("", get_env_r(nullptr));

  EXPECT_STREQ("192.0.2.7:8080", ACE_Addr_String(ACE_INET_Addr(8080, "192.0.2.7")).c_str());
  EXPECT_STREQ("[::1]:443", ACE_Addr_String(ACE_INET_Addr(443, "::1", AF_INET6)).c_str());
  EXPECT_STREQ("[2001:db8::5]:1", ACE_Addr_String(ACE_INET_Addr(1, "2001:db8::5", AF_INET6)).c_str());
  EXPECT_STREQ("", ACE_Addr_String(ACE_Addr()).c_str());
}

TEST_F(Config_File, ReadsOneRecordAnArrayOrNamedGroupsAtAnyDepth)
{
  EXPECT_EQ(0, load("{\"name\":\"a\",\"dll\":\"liba\",\"init\":\"make_a\",\"params\":\"-x 1\"}"));
  EXPECT_EQ(0, load("[{\"name\":\"b\",\"dll\":\"libb\"},{\"init\":\"i\",\"name\":\"c\"}]"));
  EXPECT_EQ(0, load("{\"first\":{\"name\":\"d\"},\"group\":[{\"name\":\"e\",\"params\":\"p\"}],"
                    "\"deep\":{\"more\":[[{\"name\":\"f\"}]]}}"));
  EXPECT_EQ((std::vector<std::string>{"a|liba|make_a|-x 1", "b|libb||", "c||i|", "d|||", "e|||p", "f|||"}),
            records_);
}

TEST_F(Config_File, SkipsRecordsWithoutKeyAndIgnoresMembersThatAreNoStrings)
{
  Log_Capture cap;
  EXPECT_EQ(0, load("[{\"dll\":\"libx\",\"init\":\"ix\"},"
                    "{\"name\":\"g\",\"dll\":7,\"init\":[\"no\"],\"params\":{\"x\":\"no\"},\"other\":\"z\"},"
                    "{\"name\":null,\"dll\":\"liby\"}]"));
  EXPECT_EQ((std::vector<std::string>{"g|||"}), records_);
  EXPECT_EQ(2u, cap.count_priority(LM_WARNING));
  EXPECT_TRUE(cap.contains("Configuration record without 'name' skipped (dll='libx', init='ix').\n"));
}

TEST_F(Config_File, AFileWithoutRecordsSaysSoOnce)
{
  Log_Capture cap;
  for (const char* content : {"[]", "{}", "// nothing yet\n[]", "{\"method\":\"m\",\"dll\":\"libm\"}"})
  {
    cap.clear();
    EXPECT_EQ(0, load(content));
    EXPECT_EQ(1u, cap.count("Configuration file '" + path_ + "' holds no record with 'name'.\n")) << content;
  }
  // One record is enough to keep it quiet.
  cap.clear();
  EXPECT_EQ(0, load("[{\"name\":\"n\"}]"));
  EXPECT_FALSE(cap.contains("holds no record")) << cap.text();
}

TEST_F(Config_File, AllowsCommentsAndGoesOnAfterARefusedRecord)
{
  Recording_Conf conf(&records_);
  dir_.write("conf.json", "// handlers\n[{\"name\":\"refused\"}, /* two */ {\"name\":\"h\"}]\n");
  EXPECT_EQ(0, load_json_config(path_.c_str(), conf));
  EXPECT_EQ(2u, conf.records());
  EXPECT_EQ(1u, conf.loaded());
  EXPECT_EQ((std::vector<std::string>{"refused|||", "h|||"}), records_);
}

TEST_F(Config_File, BadJsonFailsWithALogLineAndKeepsTheRecordsBefore)
{
  Log_Capture cap;
  EXPECT_EQ(-1, load("[{\"name\":\"i\"}, {\"name\":\"j\"}, {\"name\" \"k\"}]"));
  EXPECT_EQ((std::vector<std::string>{"i|||", "j|||"}), records_);
  EXPECT_TRUE(cap.contains("Failed to parse configuration file '" + path_ + "': ")) << cap.text();

  cap.clear();
  EXPECT_EQ(-1, load("[{\"name\":\"l\"}"));
  EXPECT_EQ(1u, cap.count("Failed to parse configuration file"));
  cap.clear();
  EXPECT_EQ(-1, load(""));
  EXPECT_EQ(1u, cap.count("Failed to parse configuration file"));
}

TEST_F(Config_File, MissingFileFailsWithALogLine)
{
  Log_Capture cap;
  EXPECT_EQ(-1, load_json_config("/nonexistent/dir/conf.json", Recording_Conf(&records_)));
  EXPECT_TRUE(cap.contains("Failed to open configuration file '/nonexistent/dir/conf.json': ")) << cap.text();
  EXPECT_EQ(-1, load_json_config(nullptr, Recording_Conf(&records_)));
  EXPECT_TRUE(records_.empty());
}
