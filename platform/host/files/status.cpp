#include "platform/host/files/status.h"

#include <cerrno>

OSErr HostFileStatus(int error) {
  switch (error) {
    case 0:
      return noErr;
    case ENOENT:
    case ELOOP:
      return fnfErr;
    case ENOTDIR:
      return dirNFErr;
    case EEXIST:
      return dupFNErr;
    case EACCES:
    case EPERM:
      return afpAccessDenied;
    case EROFS:
      return wPrErr;
    case ENOSPC:
    case EDQUOT:
      return dskFulErr;
    case ENAMETOOLONG:
      return bdNamErr;
    case EINVAL:
      return paramErr;
    case EBUSY:
    case ENOTEMPTY:
      return fBsyErr;
    case EMFILE:
    case ENFILE:
      return tmfoErr;
    case ENOMEM:
      return memFullErr;
    default:
      return ioErr;
  }
}
