#include "util/file_utils.h"

OSErr GetCurrentPSN(ProcessSerialNumber* psn) { return GetCurrentProcess(psn); }

void FirstPSN(ProcessSerialNumber* psn) {
  psn->highLongOfPSN = 0;
  psn->lowLongOfPSN = kNoProcess;
}
