#ifndef JSON_SPIRIT_EXPORT_H
#define JSON_SPIRIT_EXPORT_H
#define JSON_SPIRIT_EXPORT __attribute__((visibility("default")))
#endif
