#include "tools/output.h"

#include <cerrno>
#include <cstdio>

namespace {

int sError = 0;         // errno of the first failure
bool sIsTaken = false;  // it has been reported

}  // namespace

void Print(std::string_view text) {
  if (sError != 0) return;
  errno = 0;
  if (std::fwrite(text.data(), 1, text.size(), stdout) < text.size()) {
    sError = errno != 0 ? errno : EIO;
  }
}

bool FlushOutput() {
  if (sError == 0 && std::fflush(stdout) != 0) sError = errno;
  return sError == 0;
}

int TakeOutputError() {
  FlushOutput();
  if (sIsTaken || sError == 0) return 0;
  sIsTaken = true;
  return sError;
}
