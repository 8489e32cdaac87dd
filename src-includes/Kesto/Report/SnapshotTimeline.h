// SnapshotTimeline: the history of a snapshot as a timeline, one JSON
// document in the Trace Event Format that browser-based trace viewers open.
//
//   {"traceEvents":[...],"displayTimeUnit":"ms","otherData":{...}}
//
// One process (the agent), one thread track per scheduler: the root, then
// each task group in the order of the snapshot's tree. Task runs are
// complete events ("ph":"X") with their start and duration; every other
// event of the history is an instant ("ph":"i", scope thread) named by its
// display text ("schedule", "timerStart", "schedulerIdle"...); the stalls of
// the root's stall watchdog are complete events of category "stall" with a
// colour name that viewers draw in red.
//
// Times are microseconds with three decimals, so no nanosecond is lost:
// "ts" is relative to the origin that otherData gives ("originNs", the
// earliest stamp of the timeline on the scheduler's steady clock), "dur" is
// the run's length. A run whose start is older than the ring's oldest event
// starts at that event and carries "clipped":"start"; a run still open at the
// newest event (the task that took the snapshot, say) ends there and carries
// "clipped":"end".
//
// A run goes on the track of the scheduler whose task list holds its name.
// A name that the tree does not know, or knows in two schedulers, is placed
// by nesting: inside the run of a group's parent task it belongs to that
// group, elsewhere to the root. A group gone from the snapshot whose parent
// task still shows in the ring gets a track of its own, named "NAME (gone)".
//
// Names are arbitrary bytes: the writer escapes quotation marks, backslashes
// and control characters (NUL included), and replaces each byte that is not
// part of valid UTF-8 by U+FFFD, so the document is always valid JSON.
//
// Thread: any; the snapshot is read-only. Allocation: the document and a
// few tables proportional to the ring and the tree; nothing of the
// scheduler is touched, so rendering costs the scheduler nothing.
#pragma once

#include <Kesto/Common/Export.h>

#include <Kesto/Core/Ptr.h>
#include <Kesto/Core/String.h>
#include <Kesto/Core/Types.h>
#include <Kesto/Report/TaskSchedulerSnapshot.h>

#include <string>

namespace Kesto {

struct KESTO_EXPORT SnapshotTimelineOptions {
  // The process's name in the viewer; empty: the snapshot's scheduler name.
  String processName;
  // The process id of the events; 0: the calling process's.
  U32 processId = 0;
};

// The timeline of `snapshot`, which should be taken with history (without
// one, or with an error, the document holds only its metadata and says so
// in otherData). A null snapshot is a programming error ("no snapshot to
// draw a timeline of").
KESTO_EXPORT std::string snapshotTimelineToString(const Ptr<TaskSchedulerSnapshot const>& snapshot,
                                                  const SnapshotTimelineOptions& options = {});

// The same document written to the file at `path`, created or truncated
// (mode 0644 before the umask). Throws RuntimeException naming the path and
// the system's reason when it cannot be opened or written.
KESTO_EXPORT void snapshotTimelineToFile(const Ptr<TaskSchedulerSnapshot const>& snapshot, const String& path,
                                         const SnapshotTimelineOptions& options = {});

} // namespace Kesto
