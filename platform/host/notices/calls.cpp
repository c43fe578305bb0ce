#include <Carbon/Notification.h>

#include <CoreServices/MacErrors.h>

#include "platform/host/base/sink_file.h"
#include "platform/host/notices/board.h"

// A notice is shown by the desktop, through the helper process. Where there is none, its text goes
// to the log, and it counts as dismissed at once; so it does when a file takes the notices.

static_assert(sizeof(void*) != 4 || sizeof(NMRec) == 36);

OSErr NMInstall(NMRecPtr record) {
  if (record == nullptr || record->qType != nmType) return nmTypErr;
  HostNoticeBoard& board = HostNoticeBoard::Get();
  // The record may be gone once its response routine has run.
  const NMUPP response = record->nmResp;
  board.Install(record);
  if (record->nmStr != nullptr) {
    const std::string text = HostNoticeBoard::TextOf(record->nmStr);
    const bool isTaken = HostAppendToSink("VLTHOST_NOTICES", text);
    if (!isTaken && board.Show(record, response, record->nmStr)) return noErr;
    HostNoticeBoard::Log(text);
  }
  board.Respond(record, response);
  return noErr;
}

OSErr NMRemove(NMRecPtr record) {
  if (record == nullptr || record->qType != nmType) return nmTypErr;
  return HostNoticeBoard::Get().Remove(record) ? noErr : qErr;
}

NMUPP NewNMUPP(NMProcPtr routine) { return routine; }

void DisposeNMUPP(NMUPP) {}

void InvokeNMUPP(NMRecPtr record, NMUPP routine) {
  if (routine != nullptr && routine != kNMRemoveWhenDone) routine(record);
}
