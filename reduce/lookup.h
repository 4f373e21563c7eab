// lookup.h - the user match tables of colour reduction, on top of the
// nearest-colour search (match.h).
#pragma once

#include <cstdint>

#include "match.h"

namespace vk {

// The calling thread's current user match table (null when none is installed).
uint32_t* current_user_match_table();

}  // namespace vk
