// Symbol visibility of the TCP transport library.
#ifndef TRANSPORT_TCP_EXPORT_H
#define TRANSPORT_TCP_EXPORT_H
#define JSON_RPC_TCP_EXPORT __attribute__((visibility("default")))
#endif
