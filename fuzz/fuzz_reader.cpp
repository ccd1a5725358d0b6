// libFuzzer target for the readers.
//
// Input layout: byte 0 gives n = byte % 8, the next n bytes are piece sizes
// (each byte + 1, used in turn); the rest is the text. With n = 0 the text
// goes in one piece. The text is fed to a JSON_RPC_Reader and to a
// JSON_Reader. Whatever either of them accepts must write out as text that
// reads back to the same thing.

#include "json_rpc/json_rpc_generator.h"
#include "json_rpc/json_rpc_reader.h"
#include "json_spirit/json_spirit_reader.h"
#include "json_spirit/json_spirit_writer.h"
#include "tessel/yajl_gen.h"

#include <ace/Log_Msg.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace
{
  struct Pieces
  {
    const uint8_t* sizes;
    size_t count;
    const char* text;
    size_t length;

    // Calls feed(data, length) for each piece; stops at the first false.
    template <class F>
    bool each(F feed) const
    {
      size_t i = 0;
      for (size_t off = 0; off < length;)
      {
        size_t n = std::min(count ? size_t(sizes[i++ % count]) + 1 : length, length - off);
        if (!feed(text + off, n))
          return false;
        off += n;
      }
      return true;
    }
  };

  [[noreturn]] void broken(const char* what, const std::string& text)
  {
    std::fprintf(stderr, "broken invariant: %s\ntext: %.2000s\n", what, text.c_str());
    std::abort();
  }

  std::string write_object(const JSON_RPC_Object& object)
  {
    std::string text;
    YAJL_String_Printer printer(&text);
    if (!JSON_RPC_Writer().write(object, printer))
      broken("writer refused an assembled object", text);
    return text;
  }

  // Reads text whole; it came from the writer, so it must give an object.
  JSON_RPC_Object_Ptr read_back(const std::string& text)
  {
    JSON_RPC_Reader reader;
    if (!reader.open() || !reader.read(text.data(), text.size()) || !reader.read(nullptr, 0))
      broken("written message does not read back", text);
    if (reader.object().get() == nullptr)
      broken("written message reads back as no object", text);
    return reader.object();
  }

  // Whether the two messages carry the same members, as the writer sees them.
  bool same(const JSON_RPC_Object& a, const JSON_RPC_Object& b)
  {
    if (a.type != b.type || a.version != b.version)
      return false;
    if (a.type != JSON_RPC_Object::TYPE_NOTIFICATION && a.id != b.id)
      return false;
    if (auto ra = dynamic_cast<const JSON_RPC_Request*>(&a))
    {
      auto rb = dynamic_cast<const JSON_RPC_Request*>(&b);
      return rb && ra->method == rb->method && ra->params == rb->params;
    }
    if (auto ra = dynamic_cast<const JSON_RPC_Response*>(&a))
    {
      auto rb = dynamic_cast<const JSON_RPC_Response*>(&b);
      return rb && ra->result == rb->result;
    }
    if (auto ea = dynamic_cast<const JSON_RPC_Response_Error*>(&a))
    {
      auto eb = dynamic_cast<const JSON_RPC_Response_Error*>(&b);
      return eb && ea->code == eb->code && ea->message == eb->message && ea->data == eb->data;
    }
    return false;
  }

  void check_message(const Pieces& in)
  {
    JSON_RPC_Reader reader;
    if (!reader.open())
      return;
    bool ok = in.each([&](const char* p, size_t n) { return reader.read(p, n); }) && reader.read(nullptr, 0);
    JSON_RPC_Object_Ptr object = reader.object();
    if (!ok || object.get() == nullptr)
      return;

    std::string first = write_object(*object);
    JSON_RPC_Object_Ptr again = read_back(first);
    std::string second = write_object(*again);
    // A request with a null id writes "id":null ahead of "method", which
    // reads as a notification; anything else must survive unchanged.
    bool null_id_request = object->type == JSON_RPC_Object::TYPE_REQUEST && object->id.is_null() &&
                           again->type == JSON_RPC_Object::TYPE_NOTIFICATION;
    if (!null_id_request && !same(*object, *again))
      broken("message changed on a round trip", first + "\n" + second);
    if (!null_id_request && first != second)
      broken("message text changed on a round trip", first + "\n" + second);
    if (write_object(*read_back(second)) != second)
      broken("message text is not stable after a round trip", second);
  }

  void check_document(const Pieces& in)
  {
    JSON_Reader reader;
    if (!reader.open())
      return;
    json_spirit::Value value;
    reader.result(&value);
    if (!in.each([&](const char* p, size_t n) { return reader.read(p, n); }) || !reader.read(nullptr, 0))
      return;

    std::string text = json_spirit::write_string(value);
    json_spirit::Value back;
    if (!json_spirit::read_string(text, back))
      broken("written document does not read back", text);
    if (!(back == value))
      broken("document changed on a round trip", text);
    if (json_spirit::write_string(back) != text)
      broken("document text changed on a round trip", text);
  }
}

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
  // Refusals are the common case here; logging each one slows the run down.
  ACE_LOG_MSG->priority_mask(0, ACE_Log_Msg::PROCESS);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
  if (size == 0)
    return 0;
  size_t count = data[0] % 8;
  if (size < 1 + count)
    return 0;
  Pieces in{data + 1, count, reinterpret_cast<const char*>(data + 1 + count), size - 1 - count};
  check_message(in);
  check_document(in);
  return 0;
}
