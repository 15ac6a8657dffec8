// The file the monitoring counts are written to: replaced whole each time,
// through a temporary file in the same folder and a rename, so that a
// reader (node_exporter's textfile collector) never sees half of it.
#pragma once

#include <string>

namespace agent {

// Replaces `path` with `text`, mode 0644. False with the reason in `error`;
// then `path` is as it was and no temporary file is left.
bool ReplaceMetricsFile(const std::string& path, const std::string& text, std::string& error);

}  // namespace agent
