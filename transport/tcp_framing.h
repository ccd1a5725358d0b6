// Cuts a TCP byte stream into messages (Content-Length or NDJSON framing), a push parser.
#ifndef TRANSPORT_TCP_FRAMING_H
#define TRANSPORT_TCP_FRAMING_H

#include "transport/tcp_export.h"
#include "transport/tcp_options.h"
#include "json_rpc/json_rpc_reader.h"

#include <chrono>
#include <functional>
#include <string>

/// Cuts a byte stream into messages and feeds each one to a JSON_RPC_Reader
/// as its bytes arrive: a message is never collected as one text. With
/// Content-Length framing the body bytes are counted down; with NDJSON the
/// stream is split at newlines.
///
/// A message that the reader refuses while its framing holds is answered
/// on the channel with the reader's refusal() (-32700 or -32600), the rest
/// of it is skipped, and the stream reads on. Only broken framing (a bad or
/// oversized header, a bad length) or a message of which more than
/// max_message_size bytes would be held makes the stream unreadable.
class JSON_RPC_TCP_EXPORT TCP_Frame_Reader
{
public:
  /// Called after the reader has finished a message; false stops feed().
  typedef std::function<bool(JSON_RPC_Reader&)> Handler;

  /// channel is given to the reader for each message.
  TCP_Frame_Reader(const TCP_Options& options, JSON_RPC_Channel_Weak_Ptr channel);
  ~TCP_Frame_Reader();
  TCP_Frame_Reader(const TCP_Frame_Reader&) = delete;
  TCP_Frame_Reader& operator=(const TCP_Frame_Reader&) = delete;

  /// 0: all bytes taken; 1: the handler stopped, after *taken bytes (if
  /// taken is given); -1: the stream can't be read on (error() says why),
  /// and stays so.
  int feed(const char* data, size_t length, const Handler& handler, size_t* taken = nullptr);

  /// True from the first byte of a message (header included) to its end.
  bool in_message() const { return state_ == STATE_HEADER || state_ == STATE_BODY || state_ == STATE_SKIP; }
  /// When the current message began.
  std::chrono::steady_clock::time_point started() const { return started_; }
  const std::string& error() const { return error_; }
  /// Lets go of the reader, and of any lock a forward holds. A forwarded
  /// response cut off here is given up on its requester's TCP connection,
  /// which is closed if part of it went out; if none did, the requester is
  /// answered -32603 "Internal error, forwarder is closed." instead.
  void close();

private:
  enum State
  {
    STATE_IDLE,
    STATE_HEADER,
    STATE_BODY,
    // The rest of a refused message.
    STATE_SKIP,
    STATE_FAILED
  };

  void begin();
  bool open_reader();
  bool header_line();
  int finish(const Handler& handler);
  void refused();
  void let_go(const char* answer);
  int fail(std::string what);
  bool refuse(std::string what);

  TCP_Options::Framing framing_;
  size_t max_header_size_;
  unsigned long long max_message_size_;
  JSON_RPC_Channel_Weak_Ptr channel_;
  JSON_RPC_Reader reader_;
  State state_;
  std::chrono::steady_clock::time_point started_;
  std::string line_;
  size_t header_bytes_;
  bool has_length_;
  unsigned long long length_;
  unsigned long long body_bytes_;
  unsigned long long assembled_bytes_;
  size_t count_step_;
  std::string error_;
};

#endif
