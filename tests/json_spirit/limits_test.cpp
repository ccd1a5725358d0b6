#include "json_spirit/json_spirit.h"

#include "log_capture.h"

#include <gtest/gtest.h>

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

namespace
{
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
