#include "tessel/yajl_gen.h"

#include <cstring>
#include <ostream>

YAJL_Printer::~YAJL_Printer() {}

void YAJL_Printer::print_s(void* ctx, const char* data, size_t length)
{
  static_cast<YAJL_Printer*>(ctx)->print(data, length);
}

YAJL_OStream_Printer::YAJL_OStream_Printer(std::ostream* os) : os_(os) {}

void YAJL_OStream_Printer::print(char const* data, unsigned long long length)
{
  if (os_)
    os_->write(data, static_cast<std::streamsize>(length));
}

YAJL_String_Printer::YAJL_String_Printer(std::string* out) : out_(out) {}

void YAJL_String_Printer::print(char const* data, unsigned long long length)
{
  if (out_)
    out_->append(data, length);
}

YAJL_Batch_Printer::YAJL_Batch_Printer(YAJL_Printer* target) : target_(target), used_(0) {}

YAJL_Batch_Printer::~YAJL_Batch_Printer() { flush(); }

void YAJL_Batch_Printer::target(YAJL_Printer* target)
{
  flush();
  target_ = target;
}

void YAJL_Batch_Printer::print(char const* data, unsigned long long length)
{
  if (used_ + length <= sizeof buffer_)
  {
    char* to = buffer_ + used_;
    size_t n = static_cast<size_t>(length);
    // YAJL prints a few bytes at a time (quotes, colons, short strings):
    // fixed-size copies, which the compiler inlines, beat a call to memcpy.
    if (n >= 8 && n <= 16)
    {
      std::memcpy(to, data, 8);
      std::memcpy(to + n - 8, data + n - 8, 8);
    }
    else if (n >= 4 && n < 8)
    {
      std::memcpy(to, data, 4);
      std::memcpy(to + n - 4, data + n - 4, 4);
    }
    else if (n < 4)
    {
      for (size_t i = 0; i < n; ++i)
        to[i] = data[i];
    }
    else
      std::memcpy(to, data, n);
    used_ += n;
    return;
  }
  flush();
  if (length >= sizeof buffer_)
  {
    if (target_)
      target_->print(data, length);
    return;
  }
  std::memcpy(buffer_, data, static_cast<size_t>(length));
  used_ = static_cast<size_t>(length);
}

void YAJL_Batch_Printer::flush()
{
  if (used_ && target_)
    target_->print(buffer_, used_);
  used_ = 0;
}

void YAJL_Batch_Printer::print_b(void* ctx, const char* data, size_t length)
{
  static_cast<YAJL_Batch_Printer*>(ctx)->YAJL_Batch_Printer::print(data, length);
}

YAJL_Gen::YAJL_Gen(yajl_gen_t* gen, bool own) : gen_(gen), own_(own), status_(yajl_gen_status_ok) {}

YAJL_Gen::~YAJL_Gen()
{
  if (own_ && gen_)
    yajl_gen_free(gen_);
}

YAJL_Gen& YAJL_Gen::note(yajl_gen_status s)
{
  if (status_ == yajl_gen_status_ok)
    status_ = s;
  return *this;
}

YAJL_Gen& YAJL_Gen::operator<<(const Str& s)
{
  return note(yajl_gen_string(gen_, reinterpret_cast<const unsigned char*>(s.data), s.length));
}

YAJL_Gen& YAJL_Gen::operator<<(const Number& n) { return note(yajl_gen_number(gen_, n.data, n.length)); }
YAJL_Gen& YAJL_Gen::operator<<(char const* s) { return *this << Str(s, s ? std::char_traits<char>::length(s) : 0); }
YAJL_Gen& YAJL_Gen::operator<<(const std::string& s) { return *this << Str(s); }
YAJL_Gen& YAJL_Gen::operator<<(bool b) { return note(yajl_gen_bool(gen_, b ? 1 : 0)); }
YAJL_Gen& YAJL_Gen::operator<<(int i) { return note(yajl_gen_integer(gen_, i)); }
YAJL_Gen& YAJL_Gen::operator<<(long long i) { return note(yajl_gen_integer(gen_, i)); }
YAJL_Gen& YAJL_Gen::operator<<(double d) { return note(yajl_gen_double(gen_, d)); }
YAJL_Gen& YAJL_Gen::operator<<(Null) { return note(yajl_gen_null(gen_)); }
YAJL_Gen& YAJL_Gen::map_open() { return note(yajl_gen_map_open(gen_)); }
YAJL_Gen& YAJL_Gen::map_close() { return note(yajl_gen_map_close(gen_)); }
YAJL_Gen& YAJL_Gen::array_open() { return note(yajl_gen_array_open(gen_)); }
YAJL_Gen& YAJL_Gen::array_close() { return note(yajl_gen_array_close(gen_)); }

YAJL_Map_Guard::YAJL_Map_Guard(yajl_gen_t* gen) : gen_(gen)
{
  if (gen_)
    yajl_gen_map_open(gen_);
}

YAJL_Map_Guard::~YAJL_Map_Guard()
{
  if (gen_)
    yajl_gen_map_close(gen_);
}

YAJL_Array_Guard::YAJL_Array_Guard(yajl_gen_t* gen) : gen_(gen)
{
  if (gen_)
    yajl_gen_array_open(gen_);
}

YAJL_Array_Guard::~YAJL_Array_Guard()
{
  if (gen_)
    yajl_gen_array_close(gen_);
}

JSON_Generator::~JSON_Generator() {}

bool JSON_Generator::generate(yajl_gen_t* gen)
{
  if (!gen)
    return false;
  YAJL_Gen g(gen, false);
  return generate_i(g) && g.ok();
}

YAJL_Forward_Handler::YAJL_Forward_Handler(yajl_gen_t* gen) : generate_handle_(gen) {}

#define FORWARD(call) (generate_handle_ ? (call) == yajl_gen_status_ok : true)

bool YAJL_Forward_Handler::handle_null_i() { return FORWARD(yajl_gen_null(generate_handle_)); }
bool YAJL_Forward_Handler::handle_boolean_i(bool value) { return FORWARD(yajl_gen_bool(generate_handle_, value)); }
bool YAJL_Forward_Handler::handle_integer_i(long long value) { return FORWARD(yajl_gen_integer(generate_handle_, value)); }
bool YAJL_Forward_Handler::handle_double_i(double value) { return FORWARD(yajl_gen_double(generate_handle_, value)); }

bool YAJL_Forward_Handler::handle_number_i(char const* text, unsigned long long length)
{
  return FORWARD(yajl_gen_number(generate_handle_, text, length));
}

bool YAJL_Forward_Handler::handle_string_i(char const* text, unsigned long long length)
{
  return FORWARD(yajl_gen_string(generate_handle_, reinterpret_cast<const unsigned char*>(text), length));
}

bool YAJL_Forward_Handler::handle_start_map_i() { return FORWARD(yajl_gen_map_open(generate_handle_)); }

bool YAJL_Forward_Handler::handle_map_key_i(char const* text, unsigned long long length)
{
  return FORWARD(yajl_gen_string(generate_handle_, reinterpret_cast<const unsigned char*>(text), length));
}

bool YAJL_Forward_Handler::handle_end_map_i() { return FORWARD(yajl_gen_map_close(generate_handle_)); }
bool YAJL_Forward_Handler::handle_start_array_i() { return FORWARD(yajl_gen_array_open(generate_handle_)); }
bool YAJL_Forward_Handler::handle_end_array_i() { return FORWARD(yajl_gen_array_close(generate_handle_)); }

#undef FORWARD
