#ifndef TESTS_SERVICE_TEST_STATE_H
#define TESTS_SERVICE_TEST_STATE_H

// What the test handler library reports back to the tests. It lives in a
// library of its own that the tests link, so that it outlives the handler
// library, which the service loads and unloads.

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

struct Test_State
{
  struct Init
  {
    int argc;
    bool argv_null;
    std::vector<std::string> argv;
  };

  std::vector<Init> inits() const;
  void record_init(int argc, char** argv);
  void reset();

  /// Objects that went through their destroy function, and through delete.
  std::atomic<int> destroyed{0}, deleted{0};

private:
  mutable std::mutex mutex_;
  std::vector<Init> inits_;
};

__attribute__((visibility("default"))) Test_State& test_state();

#endif
