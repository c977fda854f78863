// json.h - the one kind of JSON value that the program writes and reads.
//
// Its objects keep their keys in the order in which they were set. Pure.
#ifndef PCCAST_CLI_JSON_H
#define PCCAST_CLI_JSON_H

#include <nlohmann/json.hpp>

#include <string>

using Json = nlohmann::ordered_json;

// One line, in ASCII alone, so that no character of a text can steer a terminal. Bytes that are not UTF-8
// become U+FFFD.
inline std::string writeJSON(const Json &value) {
    return value.dump(-1, ' ', true, Json::error_handler_t::replace);
}

// The text or number at the key; empty or 0 when there is none.
inline std::string textAt(const Json &object, const char *pszKey) {
    return object.value(pszKey, std::string());
}

inline unsigned long numberAt(const Json &object, const char *pszKey) {
    return object.value(pszKey, 0ul);
}

#endif
