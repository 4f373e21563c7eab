// result_names.h - the library's result codes in words, for messages.
#pragma once

#include <cstdint>
#include <string>

#include "vkkrn.hpp"

namespace vkimg {

// "RESULT_BAD_PARAMETER (-13): a null or out-of-range argument"; unknown
// codes read "result -99".
inline std::string describe_result(int32_t code) { return vk::result_category().message(code); }

}  // namespace vkimg
