#include "tessel/yajl_gen.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

TEST(JSON_Generator, WritesThroughYAJL_GenAndClosesTheGuardedMapOnEveryPath)
{
  struct Pair_Generator : JSON_Generator
  {
    bool fail = false;
    bool generate_i(YAJL_Gen& gen) override
    {
      YAJL_Map_Guard map(gen.get());
      gen << YAJL_Gen::Str("k", 1) << std::string("v") << "n" << YAJL_Gen::Number("1.50", 4) << "list";
      gen.array_open() << true << 7 << 8LL << 0.5 << YAJL_Gen::Null();
      gen.array_close();
      return !fail;
    }
  };
  for (bool fail : {false, true})
  {
    std::string out;
    YAJL_String_Printer printer(&out);
    YAJL_Gen gen(yajl_gen_alloc(nullptr), true);
    yajl_gen_config(gen.get(), yajl_gen_print_callback, &YAJL_Printer::print_s, &printer);
    Pair_Generator p;
    p.fail = fail;
    EXPECT_EQ(!fail, p.generate(gen.get()));
    EXPECT_EQ("{\"k\":\"v\",\"n\":1.50,\"list\":[true,7,8,0.5,null]}", out);
  }
  Pair_Generator p;
  EXPECT_FALSE(p.generate(nullptr));
}

TEST(YAJL_Gen, KeepsTheFirstRefusedStatus)
{
  YAJL_Gen gen(yajl_gen_alloc(nullptr), true);
  gen.map_open() << 1;
  EXPECT_EQ(yajl_gen_keys_must_be_strings, gen.status());
  gen << "key" << "value";
  gen.map_close();
  EXPECT_FALSE(gen.ok());
  EXPECT_EQ(yajl_gen_keys_must_be_strings, gen.status());
}

TEST(YAJL_Error, QuotesTheTextAroundTheFault)
{
  const std::string bad = "[1,,2]";
  YAJL_Handler e;
  yajl_handle h = yajl_alloc(get_yajl_default_callbacks(), nullptr, &e);
  ASSERT_NE(yajl_status_ok, yajl_parse(h, reinterpret_cast<const unsigned char*>(bad.data()), bad.size()));
  {
    YAJL_Error verbose(h, true, bad.data(), bad.size());
    EXPECT_NE(nullptr, std::strstr(verbose.c_str(), "[1,,2]")) << verbose.c_str();
    YAJL_Error terse(h, false, nullptr, 0);
    EXPECT_NE(nullptr, std::strstr(terse.c_str(), "parse error")) << terse.c_str();
    EXPECT_EQ(nullptr, std::strstr(terse.c_str(), "[1,,2]")) << terse.c_str();
  }
  yajl_free(h);
  EXPECT_STREQ("", YAJL_Error(nullptr, true, nullptr, 0).c_str());
}

TEST(YAJL_Feeder, GathersPiecesInsideALongTokenAndLosesNothing)
{
  struct Recorder : YAJL_Handler
  {
    std::string seen;
    bool handle_null_i() override { return note("n"); }
    bool handle_number_i(char const* t, unsigned long long n) override { return note(std::string(t, n)); }
    bool handle_string_i(char const*, unsigned long long n) override { return note(std::to_string(n)); }
    bool handle_start_array_i() override { return note("["); }
    bool handle_end_array_i() override { return note("]"); }
    bool note(const std::string& s)
    {
      seen += s + " ";
      return true;
    }
  };
  const std::string text = "[1, \"" + std::string(1 << 20, 'x') + "\", 22, null]";
  Recorder r;
  yajl_handle h = yajl_alloc(get_yajl_default_callbacks(), nullptr, &r);
  YAJL_Feeder feeder;
  unsigned int parse_calls = 0;
  for (char c : text)
  {
    ASSERT_EQ(yajl_status_ok, feeder.feed(h, r, &c, 1));
    parse_calls += feeder.data() != nullptr;
  }
  ASSERT_EQ(yajl_status_ok, feeder.feed(h, r, nullptr, 0));
  EXPECT_EQ("[ 1 1048576 22 n ] ", r.seen);
  // A million single bytes reach YAJL in a few growing pieces.
  EXPECT_LT(parse_calls, 64u);
  yajl_free(h);
}
