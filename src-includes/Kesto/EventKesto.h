// The whole public interface of libEventKesto in one include.
// A test checks that every exported header is listed here.
#pragma once

#include <Kesto/DebugHandler.h>
#include <Kesto/Libevent.h>
#include <Kesto/LibeventControls.h>
#include <Kesto/LibeventExtensions.h>
#include <Kesto/Platform.h>
#include <Kesto/PlatformControls.h>
#include <Kesto/PlatformEventPriority.h>
#include <Kesto/PlatformHandlers.h>
#include <Kesto/Time.h>
#include <Kesto/Trace.h>
#include <Kesto/Version.h>
