#ifndef TRANSPORT_TCP_CHANNEL_H
#define TRANSPORT_TCP_CHANNEL_H

#include "transport/tcp_export.h"
#include "transport/tcp_options.h"
#include "json_rpc/json_rpc_channel.h"
#include "json_rpc/json_rpc_forward_map.h"
#include "json_rpc/json_rpc_generator.h"

#include <ace/INET_Addr.h>
#include <ace/Lock_Adapter_T.h>
#include <ace/SOCK_Stream.h>
#include <ace/Thread_Mutex.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

class ACE_Log_Msg_Callback;
class TCP_Frame_Reader;

/// A JSON-RPC channel over one TCP connection.
///
/// Reading: one thread per connection feeds the bytes through a
/// TCP_Frame_Reader to a JSON_RPC_Reader and hands each message to
/// JSON_RPC_Dispatcher::dispatch. Once it has dispatched a response and no
/// other caller waits, it steps aside: a caller that waits for its response
/// over this channel (wait_response) reads the socket itself, on its own
/// thread, and spares the hand-off from the read thread to it. The read
/// thread comes back when called, or when no caller has read for a
/// millisecond, so a request or notification that arrives while nobody
/// reads waits a millisecond or two at most. Such a caller dispatches the
/// responses it meets (their handlers run on its thread) and leaves
/// requests and notifications, and everything after them, to the read
/// thread, which runs their handlers as always. Channels that forward
/// responses always read on their own thread.
///
/// The read thread holds a strong pointer to the channel while the
/// connection is up, so the object outlives it; close()
/// ends a connection. When it ends (the peer's end, close(), bad input, a
/// failed write), the read thread takes the channel out of
/// JSON_RPC_Channel_Map, JSON_RPC_Notify_Manager and the pool, answers the
/// requests forwarded through it with -32603, and closes the socket.
///
/// A message that the reader refuses while its framing holds is answered
/// (-32700 "Parse error" for text that is no JSON, -32600 "Invalid Request"
/// for JSON that is no acceptable message, under the message's id if the
/// reader saw it) and the connection reads on. Broken framing (a header too
/// large, a bad or missing Content-Length), or a message of which more than
/// max_message_size bytes would be held, is logged and answered with an
/// error of id null and code -32700 before the connection is closed. A message without content, such as {"id":1},
/// is logged and skipped.
///
/// Writing: each message goes out whole under io_mutex(). With NDJSON the
/// text passes through a 64 KiB buffer to the socket while it is generated,
/// so a large message is never held whole. With Content-Length framing the
/// length has to come first, so the body is generated into a buffer and
/// then written behind its header. A write that fails or waits longer than
/// send_limit leaves the stream unusable: the channel shuts the socket and
/// lets its read thread deregister it, since a send may run with the
/// registers' locks held.
///
/// Forwarded responses (forward_responses on the channel they come back
/// on) are written to the requester's connection with send_begin/send_end
/// as they are parsed; a response the reader assembles instead (an error,
/// or a result whose id comes after it) is passed back whole under the
/// requester's id. To an NDJSON requester they go out in 64 KiB pieces
/// while they arrive, in constant memory whatever their size; to a
/// Content-Length requester the transport holds the one message until its
/// end, as its length is not known before.
///
/// The transport threads take the log settings (message callback, priority
/// mask) of the thread that started them. The library's singletons must
/// exist before the first transport starts (their first instance() call is
/// not safe against another one on a second thread): JSON_RPC_Scope,
/// TCP_Server and TCP_Client see to that.
class JSON_RPC_TCP_EXPORT TCP_Channel : public JSON_RPC_Channel
{
public:
  /// What io_state() reports after a failed send_end.
  enum IO_State
  {
    IO_STATE_OK = 0,
    /// send_end without send_begin.
    IO_STATE_NO_MESSAGE = 1,
    /// The connection is gone or closing. That is this channel's own affair,
    /// logged here if it needs a line: nothing for the caller to report.
    IO_STATE_CLOSED = 7
  };

  /// Takes over the handle of a connected stream.
  TCP_Channel(ACE_SOCK_Stream& stream, const TCP_Options& options);
  ~TCP_Channel() override;

  /// The TCP channel behind a pointer; null for another kind of channel.
  static TCP_Channel* cast(const JSON_RPC_Channel_Strong_Ptr& channel);

  /// Runs options().on_connect, registers the channel and starts its read
  /// thread. self must own the channel. -1 if the connection was refused or
  /// the thread could not be started; the connection is closed then.
  static int start(JSON_RPC_Channel_Strong_Ptr self);

  /// Ends the connection. On any thread but the channel's own read thread
  /// it returns once that thread has deregistered the channel and ended; on
  /// the read thread (a handler closing its own channel) it only starts the
  /// end. Two handlers closing each other's channels would wait for each
  /// other: close another connection from a thread that reads none.
  void close();
  /// True once the connection is ending.
  bool closed() const { return closing_; }
  const TCP_Options& options() const { return options_; }
  /// The peer's address and port, the channel's default id.
  const std::string& peer() const { return peer_; }
  /// The channel as the registers hold it; empty before start().
  JSON_RPC_Channel_Weak_Ptr weak() const { return self_; }

  int send_object(JSON_RPC_Object_Ptr object) override;
  int send_generator(JSON_Generator& generator) override;
  /// The reader's forwarding path holds io_mutex() from before send_begin
  /// until after send_end, so these two must not take it again. A message
  /// that is begun and never ended is dropped by the next writer if none of
  /// it went out yet, and otherwise breaks the connection. On a closed
  /// connection send_begin still gives a generator, whose output goes
  /// nowhere, and send_end then fails with IO_STATE_CLOSED.
  yajl_gen_t* send_begin() override;
  int send_end() override;
  /// Gives up the message of send_begin, under io_mutex(), when it will
  /// never be ended (the forwarded response broke off). True if some of it
  /// had gone out: the connection is then closed, as its peer can't read
  /// on past half a message. False if none had: it is forgotten, and the
  /// caller answers the requester instead.
  bool abandon_message();
  int put_forward_entry(JSON_RPC_Channel_Weak_Ptr requester, const json_spirit::Value& id) override;
  int get_forward_entry(int forward_id, JSON_RPC_Channel_Weak_Ptr& requester, json_spirit::Value& id) override;
  /// Sends object, a request of requester's, under a new forward id, so
  /// that the reader streams the response back (forward_responses must be
  /// on). 0 once the requester is sure to get an answer: the response, or
  /// -32603 "Internal error, forwarder is closed." if the connection ends
  /// first (also when it ends during this call). -1 with errno if the
  /// request was not taken: the caller answers it. The object itself is
  /// not changed.
  int forward(JSON_RPC_Channel_Weak_Ptr requester, JSON_RPC_Object_Ptr object) override;
  /// Both addresses are taken when the connection is made and stay valid.
  int get_local_addr(ACE_Addr& addr) const override;
  int get_remote_addr(ACE_Addr& addr) const override;
  /// Valid under io_mutex(), right after a failed send_end.
  int io_state() override;
  /// A direct TCP peer is its own origin: the remote address.
  int get_original_addr(ACE_Addr& addr) const override;
  ACE_Lock* io_mutex() override { return &io_adapter_; }
  /// Reads the channel on the calling thread while the read thread stands
  /// aside (see above); on the channel's own read thread (a direct handler
  /// calling its peer back) it reads on for the handler: responses are
  /// dispatched as they come, requests and notifications wait until the
  /// handler returns. From a thread that reads another channel it only
  /// waits. When the connection ends every wait fails at once, with errno
  /// ECONNRESET, or ECONNABORTED after close().
  bool wait_response(JSON_RPC_Response_Wait& wait, const ACE_Time_Value* deadline) override;

private:
  typedef std::chrono::steady_clock Clock;

  /// Generated text on its way to the socket; used under io_lock_.
  class Output : public YAJL_Printer
  {
  public:
    explicit Output(TCP_Channel& channel);
    /// A new message; with discard its text goes nowhere.
    void begin(bool discard);
    void print(char const* data, unsigned long long length) override;
    /// Frames and writes what is left: 0, or the errno of the failure.
    int end();
    /// Forgets a message of which nothing has gone out.
    void drop();
    bool sent_some() const { return sent_ > 0; }
    bool discarding() const { return discard_; }

  private:
    bool flush();
    int write(char const* data, size_t length);

    TCP_Channel& channel_;
    std::string buffer_;
    unsigned long long sent_;
    int error_;
    bool discard_;
  };

  /// A response to a forwarded request that the reader assembled instead
  /// of streaming it (an error, or a result ahead of its id) goes to its
  /// requester under the requester's id; false if it answers no forward.
  bool pass_back(const JSON_RPC_Object_Ptr& object);
  int start_i(JSON_RPC_Channel_Strong_Ptr self);
  void run(JSON_RPC_Channel_Strong_Ptr* self, ACE_Log_Msg_Callback* log_callback, unsigned long log_mask);
  void read_loop(TCP_Frame_Reader& frames);
  /// Dispatches what waits in handed_, in order; false once closing.
  bool dispatch_handed();
  bool wait_entered(JSON_RPC_Response_Wait& wait, const ACE_Time_Value* deadline);
  bool read_on(JSON_RPC_Response_Wait& wait, const ACE_Time_Value* deadline);
  bool read_ended(ssize_t n, int error, const TCP_Frame_Reader& frames);
  /// What a call that waits over the ended connection fails with.
  int end_errno() const { return closed_here_ ? ECONNABORTED : ECONNRESET; }
  bool read_lent(JSON_RPC_Response_Wait& wait, const ACE_Time_Value* deadline, bool nested = false);
  bool stand_aside(bool timed);
  void call_reader();
  friend class Aside_Watch;
  /// Calls the read thread back when nobody has held the token for
  /// park_limit; for the thread that watches read threads standing aside.
  void look_aside(long long now);
  bool lend(JSON_RPC_Response_Wait& wait, const ACE_Time_Value* deadline);
  void follow(JSON_RPC_Response_Wait* wait, bool add);
  bool followers_waiting();
  void protocol_error(TCP_Frame_Reader& frames);
  void linger();
  void deregister(JSON_RPC_Channel_Strong_Ptr& self);
  void shutdown(int how);

  template <class Generate>
  int write_message(Generate generate);
  bool writable() const;
  void settle_stream();
  void fail_output(int error);
  int write_all(struct iovec* iov, int count);

  const TCP_Options options_;
  ACE_SOCK_Stream stream_;
  ACE_INET_Addr local_addr_;
  ACE_INET_Addr remote_addr_;
  std::string peer_;
  JSON_RPC_Channel_Weak_Ptr self_;
  std::atomic<bool> closing_;
  std::atomic<bool> closed_here_; // close() was called
  JSON_RPC_Wait_List waits_;
  bool registered_;

  // Guards the socket handle against its close while another thread shuts
  // it down; taken after io_lock_.
  std::mutex handle_lock_;

  ACE_Thread_Mutex io_lock_;
  ACE_Lock_Adapter<ACE_Thread_Mutex> io_adapter_;
  // Under io_lock_:
  bool output_failed_;
  bool streaming_;
  int io_state_;
  // Whole and streamed messages alike (a stream is settled before a whole
  // message starts); kept, so that its generator serves them all.
  JSON_RPC_Writer writer_;
  Output output_;

  ACE_Thread_Mutex forward_lock_;
  std::unique_ptr<JSON_RPC_Forward_Map> forward_map_; // null once closed

  // Whoever holds token_ (the read thread, or a caller in wait_response)
  // reads the socket into *frames_ and read_buffer_. The read thread holds
  // it from the start, and for good once it stops reading.
  std::atomic<bool> token_;
  // Callers asleep in wait_response while another thread reads.
  std::mutex followers_lock_;
  std::vector<JSON_RPC_Response_Wait*> followers_;
  // 1 when the read thread is wanted back at once (a futex word).
  std::atomic<int> call_;
  // When a caller or the read thread last let go of the token, in steady
  // clock nanoseconds.
  std::atomic<long long> lent_at_;
  TCP_Frame_Reader* frames_;
  std::unique_ptr<char[]> read_buffer_;
  // What a caller read but left to the read thread, and what the read
  // thread read and is about to dispatch; under token_.
  std::vector<JSON_RPC_Object_Ptr> handed_;
  std::vector<JSON_RPC_Object_Ptr> dispatching_;
  enum Lent_End
  {
    LENT_READING,
    LENT_RECV,
    LENT_FAILED,
    LENT_STOPPED
  } lent_end_;
  ssize_t lent_n_;
  int lent_errno_;

  // start_mutex_ makes the read thread wait until thread_ is set;
  // thread_mutex_ lets one closer at a time join it.
  std::mutex start_mutex_;
  std::mutex thread_mutex_;
  std::thread thread_;
};

#endif
