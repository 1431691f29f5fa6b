#include "dispatcher/dispatcher_main.h"

#include <string>

#include "base/files/file_path.h"
#include "base/files/file_util.h"
#include "base/files/path_service.h"
#include "base/files/time.h"
#include "base/logging.h"

namespace dispatcher {

namespace {

void ConfigureLogging(const logging::LogSettings& settings) {
  logging::InitializeLogging(settings);
  logging::SetMinimumLogLevel(-1);
}

}  // namespace

void InitializeDispatcherLogging() {
  base::FilePath log_path;
  base::FilePath app_data;
  if (base::LookupPath(base::DIR_APP_DATA, &app_data)) {
    log_path = base::AppendPath(app_data, kLogFileRelativePath);
  } else {
    LOG(ERROR) << "Failed to get log path";
  }

  logging::LogSettings settings;
  settings.destinations = logging::kLogToFile | logging::kLogToStderr;
  settings.log_file_path = log_path.value().c_str();
  settings.lock_mode = 0;
  settings.old_file_handling = logging::APPEND_TO_OLD_LOG_FILE;
  ConfigureLogging(settings);

  if (base::PathExists(log_path)) {
    base::TimePoint before = base::CurrentTime();
    base::FileInformation info;
    base::TimePoint created = base::GetFileInformation(log_path, &info) ? info.creation_time : before;
    base::TimePoint after = base::CurrentTime();
    int32_t hours = base::InWholeHours(after - created);
    if (hours >= kLogExpiryHours) {
      if (!base::DoDeleteFile(log_path)) LOG(ERROR) << "Log file deletion after expiry failed!";
      // Reopens the log: a new, empty file after a successful deletion.
      ConfigureLogging(settings);
    }
  }

  LOG(INFO) << "--------------------Corvane Dispatcher Initialized.-----------------------";
}

}  // namespace dispatcher
