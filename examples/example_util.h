#ifndef EXAMPLES_EXAMPLE_UTIL_H
#define EXAMPLES_EXAMPLE_UTIL_H

// What the example handler libraries share: the factory shape that the
// configuration files name, answering a call, and summing numbers.

#include "json_rpc/json_rpc_channel.h"
#include "json_spirit/json_spirit_reader.h"

#include <cerrno>
#include <cmath>
#include <new>
#include <string>

// A factory is found by its plain name with dlsym.
#define EXAMPLE_FACTORY extern "C" __attribute__((visibility("default")))

namespace example
{
  /// A new T, handed over as its base B with the function that destroys it.
  template <class T, class B>
  B* make(void (**destroy)(void*))
  {
    T* object = new (std::nothrow) T;
    if (!object)
    {
      errno = ENOMEM;
      return nullptr;
    }
    if (destroy)
      *destroy = [](void* p) { delete static_cast<B*>(p); };
    return object;
  }

  /// Answers a request with result; a notification gets nothing.
  inline int reply(JSON_RPC_Channel* channel, const JSON_RPC_Request& request, const json_spirit::Value& result)
  {
    if (!channel || request.type != JSON_RPC_Object::TYPE_REQUEST)
      return 0;
    JSON_RPC_Response* response = new (std::nothrow) JSON_RPC_Response(&request);
    if (!response)
    {
      errno = ENOMEM;
      return -1;
    }
    response->result = result;
    return channel->send_object(JSON_RPC_Object_Ptr(response));
  }

  /// Refuses a request's params (-32602) with a reason in data.
  inline int reply_invalid(JSON_RPC_Channel* channel, const JSON_RPC_Request& request, const std::string& reason)
  {
    if (!channel || request.type != JSON_RPC_Object::TYPE_REQUEST)
      return 0;
    return channel->send_error(-32602, request.id, nullptr, json_spirit::Value(reason));
  }

  /// A sum of JSON numbers: an integer while every term is one and the
  /// total fits in 64 bits, a double from then on.
  class Number_Sum
  {
  public:
    Number_Sum() : integer_(0), real_(0), is_real_(false), count_(0) {}

    /// False if value is not a number.
    bool add(const json_spirit::Value& value)
    {
      if (value.type() == json_spirit::int_type && !value.is_unsigned())
      {
        long long term = value.get_int64(), total;
        if (!is_real_ && !__builtin_add_overflow(integer_, term, &total))
        {
          integer_ = total;
          ++count_;
          return true;
        }
        return add_real(static_cast<double>(term));
      }
      if (value.type() == json_spirit::int_type)
        return add_real(static_cast<double>(value.get_uint64()));
      if (value.type() == json_spirit::real_type)
        return add_real(value.get_real());
      return false;
    }

    /// A number as the parser hands it over, in text.
    bool add(const char* text, unsigned long long length)
    {
      json_spirit::Value value;
      return json_spirit::number_to_value(text, length, value) && add(value);
    }

    json_spirit::Value value() const
    {
      return is_real_ ? json_spirit::Value(real_ + static_cast<double>(integer_)) : json_spirit::Value(integer_);
    }

    unsigned long long count() const { return count_; }

  private:
    bool add_real(double term)
    {
      if (!is_real_)
      {
        real_ = static_cast<double>(integer_);
        integer_ = 0;
        is_real_ = true;
      }
      real_ += term;
      ++count_;
      return true;
    }

    long long integer_;
    double real_;
    bool is_real_;
    unsigned long long count_;
  };
}

#endif
