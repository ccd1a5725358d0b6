#include "tessel/yajl_gen.h"

#include <gtest/gtest.h>

#include <algorithm>
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

namespace
{
  // Writes down every event, strings by length.
  struct Recorder : YAJL_Handler
  {
    std::string seen;
    bool handle_null_i() override { return note("n"); }
    bool handle_boolean_i(bool v) override { return note(v ? "t" : "f"); }
    bool handle_number_i(char const* t, unsigned long long n) override { return note(std::string(t, n)); }
    bool handle_string_i(char const*, unsigned long long n) override { return note("s" + std::to_string(n)); }
    bool handle_map_key_i(char const*, unsigned long long n) override { return note("k" + std::to_string(n)); }
    bool handle_start_map_i() override { return note("{"); }
    bool handle_end_map_i() override { return note("}"); }
    bool handle_start_array_i() override { return note("["); }
    bool handle_end_array_i() override { return note("]"); }
    bool note(const std::string& s)
    {
      seen += s + " ";
      return true;
    }
  };

  // What YAJL itself makes of a prefix given in one call: the most events
  // any feeding can have fired by then, and whether the text is refused.
  struct Whole
  {
    std::string seen;
    bool refused;
  };

  Whole whole(std::string prefix)
  {
    // JSON has no form feed or vertical tab between tokens, which YAJL takes.
    std::replace(prefix.begin(), prefix.end(), '\f', '\x01');
    std::replace(prefix.begin(), prefix.end(), '\v', '\x01');
    Recorder r;
    yajl_handle h = yajl_alloc(get_yajl_default_callbacks(), nullptr, &r);
    bool refused = yajl_parse(h, reinterpret_cast<const unsigned char*>(prefix.data()), prefix.size()) != yajl_status_ok;
    yajl_free(h);
    return Whole{r.seen, refused};
  }
}

TEST(YAJL_Feeder, EachEventFiresAndEachErrorShowsInTheCallThatFeedsItsBytes)
{
  const std::string good[] = {
    "{\"k\":[1,-0.5e+3,0,10E2,\"a\\\"b\\u00e9\\n\",\"\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80\",true,false,null,{}],\"z\":-7}",
    "[123456789, \"" + std::string(300, 'x') + "\", 0.25]",
    "[1,22,333,4444,55555,1.5,2e3,-7,0,10,\"a\",4]",
  };
  // Each refused where YAJL refuses it: in a long string, in a number.
  const std::string bad[] = {
    "[\"" + std::string(200, 'x') + "\\q\"]",
    "[\"" + std::string(200, 'x') + "\\u12g4\"]",
    "[\"" + std::string(200, 'x') + "\x01\"]",
    "[\"" + std::string(200, 'x') + "\xC3(\"]",
    "[\"" + std::string(200, 'x') + "\xFF\"]",
    "[-x]", "[1.e5]", "[1e+]", "[12\f]", "[1,\v2]",
  };
  for (size_t piece : {1, 3, 7})
  for (const std::string* texts : {good, bad})
    for (size_t t = 0; t < (texts == good ? std::size(good) : std::size(bad)); ++t)
    {
      const std::string& text = texts[t];
      SCOPED_TRACE(text.substr(0, 40) + ", in pieces of " + std::to_string(piece));
      Recorder r;
      YAJL_Feeder feeder;
      yajl_handle h = feeder.alloc_handle(r);
      size_t i = 0;
      for (; i < text.size(); i += piece)
      {
        size_t n = std::min(piece, text.size() - i);
        bool ok = feeder.feed(h, &text[i], n) == yajl_status_ok;
        Whole w = whole(text.substr(0, i + n));
        ASSERT_EQ(w.refused, !ok) << "after byte " << i + n - 1;
        if (!ok)
          break;
        ASSERT_EQ(w.seen, r.seen) << "after byte " << i + n - 1;
      }
      if (texts == good)
        EXPECT_EQ(yajl_status_ok, feeder.feed(h, nullptr, 0));
      else
        EXPECT_LT(i, text.size()) << "never refused";
      yajl_free(h);
    }
}

TEST(YAJL_Feeder, ALongTokenFedInSmallPiecesReachesYAJLInFewCalls)
{
  const std::string text = "[1, \"" + std::string(1 << 20, 'x') + "\", 22, " + std::string(1 << 16, '7') + ", null]";
  Recorder r;
  YAJL_Feeder feeder;
  yajl_handle h = feeder.alloc_handle(r);
  unsigned int parse_calls = 0;
  for (char c : text)
  {
    ASSERT_EQ(yajl_status_ok, feeder.feed(h, &c, 1));
    parse_calls += feeder.data() != nullptr;
  }
  ASSERT_EQ(yajl_status_ok, feeder.feed(h, nullptr, 0));
  EXPECT_EQ("[ 1 s1048576 22 " + std::string(1 << 16, '7') + " n ] ", r.seen);
  // Only the bytes between the long tokens, and their ends, are fed alone:
  // each token's inside is read by YAJL once.
  EXPECT_LT(parse_calls, 40u);
  yajl_free(h);
}
