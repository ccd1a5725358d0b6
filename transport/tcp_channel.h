// A JSON-RPC channel over one TCP connection, served by a reactor's I/O thread.
#ifndef TRANSPORT_TCP_CHANNEL_H
#define TRANSPORT_TCP_CHANNEL_H

#include "transport/tcp_export.h"
#include "transport/tcp_options.h"
#include "transport/tcp_output_queue.h"
#include "transport/tcp_reactor.h"
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
#include <condition_variable>
#include <vector>

class JSON_RPC_Reader;
class TCP_Frame_Reader;

/// A JSON-RPC channel over one TCP connection.
///
/// Reading: the connection belongs to one I/O thread of a TCP_Reactor,
/// which reads what comes, feeds it through a TCP_Frame_Reader to a
/// JSON_RPC_Reader and dispatches each message, in order, one at a time:
/// direct handlers run on that thread, and hold up the other connections
/// of the thread while they run. A request counts as in flight from its
/// reading until a response with its id goes out on the channel; with
/// max_requests_in_flight of them the connection is not read on until
/// answers go out. A caller that waits for a response over the channel
/// sleeps until the I/O thread has dispatched it. Only on the channel's
/// own I/O thread (a direct handler calling a peer of its thread back) the
/// caller reads the socket itself meanwhile: it dispatches the responses
/// it meets and leaves requests and notifications until the handlers of
/// the thread have returned.
///
/// The connection holds a strong pointer to the channel while it is up,
/// so the object outlives it; close() ends it. When it ends (the peer's
/// end, close(), bad input, a failed write), the I/O thread fails the
/// calls that wait over it, takes the channel out of JSON_RPC_Channel_Map,
/// JSON_RPC_Notify_Manager and the pool, answers the requests forwarded
/// through it with -32603, and closes the socket.
///
/// A message that the reader refuses while its framing holds is answered
/// (-32700 "Parse error" for text that is no JSON, -32600 "Invalid Request"
/// for JSON that is no acceptable message, under the message's id if the
/// reader saw it) and the connection reads on. Broken framing (a header too
/// large, a bad or missing Content-Length), or a message of which more than
/// max_message_size bytes would be held, is logged and answered with an
/// error of id null and code -32700 before the connection is closed; so is
/// a message not complete within read_limit. A message without content,
/// such as {"id":1}, is logged and skipped.
///
/// Writing never waits for the peer: each message is generated under
/// io_mutex() and goes to the connection's TCP_Output_Queue, which writes
/// what the socket takes at once and leaves the rest to the I/O thread.
/// With NDJSON a large message passes to the queue in 64 KiB pieces while
/// it is generated; with Content-Length framing the length has to come
/// first, so the body is generated into a buffer and queued behind its
/// header. A queue that stays over max_send_queue for send_limit closes
/// the connection.
///
/// Forwarded responses (forward_responses on the channel they come back
/// on) are written to the requester's connection with send_begin/send_end
/// as they are parsed; a response the reader assembles instead (an error,
/// or a result whose id comes after it) is passed back whole under the
/// requester's id. To an NDJSON requester they go out in 64 KiB pieces
/// while they arrive, in constant memory whatever their size: while the
/// requester's queue is over max_send_queue the forwarding connection is
/// not read. To a Content-Length requester the transport holds the one
/// message until its end, as its length is not known before.
///
/// The library's singletons must exist before the first connection starts
/// (their first instance() call is not safe against another one on a
/// second thread): JSON_RPC_Scope, TCP_Server and TCP_Client see to that.
class JSON_RPC_TCP_EXPORT TCP_Channel : public JSON_RPC_Channel, private TCP_Reactor_Handler
{
public:
  /// Takes over the handle of a connected stream.
  TCP_Channel(ACE_SOCK_Stream& stream, const TCP_Options& options);
  ~TCP_Channel() override;

  /// The TCP channel behind a pointer; null for another kind of channel.
  static TCP_Channel* cast(const JSON_RPC_Channel_Strong_Ptr& channel);

  /// Runs options().on_connect, registers the channel and hands the
  /// connection to a loop of reactor. self must own the channel. With own,
  /// the reactor serves this connection alone, and close() stops it. -1 if
  /// the connection was refused; it is closed then.
  static int start(JSON_RPC_Channel_Strong_Ptr self, const std::shared_ptr<TCP_Reactor>& reactor, bool own = false);

  /// Ends the connection. It returns once the I/O thread has deregistered
  /// the channel, except on that I/O thread itself (a handler closing a
  /// connection of its own thread), where it only starts the end. Two
  /// handlers closing each other's channels from two I/O threads would
  /// wait for each other: close another connection from a thread that
  /// serves none.
  void close();
  /// True once the connection is ending.
  bool closed() const { return closing_; }
  const TCP_Options& options() const { return options_; }
  /// The peer's address and port, the channel's default id.
  const std::string& peer() const { return peer_; }
  /// The channel as the registers hold it; empty before start().
  JSON_RPC_Channel_Weak_Ptr weak() const { return self_; }

  /// For a graceful stop: reads no more from the peer.
  void stop_reading();
  /// Requests read and not yet answered.
  size_t requests_in_flight() const;
  /// Answers each request in flight with an error of code and message.
  void answer_in_flight(int code, const char* message);
  /// Bytes waiting for the peer to take them.
  size_t queued_bytes() const;

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
  /// Waits until the I/O thread has dispatched the response; on the
  /// channel's own I/O thread it reads for itself (see above). When the
  /// connection ends every wait fails at once, with errno ECONNRESET, or
  /// ECONNABORTED after close().
  bool wait_response(JSON_RPC_Response_Wait& wait, const ACE_Time_Value* deadline) override;

private:
  typedef std::chrono::steady_clock Clock;

  /// Generated text on its way to the output queue; used under io_lock_.
  class Output : public YAJL_Printer
  {
  public:
    explicit Output(TCP_Channel& channel) : channel_(channel), sent_(false), error_(0), discard_(false) {}
    /// A new message; with discard its text goes nowhere.
    void begin(bool discard);
    void print(char const* data, unsigned long long length) override;
    /// Frames and queues what is left: 0, or the errno of the failure.
    int end();
    /// Forgets a message of which nothing has been queued.
    void drop();
    bool sent_some() const { return sent_; }
    bool discarding() const { return discard_; }

  private:
    void flush();

    TCP_Channel& channel_;
    std::string buffer_;
    bool sent_;
    int error_;
    bool discard_;
  };

  // Why reading has stopped.
  enum Input_End
  {
    INPUT_OPEN,
    INPUT_CLOSED, // the peer's end, a read error, or close()
    INPUT_BROKEN  // bad framing: the error is answered before the end
  };

  int start_i(JSON_RPC_Channel_Strong_Ptr self, const std::shared_ptr<TCP_Reactor>& reactor, bool own);
  void handle_events(uint32_t events) override;
  void handle_tick(Clock::time_point now) override;

  void read_input(uint32_t events);
  /// Feeds data to the frame reader; false once the input has ended.
  bool feed(const char* data, size_t length);
  bool take(JSON_RPC_Reader& reader);
  void feed_rest();
  void dispatch_pending();
  /// Dispatches what was read, then answers bad framing after it.
  void after_input();
  bool read_on(JSON_RPC_Response_Wait& wait, const ACE_Time_Value* deadline);
  /// What recv gave into the loop's buffer (bytes, 0 at the end, -1 with
  /// errno), or nothing_yet when nothing is there now.
  ssize_t receive();
  static const ssize_t nothing_yet = -2;
  void input_ended(ssize_t n, int error);
  void broken_input();
  /// Ends the connection if it is over and no handler of it runs; on the
  /// I/O thread.
  void settle();
  void deregister();
  void resume_input();
  /// What a call that waits over the ended connection fails with.
  int end_errno() const { return closed_here_ ? ECONNABORTED : ECONNRESET; }

  /// Under state_lock_: the events the loop is to watch for.
  void update_interest();
  /// A response with id may go out: always, but in a drain only while id
  /// is in flight.
  bool answerable(const json_spirit::Value& id) const;
  /// id is no longer in flight (whole: a response that went out whole).
  void answered(const json_spirit::Value& id, bool whole);
  /// A forwarded response to id is on its way; it is answered at the end
  /// of its stream, or when passed back whole.
  void forwarding(const json_spirit::Value& id);
  void stream_answered();
  bool reading_stopped() const;
  int queue_bytes(const char* head, size_t head_length, std::string& body);
  void drain_output();
  /// Lets connections that were paused for this one's queue read on.
  static void wake(const std::vector<JSON_RPC_Channel_Weak_Ptr>& forwarders);

  template <class Generate>
  int write_message(Generate generate);
  /// One whole message under io_lock_, whatever is in flight.
  int write_object(const JSON_RPC_Object& object);
  bool writable() const;
  void settle_stream();
  void fail_output(int error);

  static thread_local TCP_Channel* feeding_;
  static thread_local bool pressed_;

  const TCP_Options options_;
  int fd_; // -1 once closed, under state_lock_
  ACE_INET_Addr local_addr_;
  ACE_INET_Addr remote_addr_;
  std::string peer_;
  JSON_RPC_Channel_Weak_Ptr self_;
  std::atomic<bool> closing_;
  std::atomic<bool> closed_here_; // close() was called
  JSON_RPC_Wait_List waits_;
  bool registered_;
  std::shared_ptr<TCP_Reactor> reactor_;
  bool own_reactor_;
  TCP_Reactor::Loop* loop_;

  // On the I/O thread only:
  JSON_RPC_Channel_Strong_Ptr keep_; // while the connection is up
  std::unique_ptr<TCP_Frame_Reader> frames_;
  Input_End input_end_;
  bool framing_failed_; // answered once what came before it is dispatched
  std::string rest_;                       // read, not yet fed (at the in-flight limit)
  std::vector<JSON_RPC_Object_Ptr> pending_; // read, not yet dispatched
  int dispatching_;                        // depth of dispatches of this channel on the stack
  bool reading_on_;
  bool finished_;
  Clock::time_point linger_until_;
  size_t lingered_;

  // state_lock_ guards the socket handle, the queue and what decides the
  // events watched; a leaf, taken after io_lock_.
  mutable std::mutex state_lock_;
  TCP_Output_Queue queue_;
  Clock::time_point over_since_; // the queue went over its limit; zero: it is not
  uint32_t interest_;
  bool watched_; // by the loop
  bool paused_in_flight_;
  bool paused_forward_;
  bool stopped_reading_;
  bool shut_when_sent_; // after bad input
  std::vector<json_spirit::Value> in_flight_;
  std::vector<json_spirit::Value> forwarded_; // ids whose forwarded responses are due
  std::vector<JSON_RPC_Channel_Weak_Ptr> forwarders_; // paused until the queue drains
  bool ended_;
  std::condition_variable ended_changed_;

  ACE_Thread_Mutex io_lock_;
  ACE_Lock_Adapter<ACE_Thread_Mutex> io_adapter_;
  // Under io_lock_:
  bool output_failed_;
  bool streaming_;
  int io_state_;
  // Streamed messages' writer; made by the first.
  std::unique_ptr<JSON_RPC_Writer> stream_writer_;
  Output output_;

  ACE_Thread_Mutex forward_lock_;
  std::unique_ptr<JSON_RPC_Forward_Map> forward_map_; // null once closed
};

#endif
