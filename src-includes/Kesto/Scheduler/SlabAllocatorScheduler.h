// slabAllocatorSchedulerSet: the slab allocator's background work as tasks.
//
// The allocator never waits for maintenance (freed blocks are reusable at
// once), but memory goes back to the system only through two maintenance
// functions. This call hands them to tasks of `scheduler` at priority
// scavenge, so they use only the time that other tasks leave over and stop
// their scan when their quantum is used up:
//  - "SlabPageMadvise", once per process: returns fully free pages
//    (madvise), for every thread's heap;
//  - "SlabEmptyPageScanner": moves pages that became entirely free to the
//    list the first task returns. In the allocator's per-thread mode
//    (ZuSlab::slabAllocatorThreadMode() == 2, the default) each calling
//    thread gets one for its own heap; in the shared mode one per process.
// Each runs first 60 to 75 seconds after the call (60 s plus up to 25 %
// jitter, so that threads started together do not scan together), then again
// at once while its function says more work is pending, otherwise again 60 to
// 75 seconds later.
//
// Later calls from a thread that has its tasks change nothing: the scheduler
// and the flag of the first call stay. The process-wide tasks go at process
// exit, a thread's scanner at the thread's exit.
//
// Thread: the tasks belong to the thread of `scheduler`'s root, which must be
// the calling thread.
#pragma once

#include <Kesto/Common/Export.h>

#include <Kesto/Core/Ptr.h>
#include <Kesto/Scheduler/TaskScheduler.h>

namespace Kesto {

// `flag` is kept with the tasks; both of its values give the same behaviour.
KESTO_EXPORT void slabAllocatorSchedulerSet(Ptr<TaskScheduler> scheduler, bool flag);

} // namespace Kesto
