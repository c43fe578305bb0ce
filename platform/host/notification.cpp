#include <Carbon/Notification.h>

#include <mutex>
#include <set>
#include <string>
#include <vector>

#include <CoreServices/MacErrors.h>
#include <syslog.h>

#include "platform/host/sink_file.h"
#include "platform/host/text_codec.h"

// A notice is shown by writing its text to the log; it counts as dismissed at once.

static_assert(sizeof(void*) != 4 || sizeof(NMRec) == 36);

namespace {

struct InstalledRecords {
  std::mutex lock;
  std::set<NMRecPtr> records;
};

InstalledRecords& Installed() {
  static auto* installed = new InstalledRecords;  // never destroyed: notices outlive main
  return *installed;
}

void Enter(NMRecPtr record) {
  InstalledRecords& installed = Installed();
  const std::lock_guard<std::mutex> held(installed.lock);
  installed.records.insert(record);
}

bool Leave(NMRecPtr record) {
  InstalledRecords& installed = Installed();
  const std::lock_guard<std::mutex> held(installed.lock);
  return installed.records.erase(record) > 0;
}

// The text as UTF-8, which every Mac Roman byte has a form in.
std::string TextOf(ConstStr255Param text) {
  std::vector<UInt8> bytes;
  HostConvertText(kCFStringEncodingMacRoman, text + 1, text[0], kCFStringEncodingUTF8, bytes);
  return {bytes.begin(), bytes.end()};
}

void Show(ConstStr255Param text) {
  if (text == nullptr) return;
  const std::string shown = TextOf(text);
  HostAppendToSink("VLTHOST_NOTICES", shown);
  syslog(LOG_NOTICE, "%s", shown.c_str());
}

}  // namespace

OSErr NMInstall(NMRecPtr record) {
  if (record == nullptr || record->qType != nmType) return nmTypErr;
  // The record may be gone once its response routine has run.
  const NMUPP response = record->nmResp;
  if (response != kNMRemoveWhenDone) Enter(record);
  Show(record->nmStr);
  if (response != nullptr && response != kNMRemoveWhenDone) response(record);
  return noErr;
}

OSErr NMRemove(NMRecPtr record) {
  if (record == nullptr || record->qType != nmType) return nmTypErr;
  return Leave(record) ? noErr : qErr;
}

NMUPP NewNMUPP(NMProcPtr routine) { return routine; }

void DisposeNMUPP(NMUPP) {}

void InvokeNMUPP(NMRecPtr record, NMUPP routine) {
  if (routine != nullptr && routine != kNMRemoveWhenDone) routine(record);
}
