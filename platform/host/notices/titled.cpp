#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <utility>
#include <vector>

#include "platform/host/base/clock.h"
#include "platform/host/base/descriptors.h"
#include "platform/host/base/sink_file.h"
#include "platform/host/notices/board.h"
#include "platform/host/notices/introspect.h"
#include "platform/host/processes/start_program.h"

// A notice of a tool, which has a helper of its own and waits for it.

namespace {

// The helper itself waits 5 seconds for each of its two calls; a bus that hangs has no limit there.
constexpr int64_t kScreenLimit = 10 * kHostSecond;

HostNoticeResult ResultOf(const std::string& how, const std::string& detail) {
  const std::pair<const char*, HostNoticeState> ends[] = {
      {"dismissed", HostNoticeState::kDismissed},
      {"expired", HostNoticeState::kExpired},
      {"closed", HostNoticeState::kClosed},
      {"action", HostNoticeState::kButton}};
  for (const auto& [word, state] : ends) {
    if (how == word) return {state, detail};
  }
  return {HostNoticeState::kInLog, detail};
}

}  // namespace

HostTitledNotice::~HostTitledNotice() { Close(); }

void HostTitledNotice::Close() {
  for (int* const descriptor : {&socket, &program}) {
    HostCloseDescriptor(std::exchange(*descriptor, -1));
  }
}

bool HostTitledNotice::Start(const std::string& helper) {
  HostDescriptorOpening opening;
  int sockets[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sockets) != 0) return false;
  socket = opening.Enter(sockets[0], HostDescriptorKind::kConnection);
  const int theirs = opening.Enter(sockets[1], HostDescriptorKind::kConnection);
  std::string path = helper, option = "--titled";
  char* const arguments[] = {path.data(), program_invocation_short_name, option.data(), nullptr};
  HostStartedProgram started;
  const bool hasBoth = socket >= 0 && theirs >= 0;
  const int err =
      hasBoth ? HostStartProgram(path.c_str(), &started, {.arguments = arguments, .input = theirs})
              : EMFILE;
  HostCloseDescriptor(theirs);
  program = started.descriptor;
  return err == 0;
}

// The helper must not show later what is logged now.
HostNoticeResult HostTitledNotice::Fail(const std::string& reason) {
  if (program >= 0) syscall(SYS_pidfd_send_signal, program, SIGKILL, nullptr, 0);
  Close();
  HostNoticeBoard::Log(logged);
  return {HostNoticeState::kInLog, reason};
}

HostNoticeResult HostTitledNotice::Show(const TitledNotice& notice) {
  logged = notice.title + ": " + notice.text;
  const HostNoticeWay way = HostDescribeNotices();
  if (HostAppendToSink("VLTHOST_NOTICES", logged)) {
    HostNoticeBoard::Log(logged);
    return {HostNoticeState::kInSink, way.sink};
  }
  if (!way.hasDesktop) return Fail("the session has no message bus, so no desktop is known");
  if (way.helper.empty()) return Fail("there is no notice helper (vlt-notify)");
  if (!Start(way.helper)) return Fail("the notice helper cannot be started");
  const std::string packet = WriteTitledNotice(notice);
  if (packet.size() > kTitledNoticeSize ||
      send(socket, packet.data(), packet.size(), MSG_NOSIGNAL) !=
          static_cast<ssize_t>(packet.size())) {
    return Fail("the notice helper does not take it");
  }
  HostNoticeResult result = Receive(HostDeadlineAfter(HostNow(), kScreenLimit));
  const bool isLate = result.state == HostNoticeState::kOnScreen && result.detail == "late";
  return isLate ? Fail("the desktop does not reply") : result;
}

HostNoticeResult HostTitledNotice::Wait(int64_t nanoseconds) {
  if (socket < 0) return {HostNoticeState::kInLog};
  return Receive(nanoseconds < 0 ? kHostNever : HostDeadlineAfter(HostNow(), nanoseconds));
}

// One message. If the deadline passes first, the result is on screen with the detail "late".
HostNoticeResult HostTitledNotice::Receive(int64_t deadline) {
  std::vector<char> packet(kTitledNoticeSize);
  for (;;) {
    pollfd entry = {socket, POLLIN, 0};
    const int ready = poll(&entry, 1, HostMillisecondsUntil(deadline, HostNow()));
    if (ready == 0) {
      if (HostNow() < deadline) continue;
      return {HostNoticeState::kOnScreen, "late"};
    }
    if (ready < 0 && errno == EINTR) continue;
    const ssize_t size = recv(socket, packet.data(), packet.size(), MSG_DONTWAIT);
    if (size < 0 && (errno == EAGAIN || errno == EINTR)) continue;
    std::vector<std::string> texts;
    const size_t length = size > 0 ? static_cast<size_t>(size) : 0;
    if (ReadTitledTexts(packet.data(), length, TitledNoticeKind::kOnScreen, texts) &&
        texts.size() == 2) {
      return {HostNoticeState::kOnScreen, "", texts[0], !texts[1].empty()};
    }
    if (ReadTitledTexts(packet.data(), length, TitledNoticeKind::kEnd, texts) &&
        texts.size() == 2) {
      return ResultOf(texts[0], texts[1]);
    }
    return Fail("the notice helper ended");
  }
}
