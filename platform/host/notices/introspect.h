#pragma once

#include <string>

// Reports where a notice would be shown now. For tools, benchmarks and tests only. Any thread.

struct HostNoticeWay {
  std::string sink;         // the file that takes notices instead of the desktop, or ""
  std::string helper;       // path of the notice helper, or "" if there is none
  bool hasDesktop = false;  // a desktop's message bus is named
};
HostNoticeWay HostDescribeNotices();
