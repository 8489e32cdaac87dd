// The whole public interface of libEventKesto in one include.
// A test checks that every exported header is listed here.
#pragma once

#include <Kesto/DebugControl.h>
#include <Kesto/DebugHandler.h>
#include <Kesto/FileDescriptorTask.h>
#include <Kesto/Libevent.h>
#include <Kesto/LibeventControls.h>
#include <Kesto/LibeventExtensions.h>
#include <Kesto/Loco.h>
#include <Kesto/Platform.h>
#include <Kesto/PlatformControls.h>
#include <Kesto/PlatformEventPriority.h>
#include <Kesto/PlatformHandlers.h>
#include <Kesto/RefCounting.h>
#include <Kesto/Task.h>
#include <Kesto/TaskBase.h>
#include <Kesto/TaskImpl.h>
#include <Kesto/TaskPriority.h>
#include <Kesto/TaskScheduler.h>
#include <Kesto/TaskSchedulerHistory.h>
#include <Kesto/TaskSchedulerQueueStats.h>
#include <Kesto/TaskSchedulerRoot.h>
#include <Kesto/TaskStat.h>
#include <Kesto/TaskTypes.h>
#include <Kesto/Time.h>
#include <Kesto/TimerTask.h>
#include <Kesto/TimerWheel.h>
#include <Kesto/TimerWheelEvent.h>
#include <Kesto/TimerWheelState.h>
#include <Kesto/Trace.h>
#include <Kesto/Version.h>
#include <Kesto/ZuIntrusive/BookmarkList.h>
#include <Kesto/ZuIntrusive/SafeHookAssert.h>

// The core library and the allocator, which the interface above is built on.
#include <Kesto/Core/Backtrace.h>
#include <Kesto/Core/Exception.h>
#include <Kesto/Core/HashMix.h>
#include <Kesto/Core/Hooks.h>
#include <Kesto/Core/Locking.h>
#include <Kesto/Core/OStringStream.h>
#include <Kesto/Core/PidMappings.h>
#include <Kesto/Core/Ptr.h>
#include <Kesto/Core/Publisher.h>
#include <Kesto/Core/Rdtsc.h>
#include <Kesto/Core/String.h>
#include <Kesto/Core/System.h>
#include <Kesto/Core/ThreadControl.h>
#include <Kesto/Core/Types.h>
#include <ZuSlab/Allocator.h>
#include <ZuSlab/ZuSlab.h>
