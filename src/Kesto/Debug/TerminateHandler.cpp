#include <Kesto/Core/Backtrace.h>
#include <Kesto/Core/Exception.h>
#include <Kesto/Core/System.h>
#include "Debug/TerminateHandler.h"

#include <cxxabi.h>

#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>
#include <typeinfo>

namespace Kesto::Debug::Impl {

void installTerminateHandler() {
  std::set_terminate([] {
    std::string message;
    bool wantBacktrace = true;
    if (std::exception_ptr current = std::current_exception()) {
      const std::type_info* type = abi::__cxa_current_exception_type();
      const char* mangled = type ? type->name() : "";
      if (*mangled == '*')
        ++mangled;
      std::cerr << "terminate called after throwing an instance of '" << typeName(mangled) << "'" << std::endl;
      try {
        std::rethrow_exception(current);
      } catch (const Kesto::Exception& e) {
        message = std::string("  what(): ") + e.what();
        wantBacktrace = false;
      } catch (const std::exception& e) {
        message = std::string("  what(): ") + e.what();
      } catch (...) {
      }
    }
    if (wantBacktrace && Backtrace::verbosity() == 1) {
      const String trace = Backtrace(true).pretty();
      message += '\n';
      message.append(trace.data(), trace.size());
    }
    if (!message.empty())
      std::cerr << message << std::endl;
    std::abort();
  });
}

} // namespace Kesto::Debug::Impl
