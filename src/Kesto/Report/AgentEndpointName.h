// The one rule for an endpoint's name, used by start() and by the address
// parser alike.
#pragma once

#include <string_view>

namespace Kesto::Impl {

// Why `name` cannot name an endpoint ("is empty", "is longer than 64
// bytes", "holds a '/'", "holds a NUL byte"), or null if it can.
const char* agentEndpointNameProblem(std::string_view name);

} // namespace Kesto::Impl
