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
  const fs::path configFile = backupConfigPath(ctx.data.root());
  const auto schedule = readSchedule(configFile);
  if (!schedule || schedule->dailyAt.empty()) return;
  const LocalMinute minute = localMinuteOf(now);
  if (!isScheduleDue(schedule->dailyAt, minute, ctx.backups.lastScheduledDate)) return;
  if (!claimRunningFlag(ctx.backups)) return;
  ctx.backups.lastScheduledDate = minute.date;
  // Due: the run gets the whole configuration, read now, and reports a broken one like any failure.
  const RunDone done = printRunOutcome("scheduled backup");
  auto config = loadBackupConfig(configFile);
  if (!config) {
    done(config.failure());
    ctx.backups.running.store(false);
    return;
  }
  startBackgroundRun(ctx.backups, ctx.data.root(), std::move(config).value(), "", done);
}

}  // namespace quill::backup
