#include <Carbon/Notification.h>

#include <CoreServices/MacErrors.h>

#include "platform/host/base/guard.h"
#include "platform/host/base/sink_file.h"
#include "platform/host/notices/board.h"

// The desktop shows a notice, through the notice helper. If there is no desktop, the text goes to
// the log and the notice counts as dismissed at once. The same holds if a sink file takes the
// notices.

static_assert(sizeof(void*) != 4 || sizeof(NMRec) == 36);

OSErr NMInstall(NMRecPtr record) {
  if (record == nullptr || record->qType != nmType) return nmTypErr;
  // The record may be gone once its response routine has run.
  const NMUPP response = record->nmResp;
  std::string text;
  const bool isInstalled = HostGuard([&] {
    if (record->nmStr != nullptr) text = HostNoticeBoard::TextOf(record->nmStr);
    HostNoticeBoard::Get().Install(record);
  });
  if (!isInstalled) return memFullErr;
  HostNoticeBoard& board = HostNoticeBoard::Get();
  if (record->nmStr != nullptr) {
    const bool isShown = HostGuard(false, [&] {
      return !HostAppendToSink("VLTHOST_NOTICES", text) &&
             board.Show(record, response, record->nmStr);
    });
    if (isShown) return noErr;
    HostNoticeBoard::Log(text);
  }
  board.Respond(record, response);
  return noErr;
}

OSErr NMRemove(NMRecPtr record) {
  if (record == nullptr || record->qType != nmType) return nmTypErr;
  return HostGuard(OSErr{memFullErr}, [record] {
    return HostNoticeBoard::Get().Remove(record) ? OSErr{noErr} : OSErr{qErr};
  });
}

NMUPP NewNMUPP(NMProcPtr routine) { return routine; }

void DisposeNMUPP(NMUPP) {}

void InvokeNMUPP(NMRecPtr record, NMUPP routine) {
  if (routine != nullptr && routine != kNMRemoveWhenDone) routine(record);
}
