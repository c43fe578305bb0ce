#pragma once

#include "aeport/client_support.h"

// Sets whether a client's failures are shown and logged, which only subclasses may. The destructor
// restores the client.
class OpenClient : public VLTAEClientSupport {
 public:
  explicit OpenClient(VLTAEClientSupport& opened)
      : client(opened), hadNotices(opened.*kNotify), hadLog(opened.*kLog) {
    client.ResetSendFailures();
  }
  ~OpenClient() override {
    SetReporting(hadNotices, hadLog);
    client.setReportAllFailures(false);
    client.ResetSendFailures();
  }

  void SetReporting(bool notices, bool log) {
    client.*kNotify = notices;
    client.*kLog = log;
  }

 private:
  static constexpr bool VLTAEClientSupport::*kNotify = &OpenClient::notifyUser;
  static constexpr bool VLTAEClientSupport::*kLog = &OpenClient::logFailures;

  VLTAEClientSupport& client;
  const bool hadNotices;
  const bool hadLog;
};
