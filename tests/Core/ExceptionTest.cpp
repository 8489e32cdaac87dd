#include <Kesto/Core/Exception.h>

#include <gtest/gtest.h>

#include <typeinfo>

using Kesto::AssertException;
using Kesto::Exception;
using Kesto::RuntimeException;
using Kesto::String;

namespace {

template <typename E>
const std::type_info& thrownType(const String& message) {
  try {
    E::throwException(message);
  } catch (const Exception& e) {
    return typeid(e);
  }
  return typeid(void);
}

} // namespace

TEST(Exception, ThrowExceptionThrowsItsOwnClass) {
  EXPECT_EQ(thrownType<Exception>("x"), typeid(Exception));
  EXPECT_EQ(thrownType<AssertException>("x"), typeid(AssertException));
  EXPECT_EQ(thrownType<RuntimeException>("x"), typeid(RuntimeException));
}

TEST(Exception, DerivedClassesAreCaughtAsTheBaseAndAsStdException) {
  EXPECT_THROW(AssertException::throwException("a"), Exception);
  EXPECT_THROW(RuntimeException::throwException("r"), Exception);
  EXPECT_THROW(RuntimeException::throwException("r"), std::exception);
  // Neither derived class is the other.
  try {
    RuntimeException::throwException("r");
  } catch (const AssertException&) {
    FAIL() << "a RuntimeException caught as AssertException";
  } catch (const RuntimeException&) {
  }
}

TEST(Exception, WhatAndMessageCarryTheText) {
  const std::string longText(100, 'w');
  for (const std::string& text : {std::string(), std::string("short message"), longText}) {
    try {
      RuntimeException::throwException(String(text));
    } catch (const std::exception& e) {
      EXPECT_STREQ(e.what(), text.c_str());
      EXPECT_EQ(static_cast<const Exception&>(e).message().view(), text);
    }
  }
}

TEST(Exception, CarriesTheBacktraceOfTheThrowSite) {
  try {
    AssertException::throwException("with a stack");
  } catch (const Exception& e) {
    const String trace = e.backtrace();
    EXPECT_FALSE(trace.empty());
    EXPECT_TRUE(trace.startsWith("#0 ")) << trace;
    // The throwing function of the library is named, demangled.
    EXPECT_NE(trace.find("Kesto::AssertException::throwException"), String::npos) << trace;
  }
}

TEST(Exception, CopyKeepsMessageAndBacktrace) {
  try {
    Exception::throwException("copied");
  } catch (const Exception& e) {
    Exception copy(e);
    EXPECT_STREQ(copy.what(), "copied");
    EXPECT_EQ(copy.backtrace(), e.backtrace());
  }
}

TEST(Exception, ThrowOnAssertFailIsASettableFlag) {
  const bool old = Kesto::throwOnAssertFail();
  EXPECT_FALSE(old); // the default
  Kesto::throwOnAssertFailIs(true);
  EXPECT_TRUE(Kesto::throwOnAssertFail());
  Kesto::throwOnAssertFailIs(false);
  EXPECT_FALSE(Kesto::throwOnAssertFail());
  Kesto::throwOnAssertFailIs(old);
}

TEST(Exception, EmitAssertNonNullPtrIsQuietWhenAssertsAreThrownForTheCaller) {
  Kesto::throwOnAssertFailIs(true);
  testing::internal::CaptureStderr();
  EXPECT_THROW(Kesto::emitAssertNonNullPtr(), AssertException);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  Kesto::throwOnAssertFailIs(false);
}
