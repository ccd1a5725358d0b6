// A connection's queue of bytes on their way to its socket.
#ifndef TRANSPORT_TCP_OUTPUT_QUEUE_H
#define TRANSPORT_TCP_OUTPUT_QUEUE_H

#include "transport/tcp_export.h"

#include <cstddef>
#include <string>
#include <vector>

/// Whole messages, or pieces of one, in the order they were written. A
/// push writes at once what the socket takes when nothing waits before it,
/// so a peer that keeps up costs no copy; the rest waits for drain(),
/// which the connection's I/O thread calls when the socket takes more.
/// Writes never block (MSG_DONTWAIT). No lock of its own: its connection
/// guards it.
class JSON_RPC_TCP_EXPORT TCP_Output_Queue
{
public:
  TCP_Output_Queue() : first_(0), bytes_(0), offset_(0) {}

  /// Queues head and then body (body's text may be taken over). 0, or the
  /// errno of a write that failed for good (the connection is then broken).
  int push(int fd, const char* head, size_t head_length, std::string& body);
  /// Writes what the socket takes. 0, or the errno of a failed write.
  int drain(int fd);
  /// Forgets what waits.
  void clear();
  size_t bytes() const { return bytes_; }
  bool empty() const { return bytes_ == 0; }

private:
  void keep(const char* data, size_t length);

  // A vector, not a deque: an empty deque still holds two allocations.
  std::vector<std::string> pieces_;
  size_t first_;  // pieces before it are written
  size_t bytes_;
  size_t offset_; // into the first piece, already written
};

#endif
