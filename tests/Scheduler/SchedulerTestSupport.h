// What the scheduler tests share beyond the test doubles.
#pragma once

#include <KestoSupport/AssertMessage.h>
#include <KestoSupport/TestScheduler.h>

#include <Kesto/Core/Exception.h>
#include <Kesto/Debug/Trace.h>

#include <gtest/gtest.h>

#include <string>

namespace KestoTest {

} // namespace KestoTest
