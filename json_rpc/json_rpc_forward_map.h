#ifndef JSON_RPC_FORWARD_MAP_H
#define JSON_RPC_FORWARD_MAP_H

#include "json_rpc/json_rpc_export.h"
#include "json_rpc/json_rpc_object.h"
#include "json_spirit/json_spirit_value.h"

#include <map>
#include <utility>

/// Requests passed on through one channel: forward id to the requester's
/// own id and channel. No lock: the owning transport guards it.
class JSON_RPC_EXPORT JSON_RPC_Forward_Map
{
public:
  typedef std::pair<json_spirit::Value, JSON_RPC_Channel_Weak_Ptr> Entry;

  JSON_RPC_Forward_Map();
  ~JSON_RPC_Forward_Map();

  /// A new forward id (1, 2, ...) for the request.
  int put(const json_spirit::Value& id, JSON_RPC_Channel_Weak_Ptr requester);
  /// Takes the entry out: 0 and entry set, or -1 if there is none.
  int get(int forward_id, Entry& entry);
  /// Answers every pending requester with -32603 and empties the map.
  void clear();
  size_t size() const { return entries_.size(); }

private:
  int forward_id_;
  std::map<int, Entry> entries_;
};

#endif
