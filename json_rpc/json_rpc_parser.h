#ifndef JSON_RPC_PARSER_H
#define JSON_RPC_PARSER_H

#include "json_rpc/json_rpc_export.h"
#include "tessel/yajl_handler.h"

#include <vector>

/// Push parser that knows the members of a JSON-RPC message. It builds
/// nothing: each member value goes to handle_key_i, and with a delegate set
/// every event goes to the delegate instead, so sub-trees pass through.
/// One open() serves one message.
class JSON_RPC_EXPORT JSON_RPC_Parser : public YAJL_Handler
{
public:
  enum Key
  {
    KEY_NONE = 0,
    KEY_JSONRPC = 0x1,
    KEY_ID = 0x2,
    KEY_PARAMS = 0x4,
    KEY_METHOD = 0x8,
    KEY_RESULT = 0x10,
    KEY_ERROR = 0x20,
    KEY_CODE = 0x40,
    KEY_MESSAGE = 0x80,
    KEY_DATA = 0x100
  };

  /// Why the last message was refused.
  enum Error
  {
    ERR_NONE = 0,
    ERR_NO_HANDLE = 1,
    ERR_NO_MEMORY = 2,
    ERR_STRUCTURE = 3,
    ERR_CODE = 4,
    ERR_MEMBER = 5,
    ERR_EVENT = 9
  };

  struct Key_Entry
  {
    char const* name;
    unsigned int length;
    unsigned int key;
  };
  /// Members of a message, and of its error object; closed by {null, 0, 0}.
  static const Key_Entry key_table_1[];
  static const Key_Entry key_table_2[];

  struct Level
  {
    unsigned long long key;  ///< member last named in this map; 0 if none or unknown
    unsigned long long seen; ///< keys whose values were passed on here
  };

  JSON_RPC_Parser();
  ~JSON_RPC_Parser() override;
  JSON_RPC_Parser(const JSON_RPC_Parser&) = delete;
  JSON_RPC_Parser& operator=(const JSON_RPC_Parser&) = delete;

  bool open();
  void close();
  bool is_open() const { return handle != nullptr; }
  /// Feeds one piece; read(nullptr, 0) finishes the message. A refusal is
  /// logged once and leaves the parser failed until open() or close().
  bool read(char const* data, unsigned long long length);
  /// True when the last refusal was YAJL's own: the text is no JSON (as
  /// opposed to JSON that is no acceptable message, which sets err).
  bool syntax_error() const { return syntax_error_; }
  /// The member gate: passes the value on if the current member is in mask.
  bool handle_any(unsigned int mask, char const* value, unsigned long long length);

  bool handle_null_i() override;
  bool handle_boolean_i(bool value) override;
  bool handle_number_i(char const* text, unsigned long long length) override;
  bool handle_string_i(char const* text, unsigned long long length) override;
  bool handle_start_map_i() override;
  bool handle_map_key_i(char const* text, unsigned long long length) override;
  bool handle_end_map_i() override;
  bool handle_start_array_i() override;
  bool handle_end_array_i() override;

  /// A member value (key != 0) or an edge of the message (key 0). The event
  /// kind is in `callback`; a boolean's truth rides in length.
  virtual bool handle_key_i(unsigned int key, char const* value, unsigned long long length) = 0;

  yajl_handle handle;
  YAJL_Handler* delegate;
  unsigned int err;
  std::vector<Level> levels;

private:
  // Level-2 events inside "error" go through the member gate.
  bool in_error() const { return levels.size() == 2 && levels[0].key == KEY_ERROR; }
  YAJL_Handler* forward_to_delegate() const;

  YAJL_Feeder feeder_;
  bool syntax_error_;
};

#endif
