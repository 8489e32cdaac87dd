// SnapshotShowJson: the report for machines, one JSON document per report.
//
// The renderer itself lives inside the library, so that rapidjson, which
// builds the document, stays out of the headers a user includes. This
// header makes its string form; the asynchronous form is
// TaskScheduler::snapshotRenderJsonAsync.
//
// The document is {"schedulers":{<name>:{...}, ...}}: one member per
// top-level snapshot in displayOrder, keyed by its scheduler name, each
// holding its own figures, its task blocks, a "subSchedulers" object with
// one member per group (keyed by the group's sub-scheduler key, always
// present, empty for a leaf) and, for a root taken with history, the
// history. The mode is always `separate`, so that the nesting of the
// document follows the tree of schedulers. A reader gets valid JSON only
// once the report ran to its end.
#pragma once

#include <Kesto/Common/Export.h>

#include <Kesto/Report/SnapshotShow.h>

namespace Kesto {

// The JSON renderer over one snapshot, in the string form: call
// renderToStringWithoutYielding() on it.
KESTO_EXPORT Ptr<SnapshotShow> SnapshotShowJsonIs(Ptr<TaskSchedulerSnapshot const> snapshot);

} // namespace Kesto
