#include "platform/host/notices/helper.h"

#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <new>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "platform/host/base/clock.h"
#include "platform/host/base/descriptors.h"
#include "platform/host/base/install_prefix.h"
#include "platform/host/notices/introspect.h"
#include "platform/host/processes/start_program.h"

namespace {

// The helper itself waits 5 seconds for a desktop that does not respond.
constexpr int64_t kScreenLimit = 10 * kHostSecond;
constexpr int64_t kSettleInterval = 50 * kHostMillisecond;
constexpr char kHelperName[] = "vlt-notify";

std::string FolderOfThisProgram() {
  char path[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
  const std::string whole(path, length > 0 ? length : 0);
  return whole.substr(0, whole.rfind('/') + 1);
}

// Returns the root of the installation or build to which a program in `folder` belongs.
// Applications are in deeper folders than programs in bin.
std::string PrefixOf(const std::string& folder) {
  const size_t applications = folder.rfind("/share/veltrane/Applications/");
  return applications != std::string::npos ? folder.substr(0, applications + 1) : folder + "../";
}

// Returns the path of the helper: beside the running program, in its installation or build, in the
// installation that it was compiled against, or where the library was to be installed. Returns ""
// if there is none.
std::string FindHelper() {
  const std::string folder = FolderOfThisProgram();
  std::vector<std::string> places = {folder, PrefixOf(folder) + "libexec/veltrane/"};
  for (const std::string& prefix : HostInstallPrefixes()) {
    places.push_back(prefix + "/libexec/veltrane/");
  }
  places.push_back(VLT_NOTIFY_FOLDER "/");
  for (const std::string& place : places) {
    std::string path = place + kHelperName;
    if (path[0] == '/' && access(path.c_str(), X_OK) == 0) return path;
  }
  return "";
}

// Whether the environment names a desktop's message bus. Programs with raised privileges ignore the
// environment of their user.
bool MayHaveDesktop() {
  const char* address = secure_getenv("DBUS_SESSION_BUS_ADDRESS");
  if (address != nullptr && address[0] != 0) return true;
  const char* folder = secure_getenv("XDG_RUNTIME_DIR");
  return folder != nullptr && access((std::string(folder) + "/bus").c_str(), F_OK) == 0;
}

struct Descriptors {
  int ours = -1;
  int theirs = -1;
  int wake = -1;
};

bool MakeDescriptors(Descriptors* made) {
  HostDescriptorOpening opening;
  int sockets[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sockets) != 0) return false;
  made->ours = opening.Enter(sockets[0], HostDescriptorKind::kConnection);
  made->theirs = opening.Enter(sockets[1], HostDescriptorKind::kConnection);
  made->wake = opening.Enter(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), HostDescriptorKind::kWake);
  if (made->ours >= 0 && made->theirs >= 0 && made->wake >= 0) return true;
  for (const int descriptor : {made->ours, made->theirs, made->wake}) {
    HostCloseDescriptor(descriptor);
  }
  return false;
}

// Starts a thread with all signals blocked, so that it runs no signal handler of the program.
// Returns false if that fails.
template <class Body>
bool StartQuietThread(Body body) {
  sigset_t all, before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  bool started = true;
  try {
    std::thread(std::move(body)).detach();
  } catch (const std::system_error&) {
    started = false;
  } catch (const std::bad_alloc&) {
    started = false;
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return started;
}

}  // namespace

HostNoticeWay HostDescribeNotices() {
  const char* const sink = secure_getenv("VLTHOST_NOTICES");
  return {sink != nullptr ? sink : "", FindHelper(), MayHaveDesktop()};
}

std::shared_ptr<HostNoticeHelper> HostNoticeHelper::Start(const Events& events) {
  if (!MayHaveDesktop()) return nullptr;
  std::string path = FindHelper();
  Descriptors descriptors;
  if (path.empty() || !MakeDescriptors(&descriptors)) return nullptr;
  char* const arguments[] = {path.data(), program_invocation_short_name, nullptr};
  HostStartedProgram started;
  const int err = HostStartProgram(path.c_str(), &started,
                                   {.arguments = arguments, .input = descriptors.theirs});
  HostCloseDescriptor(descriptors.theirs);
  // From here on the object owns the file descriptors.
  std::unique_ptr<HostNoticeHelper> made(new (std::nothrow) HostNoticeHelper(
      descriptors.ours, started.descriptor, descriptors.wake, events));
  if (made == nullptr) {
    for (const int descriptor : {descriptors.ours, started.descriptor, descriptors.wake}) {
      HostCloseDescriptor(descriptor);
    }
    return nullptr;
  }
  std::shared_ptr<HostNoticeHelper> helper(std::move(made));
  if (err != 0 || !StartQuietThread([helper] { helper->Listen(); })) return nullptr;
  return helper;
}

HostNoticeHelper::HostNoticeHelper(int ours, int started, int wakeUp, const Events& toTell)
    : socket(ours), program(started), wake(wakeUp), events(toTell) {}

HostNoticeHelper::~HostNoticeHelper() { CloseLocked(); }

void HostNoticeHelper::CloseLocked() {
  if (std::exchange(isClosed, true)) return;
  for (const int descriptor : {socket, program, wake}) HostCloseDescriptor(descriptor);
}

bool HostNoticeHelper::Send(const NoticeMessage& message) {
  unsigned char packet[kNoticePacketSize];
  const size_t size = WriteNoticeMessage(message, packet);
  return send(socket, packet, size, MSG_DONTWAIT | MSG_NOSIGNAL) == static_cast<ssize_t>(size);
}

void HostNoticeHelper::Wake() {
  const uint64_t one = 1;
  (void)!write(wake, &one, sizeof one);
}

bool HostNoticeHelper::Show(const NoticeMessage& message) {
  const std::lock_guard<std::mutex> lock(mutex);
  if (isClosed) return false;
  const auto entry =
      notices.insert_or_assign(message.notice, HostDeadlineAfter(HostNow(), kScreenLimit)).first;
  if (!Send(message)) {
    notices.erase(entry);
    return false;
  }
  Wake();
  return true;
}

void HostNoticeHelper::Remove(uint32_t notice) {
  const std::lock_guard<std::mutex> lock(mutex);
  if (isClosed || notices.erase(notice) == 0) return;
  NoticeMessage message;
  message.kind = NoticeMessageKind::kRemove;
  message.notice = notice;
  (void)Send(message);  // a helper that is gone shows nothing either
  Wake();
}

// The listening thread.

void HostNoticeHelper::Listen() {
  bool isSettled = true;
  do {
    if (!ListenOnce(isSettled)) {
      GiveUp();
      break;
    }
    isSettled = events.settle();
  } while (!isSettled || !CloseWhenIdle());
  while (!events.settle()) poll(nullptr, 0, kSettleInterval / kHostMillisecond);
}

// Returns false if the helper has ended or hangs.
bool HostNoticeHelper::ListenOnce(bool isSettled) {
  int64_t deadline = isSettled ? kHostNever : HostDeadlineAfter(HostNow(), kSettleInterval);
  {
    const std::lock_guard<std::mutex> lock(mutex);
    for (const auto& [notice, limit] : notices) deadline = std::min(deadline, limit);
  }
  pollfd entries[] = {{socket, POLLIN, 0}, {wake, POLLIN, 0}};
  if (poll(entries, 2, HostMillisecondsUntil(deadline, HostNow())) < 0) return errno == EINTR;
  if (entries[1].revents != 0) {
    uint64_t count;
    (void)!read(wake, &count, sizeof count);
  }
  if (entries[0].revents != 0) return TakeMessage();
  return !IsLate();
}

bool HostNoticeHelper::TakeMessage() {
  unsigned char packet[kNoticePacketSize];
  const ssize_t size = recv(socket, packet, sizeof packet, MSG_DONTWAIT);
  if (size < 0) return errno == EAGAIN || errno == EINTR;
  NoticeMessage message;
  if (!ReadNoticeMessage(packet, static_cast<size_t>(size), &message)) return false;
  const bool isGone = message.kind == NoticeMessageKind::kGone;
  {
    const std::lock_guard<std::mutex> lock(mutex);
    const auto notice = notices.find(message.notice);
    if (notice == notices.end()) return true;  // removed meanwhile
    notice->second = kHostNever;
    if (isGone) notices.erase(notice);
  }
  if (isGone) events.gone(message.notice);
  return true;
}

bool HostNoticeHelper::IsLate() {
  const std::lock_guard<std::mutex> lock(mutex);
  const int64_t now = HostNow();
  return std::any_of(notices.begin(), notices.end(),
                     [now](const auto& notice) { return notice.second <= now; });
}

bool HostNoticeHelper::CloseWhenIdle() {
  const std::lock_guard<std::mutex> lock(mutex);
  if (!notices.empty()) return false;
  CloseLocked();
  return true;
}

// Ends the helper, because a notice that is logged now must not come to the screen later.
void HostNoticeHelper::GiveUp() {
  std::map<uint32_t, int64_t> lost;
  {
    const std::lock_guard<std::mutex> lock(mutex);
    if (program >= 0) syscall(SYS_pidfd_send_signal, program, SIGKILL, nullptr, 0);
    CloseLocked();
    lost.swap(notices);
  }
  for (const auto& [notice, limit] : lost) events.lost(notice);
}
