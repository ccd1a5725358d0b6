#include "tessel/spin_wait.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>

TEST(Spin_Wait, ALoneWaiterPollsUntilTheAnswerComes)
{
  std::atomic<int> waiters(0);
  Spin_Wait spin(waiters);
  EXPECT_EQ(1, waiters.load());
  int polls = 0;
  EXPECT_TRUE(spin.spin([&] { return ++polls == 3; }));
  EXPECT_EQ(3, polls);
}

TEST(Spin_Wait, GivesUpAtItsBoundOrAtOnce)
{
  std::atomic<int> waiters(0);
  Spin_Wait spin(waiters);
  int polls = 0;
  EXPECT_FALSE(spin.spin([&] { return ++polls, false; }));
  EXPECT_GT(polls, 0);
  // A deadline already reached: no look at all.
  polls = 0;
  EXPECT_FALSE(spin.spin([&] { return ++polls, true; }, std::chrono::microseconds(0)));
  EXPECT_FALSE(spin.spin([&] { return ++polls, true; }, std::chrono::microseconds(-5)));
  EXPECT_EQ(0, polls);
  // A shorter limit still ends the spin.
  EXPECT_FALSE(spin.spin([&] { return ++polls, false; }, std::chrono::microseconds(1), 64));
  EXPECT_GT(polls, 0);
}

TEST(Spin_Wait, OnlyAThreadThatWaitsAloneSpins)
{
  std::atomic<int> waiters(0);
  {
    Spin_Wait first(waiters);
    Spin_Wait second(waiters);
    EXPECT_EQ(2, waiters.load());
    int polls = 0;
    EXPECT_FALSE(second.spin([&] { return ++polls, true; }));
    EXPECT_EQ(0, polls);
    // The first came while it was alone, and stays so for its wait.
    EXPECT_TRUE(first.spin([&] { return ++polls, true; }));
    EXPECT_EQ(1, polls);
  }
  EXPECT_EQ(0, waiters.load());
  Spin_Wait again(waiters);
  EXPECT_TRUE(again.spin([] { return true; }));
}
