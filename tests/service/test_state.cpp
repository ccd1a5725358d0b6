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

int Test_State::destroyed() const
{
  std::lock_guard<std::mutex> lock(mutex_);
  return destroyed_;
}

int Test_State::deleted() const
{
  std::lock_guard<std::mutex> lock(mutex_);
  return deleted_;
}

void Test_State::record_init(const std::string& tag, int argc, char** argv)
{
  Init init{tag, argc, argv == nullptr, {}};
  for (int i = 0; argv && i < argc; ++i)
    init.argv.push_back(argv[i] ? argv[i] : "(null)");
  std::lock_guard<std::mutex> lock(mutex_);
  inits_.push_back(init);
}

void Test_State::record_destroy()
{
  std::lock_guard<std::mutex> lock(mutex_);
  ++destroyed_;
}

void Test_State::record_delete()
{
  std::lock_guard<std::mutex> lock(mutex_);
  ++deleted_;
}

void Test_State::reset()
{
  std::lock_guard<std::mutex> lock(mutex_);
  inits_.clear();
  destroyed_ = deleted_ = 0;
}
