#include "json_rpc/json_rpc_forward_map.h"
#include "json_rpc/json_rpc_channel.h"

#include <ace/Log_Msg.h>

JSON_RPC_Forward_Map::JSON_RPC_Forward_Map() : forward_id_(0) {}
JSON_RPC_Forward_Map::~JSON_RPC_Forward_Map() {}

int JSON_RPC_Forward_Map::put(const json_spirit::Value& id, JSON_RPC_Channel_Weak_Ptr requester)
{
  Entry entry(id, requester);
  // Counts on in 32 bits, unsigned so that the wrap is defined.
  forward_id_ = static_cast<int>(static_cast<unsigned int>(forward_id_) + 1u);
  entries_[forward_id_] = std::move(entry);
  return forward_id_;
}

int JSON_RPC_Forward_Map::get(int forward_id, Entry& entry)
{
  auto i = entries_.find(forward_id);
  if (i == entries_.end())
    return -1;
  entry = i->second;
  entries_.erase(i);
  return 0;
}

void JSON_RPC_Forward_Map::clear()
{
  for (const auto& e : entries_)
  {
    JSON_RPC_Channel_Strong_Ptr requester(e.second.second);
    if (requester.null())
      ACE_ERROR((LM_ERROR, "Abort sending JSON-RPC error, requester (id=%C, forward_id=%d) is gone\n",
                 JSON_RPC_Id(e.second.first).c_str(), e.first));
    else
      requester->send_error(-32603, e.second.first, "Internal error, forwarder is closed.", json_spirit::Value::null);
  }
  entries_.clear();
}
