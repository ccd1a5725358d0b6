#include "test_state.h"

Test_State& test_state()
{
  static Test_State state;
  return state;
}

std::vector<Test_State::Init> Test_State::inits() const
{
  std::lock_guard<std::mutex> lock(mutex_);
  return inits_;
}

void Test_State::record_init(int argc, char** argv)
{
  Init init{argc, argv == nullptr, {}};
  for (int i = 0; argv && i < argc; ++i)
    init.argv.push_back(argv[i] ? argv[i] : "(null)");
  std::lock_guard<std::mutex> lock(mutex_);
  inits_.push_back(init);
}

void Test_State::reset()
{
  std::lock_guard<std::mutex> lock(mutex_);
  inits_.clear();
  destroyed = deleted = 0;
}
