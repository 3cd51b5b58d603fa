#include "backup/schedule_check.h"

#include "backup/background_run.h"
#include "backup/backup_config.h"

namespace quill::backup {

namespace {

std::string twoDigits(int value) {
  return std::string(1, static_cast<char>('0' + value / 10)) + static_cast<char>('0' + value % 10);
}

}  // namespace

LocalMinute localMinuteOf(std::time_t when) {
  std::tm tm{};
  ::localtime_r(&when, &tm);
  return {twoDigits(tm.tm_hour) + ":" + twoDigits(tm.tm_min), std::to_string(tm.tm_year + 1900) +
                                                                  "-" + twoDigits(tm.tm_mon + 1) +
                                                                  "-" + twoDigits(tm.tm_mday)};
}

bool isScheduleDue(const std::string& dailyAt, const LocalMinute& now,
                   const std::string& lastDate) {
  return !dailyAt.empty() && now.time == dailyAt && now.date != lastDate;
}

void checkSchedule(Context& ctx, std::time_t now) {
  const auto schedule = readSchedule(backupConfigPath(ctx.data.root()));
  if (!schedule || schedule->dailyAt.empty()) return;
  const LocalMinute minute = localMinuteOf(now);
  if (!isScheduleDue(schedule->dailyAt, minute, ctx.backups.lastScheduledDate)) return;
  if (!claimRunningFlag(ctx.backups)) return;
  ctx.backups.lastScheduledDate = minute.date;
  startBackgroundRun(ctx.backups, ctx.data.root(), "", printRunOutcome("scheduled backup"));
}

}  // namespace quill::backup
