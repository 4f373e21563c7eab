// result_names.h - the library's result codes in words.
#pragma once

#include <cstdint>
#include <string>

namespace vkimg {

// "RESULT_BAD_PARAMETER" for -13; null for a code the table does not know.
const char* result_name(int32_t code);
// "RESULT_BAD_PARAMETER (-13): a null or out-of-range argument"; unknown
// codes read "result -99".
std::string describe_result(int32_t code);

}  // namespace vkimg
