#ifndef TESSEL_JSON_BASE_CONF_H
#define TESSEL_JSON_BASE_CONF_H

#include "tessel/tessel_export.h"
#include "tessel/yajl_handler.h"

#include <string>
#include <vector>

/// Reader of configuration files made of records: JSON objects whose string
/// members `<key>`, `dll`, `init` and `params` describe one loadable object.
/// A file holds one record, an array of records, or an object whose member
/// values are records or arrays of them; every object that has the key
/// member is a record, at any depth. handle_record() runs once per record
/// when its object closes. A record without the key member is skipped with
/// a warning; members that are not strings are ignored; a false result of
/// handle_record() does not stop the file.
class TESSEL_EXPORT JSON_Base_Conf : public YAJL_Handler
{
public:
  JSON_Base_Conf(char const* key, unsigned int length);
  ~JSON_Base_Conf() override;

  bool handle_string_i(char const* text, unsigned long long length) override;
  bool handle_map_key_i(char const* text, unsigned long long length) override;
  bool handle_start_map_i() override;
  bool handle_end_map_i() override;
  bool handle_start_array_i() override;
  bool handle_end_array_i() override;

  /// Called for each record, with the strings below set.
  virtual bool handle_record() = 0;

  const std::string& key_name() const { return key_name_; }
  const std::string& key() const { return top().key; }
  const std::string& dll() const { return top().dll; }
  const std::string& init() const { return top().init; }
  const std::string& params() const { return top().params; }

  /// Number of records seen and of those that handle_record() accepted.
  unsigned int records() const { return records_; }
  unsigned int loaded() const { return loaded_; }

private:
  enum Member
  {
    MEMBER_NONE,
    MEMBER_KEY,
    MEMBER_DLL,
    MEMBER_INIT,
    MEMBER_PARAMS
  };
  struct Record
  {
    Record() : member(MEMBER_NONE), has_key(false), is_map(true) {}
    std::string key, dll, init, params;
    Member member;
    bool has_key;
    bool is_map;
  };
  const Record& top() const;

  std::string key_name_;
  std::vector<Record> stack_;
  unsigned int records_;
  unsigned int loaded_;
};

/// Reads the JSON file at path into conf. Comments are allowed. 0 on
/// success, -1 (logged) if the file can't be read or is not valid JSON;
/// records handled before an error stay handled.
TESSEL_EXPORT int load_json_config(char const* path, JSON_Base_Conf&& conf);
TESSEL_EXPORT int load_json_config(char const* path, JSON_Base_Conf& conf);

/// Key member of the RESTful configuration records.
struct TESSEL_EXPORT URI_Base_Conf_Traits
{
  static char const key[4];
};

#endif
