#include "log_capture.h"

#include <ace/Log_Msg.h>
#include <gtest/gtest.h>

#include <thread>

TEST(Log_Capture, KeepsEachMessageOfEveryPriorityAndGivesStderrBack)
{
  ACE_Log_Msg* log = ACE_Log_Msg::instance();
  const bool stderr_before = log->flags() & ACE_Log_Msg::STDERR;
  {
    Log_Capture cap;
    EXPECT_FALSE(log->flags() & ACE_Log_Msg::STDERR);
    ACE_DEBUG((LM_DEBUG, "debug %d\n", 1));
    ACE_DEBUG((LM_INFO, "Retry(%d) at %u second(s) later.\n", 2, 4u));
    ACE_ERROR((LM_ERROR, "error %C\n", "text"));
    ACE_ERROR((LM_EMERGENCY, "emergency\n"));

    ASSERT_EQ(4u, cap.lines().size());
    EXPECT_EQ("Retry(2) at 4 second(s) later.\n", cap.lines()[1]);
    EXPECT_EQ("debug 1\nRetry(2) at 4 second(s) later.\nerror text\nemergency\n", cap.text());
    EXPECT_TRUE(cap.contains("error text"));
    EXPECT_FALSE(cap.contains("warning"));
    EXPECT_EQ(1u, cap.count_priority(LM_EMERGENCY));
    EXPECT_EQ(2u, cap.count("g"));
    cap.clear();
    EXPECT_TRUE(cap.empty());
  }
  EXPECT_EQ(stderr_before, static_cast<bool>(log->flags() & ACE_Log_Msg::STDERR));
}

TEST(Log_Capture, SeesItsOwnThreadUnlessAnotherThreadAttaches)
{
  Log_Capture cap;
  std::thread([] { ACE_ERROR((LM_ERROR, "unseen\n")); }).join();
  EXPECT_TRUE(cap.empty());

  std::thread([&cap] {
    Log_Capture::Attach attach(cap);
    ACE_ERROR((LM_ERROR, "seen from a worker\n"));
  }).join();
  ACE_ERROR((LM_ERROR, "seen from the owner\n"));
  EXPECT_EQ((std::vector<std::string>{"seen from a worker\n", "seen from the owner\n"}), cap.lines());
}
