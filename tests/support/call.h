// A call of a function of the interface with each argument converted to its parameter's type.
#pragma once

namespace qx_test {

template <typename Result, typename... Parameters, typename... Arguments>
Result call_c(Result (*function)(Parameters...), Arguments... arguments) {
  return function(static_cast<Parameters>(arguments)...);
}

}  // namespace qx_test
