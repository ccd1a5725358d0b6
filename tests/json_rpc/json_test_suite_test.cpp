#include "rpc_test_util.h"

#include "log_capture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <iostream>

namespace
{
  // Files of the suite whose names start with prefix, sorted.
  std::vector<std::string> suite_files(const std::string& prefix)
  {
    std::vector<std::string> names;
    std::error_code missing;
    for (const auto& entry : std::filesystem::directory_iterator(JSON_TEST_SUITE_DIR, missing))
    {
      std::string name = entry.path().filename().string();
      if (name.compare(0, prefix.size(), prefix) == 0 && entry.path().extension() == ".json")
        names.push_back(name);
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  std::string content(const std::string& name) { return read_file(std::string(JSON_TEST_SUITE_DIR) + "/" + name); }

  struct Outcome
  {
    bool json;             // JSON_Reader read it
    json_spirit::Value value;
    bool rpc;              // JSON_RPC_Reader read it as params
    json_spirit::Value params;
  };

  // The document read alone, and as a request's params whole and byte by byte.
  Outcome run(const std::string& doc)
  {
    Outcome o{};
    o.json = json_spirit::read_string(doc, o.value);
    const std::string message = "{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"m\",\"params\":" + doc + "}";
    Read_Outcome whole = read_message(message), bytes = read_message(message, 1);
    auto request = [](const Read_Outcome& r) {
      return r.ok && !r.object.null() && r.object->type == JSON_RPC_Object::TYPE_REQUEST;
    };
    o.rpc = request(whole);
    EXPECT_EQ(o.rpc, request(bytes)) << "byte by byte differs";
    if (o.rpc)
      o.params = static_cast<JSON_RPC_Request&>(*whole.object).params;
    return o;
  }
}

TEST(JSONTestSuite, EveryValidDocumentIsReadAsItselfAndAsParams)
{
  const std::vector<std::string> files = suite_files("y_");
  ASSERT_GT(files.size(), 90u) << "no suite in " << JSON_TEST_SUITE_DIR;
  Log_Capture cap;
  for (const std::string& name : files)
  {
    Outcome o = run(content(name));
    EXPECT_TRUE(o.json) << name;
    EXPECT_TRUE(o.rpc) << name;
    EXPECT_EQ(o.value, o.params) << name;
    // What was read writes and reads back the same.
    json_spirit::Value again;
    EXPECT_TRUE(json_spirit::read_string(json_spirit::write_string(o.value), again)) << name;
    EXPECT_EQ(o.value, again) << name;
  }
  EXPECT_TRUE(cap.empty()) << cap.text();
}

TEST(JSONTestSuite, EveryInvalidDocumentIsRefusedByBoth)
{
  const std::vector<std::string> files = suite_files("n_");
  ASSERT_GT(files.size(), 180u);
  Log_Capture cap;
  for (const std::string& name : files)
  {
    cap.clear();
    Outcome o = run(content(name));
    EXPECT_FALSE(o.json) << name;
    EXPECT_FALSE(o.rpc) << name;
    // One line for each refusal: the document once, the message whole and byte by byte.
    EXPECT_EQ(1u, cap.count("Failed to parse JSON: ")) << name << "\n" << cap.text().substr(0, 1000);
    EXPECT_EQ(2u, cap.count("Failed to parse JSON-RPC: ")) << name << "\n" << cap.text().substr(0, 1000);
  }
}

TEST(JSONTestSuite, NoImplementationDefinedDocumentCrashesEither)
{
  const std::vector<std::string> files = suite_files("i_");
  ASSERT_GT(files.size(), 30u);
  Log_Capture cap;
  for (const std::string& name : files)
  {
    Outcome o = run(content(name));
    // Both readers agree on each, and the outcome goes in the test log.
    EXPECT_EQ(o.json, o.rpc) << name;
    if (o.json && o.rpc)
    {
      EXPECT_EQ(o.value, o.params) << name;
    }
    std::cout << (o.json ? "accepted " : "refused  ") << name << "\n";
  }
}
