#include "platform/host/base/file_lock.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <cerrno>

namespace {

bool SetByte(int fd, short type, off_t start) {
  struct flock lock = {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = start;
  lock.l_len = 1;
  while (fcntl(fd, F_OFD_SETLK, &lock) != 0) {
    if (errno != EINTR) return false;
  }
  return true;
}

}  // namespace

bool HostTryLockByte(int fd, off_t start) { return SetByte(fd, F_WRLCK, start); }

void HostUnlockByte(int fd, off_t start) { SetByte(fd, F_UNLCK, start); }

bool HostIsSameFile(int directory, const char* file, int fd) {
  struct stat opened, named;
  return fstat(fd, &opened) == 0 && fstatat(directory, file, &named, AT_SYMLINK_NOFOLLOW) == 0 &&
         opened.st_ino == named.st_ino && opened.st_dev == named.st_dev;
}
