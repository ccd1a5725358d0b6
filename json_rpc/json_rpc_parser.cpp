#include "json_rpc/json_rpc_parser.h"

#include "json_spirit/json_spirit_value.h"

#include <ace/Log_Msg.h>
#include <cstring>

const JSON_RPC_Parser::Key_Entry JSON_RPC_Parser::key_table_1[] = {
  {"jsonrpc", 7, KEY_JSONRPC},
  {"id", 2, KEY_ID},
  {"params", 6, KEY_PARAMS},
  {"method", 6, KEY_METHOD},
  {"result", 6, KEY_RESULT},
  {"error", 5, KEY_ERROR},
  {nullptr, 0, 0},
};

const JSON_RPC_Parser::Key_Entry JSON_RPC_Parser::key_table_2[] = {
  {"code", 4, KEY_CODE},
  {"message", 7, KEY_MESSAGE},
  {"data", 4, KEY_DATA},
  {nullptr, 0, 0},
};

namespace
{
  unsigned int lookup(const JSON_RPC_Parser::Key_Entry* table, char const* text, unsigned long long length)
  {
    for (; table->name; ++table)
      if (table->length == length && std::strncmp(table->name, text, length) == 0)
        break;
    return table->key;
  }

  // YAJL's generator writes no deeper than json_spirit::max_depth, so a
  // deeper message could be read but never written again whole.
  bool too_deep(size_t levels)
  {
    if (levels < json_spirit::max_depth)
      return false;
    ACE_ERROR((LM_ERROR, "JSON-RPC message nested deeper than %u levels refused.\n", json_spirit::max_depth));
    return true;
  }
}

JSON_RPC_Parser::JSON_RPC_Parser() : handle(nullptr), delegate(nullptr), err(ERR_NONE), syntax_error_(false) {}

JSON_RPC_Parser::~JSON_RPC_Parser()
{
  if (handle)
    yajl_free(handle);
}

bool JSON_RPC_Parser::open()
{
  close();
  handle = feeder_.alloc_handle(*this);
  if (!handle)
  {
    err = ERR_NO_HANDLE;
    return false;
  }
  return true;
}

void JSON_RPC_Parser::close()
{
  if (handle)
  {
    yajl_free(handle);
    handle = nullptr;
  }
  feeder_.reset();
  syntax_error_ = false;
  callback = EVENT_NONE;
  err = ERR_NONE;
  delegate = nullptr;
  levels.clear();
}

bool JSON_RPC_Parser::read(char const* data, unsigned long long length)
{
  if (!handle)
    return false;
  yajl_status status = feeder_.feed(handle, data, length);
  if (status == yajl_status_ok)
    return true;
  syntax_error_ = status == yajl_status_error;
  unsigned long long key = levels.empty() ? 0 : levels.back().key;
  unsigned long long parent_key = levels.size() < 2 ? 0 : levels[levels.size() - 2].key;
  YAJL_Error error(handle, true, feeder_.data(), feeder_.length());
  ACE_ERROR((LM_ERROR, "Failed to parse JSON-RPC: %C, callback=%u, err=%u, level=%u, key=%u, parent_key=%u\n",
             error.c_str(), callback, err, static_cast<unsigned int>(levels.size()), static_cast<unsigned int>(key),
             static_cast<unsigned int>(parent_key)));
  return false;
}

bool JSON_RPC_Parser::handle_any(unsigned int mask, char const* value, unsigned long long length)
{
  Level& level = levels.back();
  if (!(mask & level.key))
  {
    err = ERR_MEMBER;
    return false;
  }
  level.seen |= level.key;
  return handle_key_i(static_cast<unsigned int>(level.key), value, length);
}

YAJL_Handler* JSON_RPC_Parser::forward_to_delegate() const
{
  // The delegate may branch on the event too.
  if (delegate)
    delegate->callback = callback;
  return delegate;
}

bool JSON_RPC_Parser::handle_null_i()
{
  if (YAJL_Handler* d = forward_to_delegate())
    return d->handle_null_i();
  switch (levels.size())
  {
  case 0: err = ERR_STRUCTURE; return false;
  case 1: return handle_any(KEY_ID | KEY_PARAMS | KEY_RESULT, nullptr, 0);
  default: return in_error() ? handle_any(KEY_DATA, nullptr, 0) : true;
  }
}

bool JSON_RPC_Parser::handle_boolean_i(bool value)
{
  if (YAJL_Handler* d = forward_to_delegate())
    return d->handle_boolean_i(value);
  switch (levels.size())
  {
  case 0: err = ERR_STRUCTURE; return false;
  case 1: return handle_any(KEY_PARAMS | KEY_RESULT, nullptr, value ? 1 : 0);
  default: return in_error() ? handle_any(KEY_DATA, nullptr, value ? 1 : 0) : true;
  }
}

bool JSON_RPC_Parser::handle_number_i(char const* text, unsigned long long length)
{
  if (YAJL_Handler* d = forward_to_delegate())
    return d->handle_number_i(text, length);
  switch (levels.size())
  {
  case 0: return true;
  case 1: return handle_any(KEY_ID | KEY_PARAMS | KEY_RESULT, text, length);
  default: return in_error() ? handle_any(KEY_CODE | KEY_DATA, text, length) : true;
  }
}

bool JSON_RPC_Parser::handle_string_i(char const* text, unsigned long long length)
{
  if (YAJL_Handler* d = forward_to_delegate())
    return d->handle_string_i(text, length);
  switch (levels.size())
  {
  case 0: return true;
  case 1: return handle_any(KEY_JSONRPC | KEY_ID | KEY_PARAMS | KEY_METHOD | KEY_RESULT, text, length);
  default: return in_error() ? handle_any(KEY_MESSAGE | KEY_DATA, text, length) : true;
  }
}

bool JSON_RPC_Parser::handle_start_map_i()
{
  if (too_deep(levels.size()))
    return false;
  if (YAJL_Handler* d = forward_to_delegate())
  {
    if (!d->handle_start_map_i())
      return false;
  }
  else
  {
    bool ok = true;
    switch (levels.size())
    {
    case 0: ok = handle_key_i(KEY_NONE, nullptr, 0); break;
    case 1: ok = handle_any(KEY_PARAMS | KEY_RESULT | KEY_ERROR, nullptr, 0); break;
    default: ok = in_error() ? handle_any(KEY_DATA, nullptr, 0) : true; break;
    }
    if (!ok)
      return false;
  }
  levels.push_back(Level{0, 0});
  return true;
}

bool JSON_RPC_Parser::handle_start_array_i()
{
  if (too_deep(levels.size()))
    return false;
  if (YAJL_Handler* d = forward_to_delegate())
  {
    if (!d->handle_start_array_i())
      return false;
  }
  else
  {
    bool ok = true;
    switch (levels.size())
    {
    case 0: err = ERR_STRUCTURE; ok = false; break;
    case 1: ok = handle_any(KEY_PARAMS | KEY_RESULT, nullptr, 0); break;
    default: ok = in_error() ? handle_any(KEY_DATA, nullptr, 0) : true; break;
    }
    if (!ok)
      return false;
  }
  levels.push_back(Level{0, 0});
  return true;
}

bool JSON_RPC_Parser::handle_map_key_i(char const* text, unsigned long long length)
{
  if (YAJL_Handler* d = forward_to_delegate())
    return d->handle_map_key_i(text, length);
  switch (levels.size())
  {
  case 0: err = ERR_STRUCTURE; return false;
  case 1: levels.back().key = lookup(key_table_1, text, length); break;
  case 2: levels.back().key = lookup(key_table_2, text, length); break;
  default: break;
  }
  return true;
}

bool JSON_RPC_Parser::handle_end_map_i()
{
  if (YAJL_Handler* d = forward_to_delegate())
    if (!d->handle_end_map_i())
      return false;
  if (levels.empty())
  {
    err = ERR_STRUCTURE;
    return false;
  }
  levels.pop_back();
  switch (levels.size())
  {
  case 0:
    if (!handle_key_i(KEY_NONE, nullptr, 0))
    {
      ACE_ERROR((LM_ERROR, "Failed to handle end of map.\n"));
      return false;
    }
    break;
  case 1:
    if (!handle_any(KEY_PARAMS | KEY_RESULT | KEY_ERROR, nullptr, 0))
    {
      ACE_ERROR((LM_ERROR, "Failed to handle end of internal map.\n"));
      return false;
    }
    break;
  default:
    if (in_error() && !handle_any(KEY_DATA, nullptr, 0))
    {
      ACE_ERROR((LM_ERROR, "Failed to handle end of error data map.\n"));
      return false;
    }
    break;
  }
  return true;
}

bool JSON_RPC_Parser::handle_end_array_i()
{
  if (YAJL_Handler* d = forward_to_delegate())
    if (!d->handle_end_array_i())
      return false;
  if (levels.size() < 2)
  {
    err = ERR_STRUCTURE;
    return false;
  }
  levels.pop_back();
  if (levels.size() == 1)
    return handle_any(KEY_PARAMS | KEY_RESULT, nullptr, 0);
  if (in_error())
    return handle_any(KEY_DATA, nullptr, 0);
  return true;
}
