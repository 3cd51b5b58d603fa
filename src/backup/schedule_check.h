#pragma once
// The daily schedule, checked by the running server once a minute. backup.json is read on every
// check, so a changed schedule takes effect within a minute without a restart.

#include <ctime>
#include <string>

#include "handler/context.h"

namespace quill::backup {

// A moment in server local time: "%H:%M" and "%Y-%m-%d".
struct LocalMinute {
  std::string time;
  std::string date;
};

LocalMinute localMinuteOf(std::time_t when);

// Whether a schedule of `dailyAt` fires at `now`: the time equals `dailyAt` exactly and the date
// differs from `lastDate`, the date of the last scheduled start. An empty `dailyAt` never fires.
bool isScheduleDue(const std::string& dailyAt, const LocalMinute& now, const std::string& lastDate);

// One check at `now`: when backups are configured with a schedule that is due and no run is
// active, remembers today's date and starts a run on its own thread; it prints
// "scheduled backup <name> done" to standard output or "scheduled backup failed: <text>" to
// standard error (printRunOutcome). While a run is active the check is skipped without remembering
// the date, so a later check within the same minute can still fire.
void checkSchedule(Context& ctx, std::time_t now);

}  // namespace quill::backup
