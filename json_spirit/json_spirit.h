#ifndef JSON_SPIRIT_H
#define JSON_SPIRIT_H
#include "json_spirit/json_spirit_value.h"
#include "json_spirit/json_spirit_reader.h"
#include "json_spirit/json_spirit_writer.h"
#endif
