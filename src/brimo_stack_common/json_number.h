// The one reader of a JSON number as a 64-bit integer, for the launch JSON and request params.
#pragma once

#include <cstdint>

#include <nlohmann/json.hpp>

namespace brimo_stack {

// Any JSON number: a fraction is cut towards zero, a value from 2^63 below 2^64 keeps its bits
// (an unsigned reader sees it whole), anything further out saturates. Booleans and every other
// type throw the JSON library's type_error 302 ("type must be number, but is ...").
[[nodiscard]] int64_t ReadJsonInteger(const nlohmann::json& value);

}  // namespace brimo_stack
