#include "tessel/json_base_conf.h"

#include "log_capture.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>

namespace
{
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
    void TearDown() override { std::remove(path_.c_str()); }

    int load(const std::string& content)
    {
      std::ofstream(path_, std::ios::binary) << content;
      return load_json_config(path_.c_str(), Recording_Conf(&records_));
    }

    std::string path_ = ::testing::TempDir() + "tessel_conf_" +
                        ::testing::UnitTest::GetInstance()->current_test_info()->name() + ".json";
    std::vector<std::string> records_;
  };
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

TEST_F(Config_File, AllowsCommentsAndGoesOnAfterARefusedRecord)
{
  Recording_Conf conf(&records_);
  std::ofstream(path_) << "// handlers\n[{\"name\":\"refused\"}, /* two */ {\"name\":\"h\"}]\n";
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
