#include "util/errno_status.h"

#include <cerrno>

OSStatus ErrnoToOSStatus(int error) {
  switch (error) {
    case 0:
      return noErr;
    case ENOENT:
      return fnfErr;
    case ENOTDIR:
      return dirNFErr;
    case EEXIST:
      return dupFNErr;
    case EACCES:
      return afpAccessDenied;
    case EPERM:
      return permErr;
    case EROFS:
      return vLckdErr;
    case ENOSPC:
    case EDQUOT:
      return dskFulErr;
    case ENAMETOOLONG:
      return bdNamErr;
    case EINVAL:
      return paramErr;
    case EBUSY:
    case ENOTEMPTY:
    case ETXTBSY:
      return fBsyErr;
    case EMFILE:
    case ENFILE:
      return tmfoErr;
    case EBADF:
      return rfNumErr;
    case ENOMEM:
      return memFullErr;
    case ESRCH:
      return procNotFound;
    default:
      return ioErr;
  }
}
