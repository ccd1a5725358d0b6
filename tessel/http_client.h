#ifndef TESSEL_HTTP_CLIENT_H
#define TESSEL_HTTP_CLIENT_H

// An HTTP/1.1 client over ACE sockets, for JSON bodies that are generated
// and parsed while they travel.
//
//   session = HTTP_Session_Factory::create(host, port, ssl);
//   connection = session->begin_request(request);   // head queued
//   connection->write(...);                          // body, if any
//   connection->read_response(response);            // body ends, head read
//   while (state is neither STATE_BODY_END nor STATE_CLOSED)
//     connection->read_body(block);                  // piece by piece
//
// A session keeps its connections alive and hands an idle one to the next
// request; a connection goes back to the session when its last reference is
// let go after a complete exchange. Sessions and connections are counted
// with ACE_Intrusive_Auto_Ptr, atomically, so one session can serve several
// threads; a connection serves one thread at a time.

#include "tessel/http_connection.h"
#include "tessel/http_message.h"
#include "tessel/http_session.h"

#endif
