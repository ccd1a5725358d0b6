// A params filter for "sum.stream": it adds up a numeric array while the
// array streams in, so that params of any length never become a tree.
//
// Contract with the method's handler: when the params value ends, the
// filter replaces the request's params with the sum (an integer while every
// element is one and the total fits in 64 bits, otherwise a double), or,
// if params were not a flat array of numbers, with a text that says why.
// The handler answers with the number, or with -32602 and that text.
#include "example_util.h"

#include "json_rpc/json_rpc_params_filter.h"

#include <string>

namespace
{
  class Sum_Filter : public YAJL_Handler
  {
  public:
    explicit Sum_Filter(JSON_RPC_Object_Ptr object) : object_(object), depth_(0), index_(0) {}

    bool handle_number_i(char const* text, unsigned long long length) override
    {
      if (depth_ == 1 && error_.empty() && !sum_.add(text, length))
        error_ = "element " + std::to_string(index_) + " is not a number";
      return element();
    }
    bool handle_integer_i(long long value) override
    {
      if (depth_ == 1)
        sum_.add(json_spirit::Value(value));
      return element();
    }
    bool handle_double_i(double value) override
    {
      if (depth_ == 1)
        sum_.add(json_spirit::Value(value));
      return element();
    }
    bool handle_null_i() override { return other(); }
    bool handle_boolean_i(bool) override { return other(); }
    bool handle_string_i(char const*, unsigned long long) override { return other(); }
    bool handle_map_key_i(char const*, unsigned long long) override { return true; }
    bool handle_start_map_i() override { return open(true); }
    bool handle_start_array_i() override { return open(false); }
    bool handle_end_map_i() override { return close(); }
    bool handle_end_array_i() override { return close(); }

  private:
    bool open(bool map)
    {
      if (depth_ == 0 && map)
        error_ = "params must be an array of numbers";
      else if (depth_ == 1 && error_.empty())
        error_ = "element " + std::to_string(index_) + " is not a number";
      ++depth_;
      return true;
    }

    bool close()
    {
      if (--depth_ == 0)
        finish();
      else if (depth_ == 1)
        ++index_;
      return true;
    }

    // A scalar that is params itself, or an element of the array.
    bool element()
    {
      if (depth_ == 0)
      {
        error_ = "params must be an array of numbers";
        finish();
      }
      else if (depth_ == 1)
        ++index_;
      return true;
    }

    bool other()
    {
      if (depth_ == 1 && error_.empty())
        error_ = "element " + std::to_string(index_) + " is not a number";
      return element();
    }

    void finish()
    {
      JSON_RPC_Request& request = static_cast<JSON_RPC_Request&>(*object_);
      request.params = error_.empty() ? sum_.value() : json_spirit::Value(error_);
    }

    JSON_RPC_Object_Ptr object_;
    example::Number_Sum sum_;
    std::string error_;
    unsigned int depth_;
    unsigned long long index_;
  };

  class Sum_Filter_Creator : public JSON_RPC_Params_Handler_Creator
  {
  public:
    YAJL_Handler* create(JSON_RPC_Channel_Weak_Ptr, JSON_RPC_Object_Ptr object) override
    {
      return new (std::nothrow) Sum_Filter(object);
    }
  };
}

EXAMPLE_FACTORY JSON_RPC_Params_Handler_Creator* make_sum_filter(void (**destroy)(void*))
{
  return example::make<Sum_Filter_Creator, JSON_RPC_Params_Handler_Creator>(destroy);
}
