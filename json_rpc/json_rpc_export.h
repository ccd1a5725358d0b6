#ifndef JSON_RPC_EXPORT_H
#define JSON_RPC_EXPORT_H
#define JSON_RPC_EXPORT __attribute__((visibility("default")))
#endif
