// The whole public interface of libEventKesto in one include.
// A test checks that every exported header is listed here.
#pragma once

#include <Kesto/Common/Export.h>
#include <Kesto/Common/Version.h>
#include <Kesto/Debug/DebugControl.h>
#include <Kesto/Debug/DebugHandler.h>
#include <Kesto/Debug/Loco.h>
#include <Kesto/Debug/RefCounting.h>
#include <Kesto/Debug/Trace.h>
#include <Kesto/Platform/Libevent.h>
#include <Kesto/Platform/LibeventControls.h>
#include <Kesto/Platform/LibeventExtensions.h>
#include <Kesto/Platform/Platform.h>
#include <Kesto/Platform/PlatformControls.h>
#include <Kesto/Platform/PlatformEventPriority.h>
#include <Kesto/Platform/PlatformHandlers.h>
#include <Kesto/Platform/Time.h>
#include <Kesto/Scheduler/FileDescriptorTask.h>
#include <Kesto/Scheduler/Task.h>
#include <Kesto/Scheduler/TaskBase.h>
#include <Kesto/Scheduler/TaskImpl.h>
#include <Kesto/Scheduler/TaskPriority.h>
#include <Kesto/Scheduler/TaskScheduler.h>
#include <Kesto/Scheduler/TaskSchedulerHistory.h>
#include <Kesto/Scheduler/TaskSchedulerQueueStats.h>
#include <Kesto/Scheduler/TaskSchedulerRoot.h>
#include <Kesto/Scheduler/TaskStat.h>
#include <Kesto/Scheduler/TaskTypes.h>
#include <Kesto/Scheduler/TimerTask.h>
#include <Kesto/TimerWheel/TimerWheel.h>
#include <Kesto/TimerWheel/TimerWheelEvent.h>
#include <Kesto/TimerWheel/TimerWheelState.h>
#include <Kesto/Util/FileUtil.h>
#include <Kesto/Util/Sensitive.h>
#include <Kesto/Util/Socket.h>
#include <Kesto/Util/TextEncoding.h>
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
