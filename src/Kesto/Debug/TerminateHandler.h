// What the process prints when it ends by std::terminate: the type of the
// exception in flight, its what() text, and a backtrace unless the exception
// is one of ours, which carries its own.
#pragma once

namespace Kesto::Debug::Impl {

// Installs the handler with std::set_terminate.
void installTerminateHandler();

} // namespace Kesto::Debug::Impl
