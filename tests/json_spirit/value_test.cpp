#include "json_spirit/json_spirit.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <cmath>
#include <map>

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

TEST(Value, KindsAndTheNumbersCallersTest)
{
  // What each constructor makes, as the numbers callers compare with.
  const std::pair<Value, int> kinds[] = {
    {Value("s"), 2}, {Value(std::string("s")), 2}, {Value(7), 5}, {Value(7LL), 5}, {Value(7u), 5}, {Value(1.5), 6},
    {Value(), 7},    {Value(false), json_spirit::bool_type}, {Value(Object()), json_spirit::obj_type},
    {Value(Array()), json_spirit::array_type}};
  for (const auto& k : kinds)
    EXPECT_EQ(k.second, k.first.type()) << json_spirit::write_string(k.first);
  EXPECT_TRUE(Value::null.is_null());

  // The wrong getter gives the kind's zero value.
  EXPECT_EQ("", Value(5).get_str());
  EXPECT_EQ(0, Value("5").get_int());
  EXPECT_TRUE(Value(1.5).get_obj().empty());
  EXPECT_FALSE(Value("true").get_bool());
  EXPECT_EQ(2.0, Value(2).get_real());
}

TEST(Value, IntegersBeyondThirtyTwoBitsAreReadAsInt64)
{
  EXPECT_FALSE(Value(INT_MAX).is_uint64());
  EXPECT_FALSE(Value(INT_MIN).is_uint64());
  EXPECT_TRUE(Value(static_cast<long long>(INT_MAX) + 1).is_uint64());
  EXPECT_TRUE(Value(static_cast<long long>(INT_MIN) - 1).is_uint64());
  EXPECT_EQ(-2147483649LL, Value(static_cast<long long>(INT_MIN) - 1).get_int64());
  EXPECT_FALSE(Value(1.0e12).is_uint64());

  const Value big(ULLONG_MAX);
  EXPECT_EQ(5, big.type());
  EXPECT_TRUE(big.is_uint64());
  EXPECT_EQ(ULLONG_MAX, big.get_uint64());
  EXPECT_EQ(18446744073709551615.0, big.get_real());
  // Same bits, other number.
  EXPECT_NE(Value(-1LL), big);
  EXPECT_EQ(Value(static_cast<unsigned long long>(LLONG_MAX)), Value(LLONG_MAX));
}

TEST(Value, CopiesAreDeepMovesEmptyTheSourceAndAChildCanReplaceItsParent)
{
  const Value sample(Object{{"list", Value(Array{Value(1), Value("two"), Value(Array{Value(3.5)})})},
                            {"inner", Value(Object{{"k", Value(true)}})}});
  Value original = sample;
  Value copy(original);
  copy.get_obj()["list"].get_array()[2].get_array().push_back(Value(4));
  EXPECT_NE(original, copy);
  EXPECT_EQ(1u, original.get_obj()["list"].get_array()[2].get_array().size());

  Value moved(std::move(copy));
  EXPECT_TRUE(copy.is_null());
  EXPECT_EQ(4, moved.get_obj()["list"].get_array()[2].get_array()[1].get_int());
  Value s("text");
  s.swap(moved);
  EXPECT_EQ("text", moved.get_str());
  EXPECT_EQ(json_spirit::obj_type, s.type());

  Value& alias = original;
  original = alias;
  original = std::move(alias);
  EXPECT_EQ(sample, original);
  original = original.get_obj()["list"];
  EXPECT_EQ(Value(Array{Value(1), Value("two"), Value(Array{Value(3.5)})}), original);
  original = std::move(original.get_array()[2]);
  original = std::move(original.get_array()[0]);
  EXPECT_EQ(Value(3.5), original);
}

TEST(value_lesser, IsAStrictWeakOrderThatKeepsEveryIdApart)
{
  const std::vector<Value> values = {
    Value(),      Value(false),       Value(true),     Value(-1LL),   Value(0),     Value(1),
    Value(INT_MAX), Value(LLONG_MAX), Value(ULLONG_MAX), Value(LLONG_MAX + 1ULL), Value(1.0), Value(-0.5),
    Value(""),    Value("1"),         Value("a"),      Value(Array()), Value(Array{Value(1)}),
    Value(Array{Value(1), Value(2)}), Value(Array{Value(2)}), Value(Object()),
    Value(Object{{"a", Value(1)}}),   Value(Object{{"a", Value(2)}}), Value(Object{{"b", Value(0)}})};
  json_spirit::value_lesser less;
  for (const Value& a : values)
  {
    EXPECT_FALSE(less(a, a));
    for (const Value& b : values)
    {
      // Equivalent exactly when equal, and never both ways.
      EXPECT_EQ(a == b, !less(a, b) && !less(b, a)) << json_spirit::write_string(a) << " "
                                                      << json_spirit::write_string(b);
      EXPECT_FALSE(less(a, b) && less(b, a));
      for (const Value& c : values)
      {
        if (less(a, b) && less(b, c))
        {
          EXPECT_TRUE(less(a, c));
        }
      }
    }
  }
  EXPECT_TRUE(less(Value(-1LL), Value(ULLONG_MAX)));
  EXPECT_TRUE(less(Value(LLONG_MAX), Value(LLONG_MAX + 1ULL)));

  std::map<Value, int, json_spirit::value_lesser> ids;
  for (size_t i = 0; i < values.size(); ++i)
    ids[values[i]] = static_cast<int>(i);
  EXPECT_EQ(values.size(), ids.size());
  EXPECT_EQ(13, ids[Value("1")]);
  EXPECT_EQ(5, ids[Value(1LL)]);
  EXPECT_EQ(8, ids.at(Value(ULLONG_MAX)));
}

TEST(number_to_value, IntegersStayIntegersUpToSixtyFourBitsAndTheRestAreReals)
{
  const std::pair<const char*, Value> cases[] = {
    {"0", Value(0)},
    {"-0", Value(0)},
    {"-42", Value(-42)},
    {"2147483648", Value(2147483648LL)},
    {"9223372036854775807", Value(LLONG_MAX)},
    {"-9223372036854775808", Value(LLONG_MIN)},
    {"9223372036854775808", Value(9223372036854775808ULL)},
    {"18446744073709551615", Value(ULLONG_MAX)},
    // Beyond 64 bits only a real can hold it.
    {"18446744073709551616", Value(18446744073709551616.0)},
    {"-9223372036854775809", Value(-9223372036854775809.0)},
    {"1.5", Value(1.5)},
    {"1e2", Value(100.0)},
    {"1E-2", Value(0.01)},
    {"1.5e+3", Value(1500.0)},
    {"2.0", Value(2.0)},
    {"4.9e-324", Value(4.9e-324)},
    {"1.7976931348623157e308", Value(1.7976931348623157e308)},
    // Underflow settles to zero.
    {"1e-400", Value(0.0)},
  };
  for (const auto& c : cases)
  {
    Value v;
    EXPECT_TRUE(json_spirit::number_to_value(c.first, std::strlen(c.first), v)) << c.first;
    EXPECT_EQ(c.second, v) << c.first;
    EXPECT_EQ(c.second.type(), v.type()) << c.first;
  }
  Value negative_zero;
  ASSERT_TRUE(json_spirit::number_to_value("-0.0", 4, negative_zero));
  EXPECT_EQ(6, negative_zero.type());
  EXPECT_TRUE(std::signbit(negative_zero.get_real()));
  // Only the given length counts.
  Value cut;
  ASSERT_TRUE(json_spirit::number_to_value("125", 2, cut));
  EXPECT_EQ(Value(12), cut);
}

TEST(number_to_value, RefusesOutOfRangeAndTextThatIsNoJsonNumber)
{
  for (const char* text : {"1e400", "-1e400", "", "abc", "-", "1.", ".5", "1e", "0x10", "0x1.8p1", "+1", "+1.5",
                           " 1.5", "1.5 ", "01", "inf", "nan", "1.5x", "1,5"})
  {
    Value v("untouched");
    EXPECT_FALSE(json_spirit::number_to_value(text, std::strlen(text), v)) << '"' << text << '"';
    EXPECT_EQ(Value("untouched"), v) << text;
  }
  Value v;
  EXPECT_FALSE(json_spirit::number_to_value(nullptr, 0, v));
}
