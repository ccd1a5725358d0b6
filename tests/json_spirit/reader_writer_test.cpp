#include "json_spirit/json_spirit.h"

#include "log_capture.h"
#include "test_util.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstring>
#include <sstream>

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

namespace
{
  // Reads text fed in pieces of the given size (0: whole).
  bool read(const std::string& text, Value& value, size_t piece = 0)
  {
    JSON_Reader reader;
    if (!reader.open())
      return false;
    reader.result(&value);
    return read_in_pieces(reader, text, piece);
  }

  const unsigned int million = 1000000;

  std::string nested(unsigned int depth, const std::string& inner = "")
  {
    return std::string(depth, '[') + inner + std::string(depth, ']');
  }

  // A value nested depth levels, alternating arrays and objects, built
  // without recursion.
  Value deep_value(unsigned int depth)
  {
    Value v("leaf");
    for (unsigned int i = 0; i < depth; ++i)
    {
      Value outer = i % 2 ? Value(Object()) : Value(Array());
      if (i % 2)
        outer.get_obj()["k"] = std::move(v);
      else
        outer.get_array().push_back(std::move(v));
      v = std::move(outer);
    }
    return v;
  }
}

TEST(JSON_Reader, ReadsAndWritesBackCompactInAnyPieces)
{
  const std::pair<const char*, const char*> cases[] = {
    {"null", "null"},
    {" true ", "true"},
    {"-12", "-12"},
    {"\"caf\\u00e9 \\ud83d\\ude00 \\/ \\u0000\"", "\"caf\xc3\xa9 \xf0\x9f\x98\x80 / \\u0000\""},
    {"[ 1 , 2.5 , -0.0 , 1e2 , [ ] , { } ]", "[1,2.5,-0.0,100.0,[],{}]"},
    {"{\"b\":[{\"c\":null}],\"a\":\"x\\ty\",\"a\":false}", "{\"a\":false,\"b\":[{\"c\":null}]}"},
    // Arrays inside arrays and objects at every depth, long and short strings.
    {"[[1,[2,[],\"a string longer than sixteen\"],3],{\"a\":[4,{\"b\":[5,[6]]}]},[]]",
     "[[1,[2,[],\"a string longer than sixteen\"],3],{\"a\":[4,{\"b\":[5,[6]]}]},[]]"},
    {"18446744073709551615", "18446744073709551615"},
    {"[-2147483649,2147483648]", "[-2147483649,2147483648]"},
    {"[9223372036854775807,-9223372036854775808,18446744073709551616]",
     "[9223372036854775807,-9223372036854775808,18446744073709551616.0]"},
  };
  for (const auto& c : cases)
  {
    Value whole;
    ASSERT_TRUE(read(c.first, whole)) << c.first;
    EXPECT_EQ(c.second, json_spirit::write_string(whole)) << c.first;
    Value single;
    ASSERT_TRUE(read(c.first, single, 1)) << c.first;
    EXPECT_EQ(whole, single) << c.first;
    Value again;
    ASSERT_TRUE(json_spirit::read_string(c.second, again));
    EXPECT_EQ(whole, again) << c.second;
  }
}

TEST(JSON_Writer, WritesRealsInTheShortestTextThatReadsBack)
{
  const std::pair<double, const char*> cases[] = {
    {0.1, "0.1"},     {2.0, "2.0"},         {-0.0, "-0.0"},  {1e22, "1e+22"},
    {1.0 / 3, "0.3333333333333333"},        {5e-324, "5e-324"},
    {DBL_MAX, "1.7976931348623157e+308"},   {123456.789, "123456.789"},
  };
  for (const auto& c : cases)
  {
    const std::string text = json_spirit::write_string(Value(c.first));
    EXPECT_EQ(c.second, text);
    Value back;
    ASSERT_TRUE(json_spirit::read_string(text, back)) << text;
    EXPECT_EQ(6, back.type()) << text;
    const double d = back.get_real();
    EXPECT_EQ(0, std::memcmp(&c.first, &d, sizeof d)) << text;
  }
  std::string out;
  YAJL_String_Printer printer(&out);
  EXPECT_FALSE(JSON_Writer().write(Value(Array{Value(NAN)}), printer));
  EXPECT_FALSE(JSON_Writer().write(Value(INFINITY), printer));
}

TEST(JSON_Writer, PrettyFormAndDumpAndGeneratorForm)
{
  const Value v(Object{{"a", Value(Array{Value(1)})}});
  std::ostringstream os;
  YAJL_OStream_Printer printer(&os);
  ASSERT_TRUE(JSON_Writer().write(v, printer, true));
  Value back;
  ASSERT_TRUE(json_spirit::read_string(os.str(), back));
  EXPECT_EQ(v, back);
  EXPECT_NE(std::string::npos, os.str().find('\n'));
  EXPECT_STREQ("{\"a\":[1]}", JSON_Dump(v).c_str());

  struct Generator : JSON_Generator
  {
    bool generate_i(YAJL_Gen& gen) override { return (gen << "text").ok(); }
  } g;
  std::string out;
  YAJL_String_Printer sp(&out);
  EXPECT_TRUE(JSON_Writer().write(g, sp));
  EXPECT_EQ("\"text\"", out);
}

TEST(JSON_Parser, FillsAnEmptyContainerWithoutItsOpeningEvent)
{
  Value array{Array()};
  JSON_Parser parser;
  parser.result(&array);
  EXPECT_TRUE(parser.handle_number_i("1", 1));
  EXPECT_TRUE(parser.handle_start_map_i());
  EXPECT_TRUE(parser.handle_map_key_i("k", 1));
  EXPECT_TRUE(parser.handle_string_i("v", 1));
  EXPECT_TRUE(parser.handle_end_map_i());
  EXPECT_FALSE(parser.complete());
  EXPECT_TRUE(parser.handle_end_array_i());
  EXPECT_TRUE(parser.complete());
  EXPECT_EQ(Value(Array{Value(1), Value(Object{{"k", Value("v")}})}), array);
  // The value is finished: nothing more goes in.
  EXPECT_FALSE(parser.handle_null_i());
  EXPECT_FALSE(parser.handle_end_array_i());

  Value object{Object()};
  parser.result(&object);
  EXPECT_TRUE(parser.handle_map_key_i("n", 1));
  EXPECT_TRUE(parser.handle_null_i());
  EXPECT_FALSE(parser.handle_end_array_i());
  EXPECT_TRUE(parser.handle_end_map_i());
  EXPECT_EQ(Value(Object{{"n", Value()}}), object);

  // A target that holds something is replaced by the first value.
  Value full(Array{Value(1)});
  parser.result(&full);
  EXPECT_TRUE(parser.handle_boolean_i(true));
  EXPECT_TRUE(parser.complete());
  EXPECT_EQ(Value(true), full);

  parser.result(nullptr);
  EXPECT_FALSE(parser.handle_null_i());
}

TEST(JSON_Reader, OneReaderReadsDocumentAfterDocumentWhateverCameBefore)
{
  // Opened once per document, it keeps YAJL's small blocks for the next
  // one; long tokens grow those buffers past what is kept, and a failure
  // leaves a handle in the middle of a document.
  Log_Capture cap;
  JSON_Reader reader;
  const std::string long_text(100000, 'x');
  const std::string long_doc = "[\"" + long_text + "\"," + std::string(120, '[') + std::string(120, ']') + "]";
  const std::pair<std::string, bool> docs[] = {
    {"[{}]", true}, {long_doc, true}, {"[}", false}, {"{\"a\":1}", true}, {long_doc, true}, {"[1,", false}, {"2", true}};
  for (size_t piece : {size_t(0), size_t(7)})
    for (const auto& d : docs)
    {
      Value v;
      ASSERT_TRUE(reader.open());
      reader.result(&v);
      bool ok = read_in_pieces(reader, d.first, piece);
      ASSERT_EQ(d.second, ok) << d.first.substr(0, 20);
      if (ok)
      {
        EXPECT_EQ(d.first, json_spirit::write_string(v)) << d.first.substr(0, 20);
      }
    }
  reader.close();
  EXPECT_FALSE(reader.read("1", 1));
}

TEST(Nesting, DocumentsUpToTheLimitReadAndWriteAndAMillionLevelsAreRefusedWithALogLine)
{
  Value v;
  const std::string at_limit = nested(json_spirit::max_depth - 1, "{\"a\":1}");
  ASSERT_TRUE(json_spirit::read_string(at_limit, v));
  EXPECT_EQ(at_limit, json_spirit::write_string(v));
  // The object inside is one level more than the limit allows.
  Log_Capture cap;
  EXPECT_FALSE(json_spirit::read_string(nested(json_spirit::max_depth, "{\"a\":1}"), v));
  cap.clear();
  EXPECT_FALSE(json_spirit::read_string(nested(million), v));
  EXPECT_EQ(1u, cap.count("JSON nested deeper than 127 levels refused.\n")) << cap.text();
  EXPECT_EQ(1u, cap.count("Failed to parse JSON: ")) << cap.text();

  // The same, fed in pieces: the reader stays refused.
  JSON_Reader reader;
  ASSERT_TRUE(reader.open());
  reader.result(&v);
  const std::string opening(4096, '[');
  bool ok = true;
  for (unsigned int i = 0; ok && i < million / opening.size(); ++i)
    ok = reader.read(opening.data(), opening.size());
  EXPECT_FALSE(ok);
  EXPECT_FALSE(reader.read(nullptr, 0));
}

TEST(Nesting, AMillionLevelDeepValueIsDestroyedAndNotWritten)
{
  Value v = deep_value(million);
  std::string out;
  YAJL_String_Printer printer(&out);
  EXPECT_FALSE(JSON_Writer().write(v, printer));
  Value shallow = deep_value(json_spirit::max_depth);
  EXPECT_TRUE(JSON_Writer().write(shallow, printer));

  // Moving a child into its parent frees the rest without recursion.
  ASSERT_EQ(json_spirit::obj_type, v.type());
  v = std::move(v.get_obj()["k"]);
  ASSERT_EQ(json_spirit::array_type, v.type());
  v = Value();
  v = deep_value(million);
}
