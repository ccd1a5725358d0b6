#include "tessel/json_base_conf.h"

#include <ace/Log_Msg.h>
#include <cerrno>
#include <cstdio>
#include <cstring>

char const URI_Base_Conf_Traits::key[4] = "uri";

JSON_Base_Conf::JSON_Base_Conf(char const* key, unsigned int length)
  : key_name_(key ? std::string(key, length) : std::string()), records_(0), loaded_(0)
{
}

JSON_Base_Conf::~JSON_Base_Conf() {}

const JSON_Base_Conf::Record& JSON_Base_Conf::top() const
{
  static const Record none;
  return stack_.empty() ? none : stack_.back();
}

bool JSON_Base_Conf::handle_start_map_i()
{
  if (!stack_.empty())
    stack_.back().member = MEMBER_NONE;
  stack_.emplace_back();
  return true;
}

bool JSON_Base_Conf::handle_start_array_i()
{
  if (!stack_.empty())
    stack_.back().member = MEMBER_NONE;
  stack_.emplace_back();
  stack_.back().is_map = false;
  return true;
}

bool JSON_Base_Conf::handle_end_array_i()
{
  if (!stack_.empty())
    stack_.pop_back();
  return true;
}

bool JSON_Base_Conf::handle_map_key_i(char const* text, unsigned long long length)
{
  if (stack_.empty())
    return true;
  Record& r = stack_.back();
  std::string name(text, length);
  if (name == key_name_)
    r.member = MEMBER_KEY;
  else if (name == "dll")
    r.member = MEMBER_DLL;
  else if (name == "init")
    r.member = MEMBER_INIT;
  else if (name == "params")
    r.member = MEMBER_PARAMS;
  else
    r.member = MEMBER_NONE;
  return true;
}

bool JSON_Base_Conf::handle_string_i(char const* text, unsigned long long length)
{
  if (stack_.empty() || !stack_.back().is_map)
    return true;
  Record& r = stack_.back();
  switch (r.member)
  {
  case MEMBER_KEY:
    r.key.assign(text, length);
    r.has_key = true;
    break;
  case MEMBER_DLL: r.dll.assign(text, length); break;
  case MEMBER_INIT: r.init.assign(text, length); break;
  case MEMBER_PARAMS: r.params.assign(text, length); break;
  case MEMBER_NONE: break;
  }
  r.member = MEMBER_NONE;
  return true;
}

bool JSON_Base_Conf::handle_end_map_i()
{
  if (stack_.empty())
    return true;
  const Record& r = stack_.back();
  if (r.has_key)
  {
    ++records_;
    if (handle_record())
      ++loaded_;
  }
  else if (!r.dll.empty() || !r.init.empty())
    ACE_DEBUG((LM_WARNING, "Configuration record without '%C' skipped (dll='%C', init='%C').\n",
               key_name_.c_str(), r.dll.c_str(), r.init.c_str()));
  stack_.pop_back();
  return true;
}

int load_json_config(char const* path, JSON_Base_Conf&& conf) { return load_json_config(path, conf); }

int load_json_config(char const* path, JSON_Base_Conf& conf)
{
  if (!path)
  {
    errno = EINVAL;
    return -1;
  }
  FILE* file = std::fopen(path, "rb");
  if (!file)
  {
    ACE_ERROR((LM_ERROR, "Failed to open configuration file '%C': %m\n", path));
    return -1;
  }
  yajl_handle handle = yajl_alloc(get_yajl_default_callbacks(), nullptr, &conf);
  if (!handle)
  {
    std::fclose(file);
    errno = ENOMEM;
    return -1;
  }
  yajl_config(handle, yajl_allow_comments, 1);

  int result = 0;
  char buffer[16384];
  size_t n;
  while (result == 0 && (n = std::fread(buffer, 1, sizeof buffer, file)) > 0)
  {
    if (yajl_parse(handle, reinterpret_cast<unsigned char*>(buffer), n) != yajl_status_ok)
    {
      YAJL_Error error(handle, true, buffer, n);
      ACE_ERROR((LM_ERROR, "Failed to parse configuration file '%C': %C\n", path, error.c_str()));
      result = -1;
    }
  }
  if (result == 0 && std::ferror(file))
  {
    ACE_ERROR((LM_ERROR, "Failed to read configuration file '%C': %m\n", path));
    result = -1;
  }
  if (result == 0 && yajl_complete_parse(handle) != yajl_status_ok)
  {
    YAJL_Error error(handle, false, nullptr, 0);
    ACE_ERROR((LM_ERROR, "Failed to parse configuration file '%C': %C\n", path, error.c_str()));
    result = -1;
  }
  yajl_free(handle);
  std::fclose(file);
  // A file read well that loads nothing is most likely a mistake (a wrong
  // key member, an empty array): say so, or the service silently lacks it.
  if (result == 0 && conf.records() == 0)
    ACE_DEBUG((LM_WARNING, "Configuration file '%C' holds no record with '%C'.\n", path, conf.key_name().c_str()));
  return result;
}
