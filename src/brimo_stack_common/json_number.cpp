// The one reader of a JSON number as a 64-bit integer.
#include "brimo_stack_common/json_number.h"

#include <cmath>
#include <string>

namespace brimo_stack {

int64_t ReadJsonInteger(const nlohmann::json& value) {
  if (value.is_number_unsigned()) {
    return static_cast<int64_t>(value.get<uint64_t>());
  }
  if (value.is_number_integer()) {
    return value.get<int64_t>();
  }
  if (value.is_number_float()) {
    const double number = std::trunc(value.get<double>());
    if (number >= 0x1p63 && number < 0x1p64) {
      return static_cast<int64_t>(static_cast<uint64_t>(number));
    }
    if (!(number > -0x1p63 && number < 0x1p63)) {
      return number < 0 ? INT64_MIN : INT64_MAX;
    }
    return static_cast<int64_t>(number);
  }
  throw nlohmann::json::type_error::create(302, std::string("type must be number, but is ") + value.type_name(),
                                           &value);
}

}  // namespace brimo_stack
