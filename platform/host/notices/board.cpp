#include "platform/host/notices/board.h"

#include <syslog.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <utility>

#include "platform/host/base/descriptors.h"
#include "platform/host/base/text_codec.h"
#include "platform/host/loop/thread_loop.h"

namespace {

constinit std::atomic<HostNoticeBoard*> sBoard{nullptr};
constinit HostNoticeBoard* sInherited = nullptr;

// The helper is the parent's, and so are the locks.
void ForgetInChild() { sInherited = sBoard.exchange(nullptr); }

}  // namespace

HostNoticeBoard& HostNoticeBoard::Get() {
  static const bool sInstalled = (HostAtForkInChild(ForgetInChild), true);
  (void)sInstalled;
  HostNoticeBoard* board = sBoard.load();
  if (board != nullptr) return *board;
  auto* made = new HostNoticeBoard;
  made->inherited = sInherited;
  if (sBoard.compare_exchange_strong(board, made)) return *made;
  delete made;
  return *board;
}

// Every Mac Roman byte has a form in UTF-8. Zeros would end the text early.
std::string HostNoticeBoard::TextOf(ConstStr255Param text) {
  std::vector<UInt8> bytes;
  HostConvertText(kCFStringEncodingMacRoman, text + 1, text[0], kCFStringEncodingUTF8, bytes);
  std::replace(bytes.begin(), bytes.end(), UInt8{0}, UInt8{' '});
  return {bytes.begin(), bytes.end()};
}

void HostNoticeBoard::Log(const std::string& text) { syslog(LOG_NOTICE, "%s", text.c_str()); }

void HostNoticeBoard::Install(NMRecPtr record) {
  const std::lock_guard<std::mutex> lock(mutex);
  if (!records.contains(record)) records[record] = ++lastNumber;
}

bool HostNoticeBoard::Remove(NMRecPtr record) {
  std::unique_lock<std::mutex> lock(mutex);
  if (records.erase(record) == 0) return false;
  const auto isTheirs = [record](const Notice& notice) { return notice.record == record; };
  std::erase_if(due, isTheirs);
  std::erase_if(onScreen, [&](const auto& entry) {
    if (!isTheirs(entry.second)) return false;
    if (helper != nullptr) helper->Remove(entry.first);  // else it is lost already
    return true;
  });
  changed.wait(lock, [&] {
    return std::none_of(calling.begin(), calling.end(), [&](const Calling& call) {
      return call.record == record && pthread_equal(call.thread, pthread_self()) == 0;
    });
  });
  return true;
}

bool HostNoticeBoard::Show(NMRecPtr record, NMUPP response, ConstStr255Param text) {
  const std::lock_guard<std::mutex> lock(mutex);
  if (onScreen.size() >= kNoticeLimit) return false;
  const auto installed = records.find(record);
  if (installed == records.end()) return true;  // removed meanwhile
  NoticeMessage message;
  message.notice = ++lastNumber;
  message.place = installed->second;
  message.length = text[0];
  std::memcpy(message.text, text + 1, text[0]);
  if (helper == nullptr || !helper->Show(message)) {
    helper = HostNoticeHelper::Start({NoticesGone, NoticesLost, Settle});
    if (helper == nullptr || !helper->Show(message)) return false;
  }
  onScreen[message.notice] = {record, response, TextOf(text)};
  return true;
}

void HostNoticeBoard::Respond(NMRecPtr record, NMUPP response) {
  {
    const std::lock_guard<std::mutex> lock(mutex);
    if (!records.contains(record)) return;
    if (response == kNMRemoveWhenDone) records.erase(record);
    if (response == kNMRemoveWhenDone || response == nullptr) return;
    calling.push_back({record, pthread_self()});
  }
  // Also when the routine throws.
  struct Return {
    HostNoticeBoard* board;
    NMRecPtr record;
    ~Return() {
      const std::lock_guard<std::mutex> lock(board->mutex);
      const auto call =
          std::find_if(board->calling.begin(), board->calling.end(), [this](const Calling& each) {
            return each.record == record && pthread_equal(each.thread, pthread_self()) != 0;
          });
      board->calling.erase(call);
      board->changed.notify_all();
    }
  } const atReturn{this, record};
  response(record);
}

// What the helper's thread tells.

void HostNoticeBoard::NoticesGone(const std::vector<uint32_t>& numbers) {
  Get().MakeDue(numbers, false);
}

void HostNoticeBoard::NoticesLost(const std::vector<uint32_t>& numbers) {
  Get().MakeDue(numbers, true);
}

void HostNoticeBoard::MakeDue(const std::vector<uint32_t>& numbers, bool toLog) {
  std::vector<std::string> texts;
  {
    const std::lock_guard<std::mutex> lock(mutex);
    for (const uint32_t number : numbers) {
      auto entry = onScreen.extract(number);
      if (entry.empty()) continue;  // removed meanwhile
      texts.push_back(entry.mapped().text);
      due.push_back(std::move(entry.mapped()));
    }
  }
  if (!toLog) return;
  for (const std::string& text : texts) Log(text);
}

// Responses belong on the main run loop while it runs. It may end before it gets to them.
bool HostNoticeBoard::Settle() {
  HostNoticeBoard& board = Get();
  const bool onMainLoop = HostMainLoopIsRunning();
  {
    const std::lock_guard<std::mutex> lock(board.mutex);
    if (board.due.empty() || !onMainLoop) board.ForgetTimerLocked();
    if (board.due.empty()) return true;
    if (onMainLoop) {
      if (board.timer != nullptr) return false;
      board.timer = CFRunLoopTimerCreate(
          kCFAllocatorDefault, 0, 0, 0, 0, [](CFRunLoopTimerRef, void*) { Get().RunDue(); },
          nullptr);
      CFRunLoopAddTimer(CFRunLoopGetMain(), board.timer, kCFRunLoopCommonModes);
      return false;
    }
  }
  board.RunDue();
  return true;
}

void HostNoticeBoard::RunDue() {
  for (;;) {
    Notice notice;
    {
      const std::lock_guard<std::mutex> lock(mutex);
      ForgetTimerLocked();
      if (due.empty()) return;
      notice = std::move(due.front());
      due.erase(due.begin());
    }
    Respond(notice.record, notice.response);
  }
}

void HostNoticeBoard::ForgetTimerLocked() {
  if (timer == nullptr) return;
  CFRunLoopTimerInvalidate(timer);
  CFRunLoopRemoveTimer(CFRunLoopGetMain(), timer, kCFRunLoopCommonModes);
  CFRelease(timer);
  timer = nullptr;
}
