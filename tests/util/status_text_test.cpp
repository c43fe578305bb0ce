#include <gtest/gtest.h>

#include <servers/bootstrap.h>

#include <string>

#include "util/status_text.h"

namespace {

TEST(StatusText, IsNeverNullAndNamesWhatIsKnown) {
  const struct {
    OSStatus status;
    const char *name, *text;
  } rows[] = {
      {0, "noErr", "success"},
      {procNotFound, "procNotFound", "not running"},
      {paramErr, "paramErr", "invalid argument"},
      {BOOTSTRAP_UNKNOWN_SERVICE, "BOOTSTRAP_UNKNOWN_SERVICE", "no process owns this port name"},
      {errAEDescNotFound, "errAEDescNotFound", "no such value"},
      {-31999, "", "unknown status"},
  };
  for (const auto& row : rows) {
    EXPECT_STREQ(row.name, VLTStatusName(row.status));
    EXPECT_STREQ(row.text, VLTStatusText(row.status));
  }
  for (OSStatus status = -12000; status < 1200; ++status) {
    EXPECT_EQ(VLTStatusName(status)[0] == 0, std::string(VLTStatusText(status)) == "unknown status")
        << status;
  }
}

}  // namespace
