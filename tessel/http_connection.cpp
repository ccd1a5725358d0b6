// What every connection shares: its count of references and the loop that
// reads a response body.

#include "tessel/http_connection.h"

HTTP_Connection::HTTP_Connection() : references_(0) {}
HTTP_Connection::~HTTP_Connection() {}
void HTTP_Connection::release_i() { delete this; }

void HTTP_Connection::intrusive_add_ref(HTTP_Connection* connection)
{
  if (connection)
    connection->references_.fetch_add(1, std::memory_order_relaxed);
}

void HTTP_Connection::intrusive_remove_ref(HTTP_Connection* connection)
{
  if (connection && connection->references_.fetch_sub(1, std::memory_order_acq_rel) == 1)
    connection->release_i();
}

int http_read_body(HTTP_Connection& connection, const std::function<bool(char const*, size_t)>& sink)
{
  // The block only borrows the buffer; nothing is read from it before a
  // piece has been written into it.
  char buffer[4096] = {0};
  ACE_Message_Block block(buffer, sizeof buffer);
  while (connection.state() != HTTP_Connection::STATE_BODY_END && connection.state() != HTTP_Connection::STATE_CLOSED)
  {
    block.reset();
    if (connection.read_body(&block, nullptr, HTTP_Connection::READ_SOME) == -1)
      return -1;
    if (!sink(block.rd_ptr(), block.length()))
      return -2;
  }
  return 0;
}
