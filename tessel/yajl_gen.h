#ifndef TESSEL_YAJL_GEN_H
#define TESSEL_YAJL_GEN_H

#include "tessel/tessel_export.h"
#include "tessel/yajl_handler.h"

#include <iosfwd>
#include <string>
#include <yajl/yajl_gen.h>

typedef struct yajl_gen_t yajl_gen_t;

/// Sink of generated text; print_s is the print callback handed to YAJL.
class TESSEL_EXPORT YAJL_Printer
{
public:
  virtual ~YAJL_Printer();
  virtual void print(char const* data, unsigned long long length) = 0;
  static void print_s(void* ctx, const char* data, size_t length);
};

/// Prints to a std::ostream (not owned).
class TESSEL_EXPORT YAJL_OStream_Printer : public YAJL_Printer
{
public:
  explicit YAJL_OStream_Printer(std::ostream* os);
  void print(char const* data, unsigned long long length) override;

private:
  std::ostream* os_;
};

/// Prints into a std::string (not owned).
class TESSEL_EXPORT YAJL_String_Printer : public YAJL_Printer
{
public:
  explicit YAJL_String_Printer(std::string* out);
  void print(char const* data, unsigned long long length) override;

private:
  std::string* out_;
};

/// Hands printed text on to another printer in pieces of up to 4 KiB.
/// YAJL prints a token, or a part of one, per call; gathered here, the
/// printer behind sees one call per piece. Nothing is held back after
/// flush(), which the writers call when a message ends.
class TESSEL_EXPORT YAJL_Batch_Printer : public YAJL_Printer
{
public:
  explicit YAJL_Batch_Printer(YAJL_Printer* target = nullptr);
  ~YAJL_Batch_Printer() override;
  YAJL_Batch_Printer(const YAJL_Batch_Printer&) = delete;
  YAJL_Batch_Printer& operator=(const YAJL_Batch_Printer&) = delete;

  /// Flushes to the printer there was, then prints to target.
  void target(YAJL_Printer* target);
  void print(char const* data, unsigned long long length) override;
  void flush();
  /// The print callback to hand to YAJL with this object as its context.
  static void print_b(void* ctx, const char* data, size_t length);

private:
  YAJL_Printer* target_;
  size_t used_;
  char buffer_[4096];
};

/// Streaming front of a yajl generator. The first failing status is kept in
/// status(); later tokens are still passed on, so a caller may check once at
/// the end.
class TESSEL_EXPORT YAJL_Gen
{
public:
  /// A string of known length, written as a value or, inside a map in key
  /// position, as a key (YAJL tells them apart by position).
  struct Str
  {
    Str(char const* d, unsigned long long n) : data(d), length(n) {}
    explicit Str(const std::string& s) : data(s.data()), length(s.size()) {}
    char const* data;
    unsigned long long length;
  };
  /// A number token passed through as text.
  struct Number
  {
    Number(char const* d, unsigned long long n) : data(d), length(n) {}
    char const* data;
    unsigned long long length;
  };
  struct Null
  {
  };

  /// With own == true the generator is freed by the destructor.
  YAJL_Gen(yajl_gen_t* gen, bool own = false);
  ~YAJL_Gen();
  YAJL_Gen(const YAJL_Gen&) = delete;
  YAJL_Gen& operator=(const YAJL_Gen&) = delete;

  yajl_gen_t* get() const { return gen_; }
  bool ok() const { return status_ == yajl_gen_status_ok; }
  yajl_gen_status status() const { return status_; }

  YAJL_Gen& operator<<(const Str& s);
  YAJL_Gen& operator<<(const Number& n);
  YAJL_Gen& operator<<(char const* s);
  YAJL_Gen& operator<<(const std::string& s);
  YAJL_Gen& operator<<(bool b);
  YAJL_Gen& operator<<(int i);
  YAJL_Gen& operator<<(long long i);
  YAJL_Gen& operator<<(double d);
  YAJL_Gen& operator<<(Null);

  YAJL_Gen& map_open();
  YAJL_Gen& map_close();
  YAJL_Gen& array_open();
  YAJL_Gen& array_close();

private:
  YAJL_Gen& note(yajl_gen_status s);

  yajl_gen_t* gen_;
  bool own_;
  yajl_gen_status status_;
};

/// Opens a map on construction and closes it on destruction.
class TESSEL_EXPORT YAJL_Map_Guard
{
public:
  explicit YAJL_Map_Guard(yajl_gen_t* gen);
  ~YAJL_Map_Guard();
  YAJL_Map_Guard(const YAJL_Map_Guard&) = delete;
  YAJL_Map_Guard& operator=(const YAJL_Map_Guard&) = delete;

private:
  yajl_gen_t* gen_;
};

/// Opens an array on construction and closes it on destruction.
class TESSEL_EXPORT YAJL_Array_Guard
{
public:
  explicit YAJL_Array_Guard(yajl_gen_t* gen);
  ~YAJL_Array_Guard();
  YAJL_Array_Guard(const YAJL_Array_Guard&) = delete;
  YAJL_Array_Guard& operator=(const YAJL_Array_Guard&) = delete;

private:
  yajl_gen_t* gen_;
};

/// Producer of one JSON value, token by token, on a yajl generator.
class TESSEL_EXPORT JSON_Generator
{
public:
  virtual ~JSON_Generator();
  /// Wraps gen in a YAJL_Gen and runs generate_i; false for a null gen, a
  /// false generate_i or a refused token.
  virtual bool generate(yajl_gen_t* gen);
  virtual bool generate_i(YAJL_Gen& gen) = 0;
};

/// Repeats parse events on a generator, so that parsed text can be written
/// again without a tree. With no generator the events are swallowed.
class TESSEL_EXPORT YAJL_Forward_Handler : public YAJL_Handler
{
public:
  explicit YAJL_Forward_Handler(yajl_gen_t* gen = nullptr);

  yajl_gen_t* generate_handle() const { return generate_handle_; }
  void generate_handle(yajl_gen_t* gen) { generate_handle_ = gen; }

  bool handle_null_i() override;
  bool handle_boolean_i(bool value) override;
  bool handle_integer_i(long long value) override;
  bool handle_double_i(double value) override;
  bool handle_number_i(char const* text, unsigned long long length) override;
  bool handle_string_i(char const* text, unsigned long long length) override;
  bool handle_start_map_i() override;
  bool handle_map_key_i(char const* text, unsigned long long length) override;
  bool handle_end_map_i() override;
  bool handle_start_array_i() override;
  bool handle_end_array_i() override;

private:
  yajl_gen_t* generate_handle_;
};

#endif
