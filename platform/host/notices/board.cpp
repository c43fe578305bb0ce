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

// A forked child gives up the board: its helper is the parent's, and its locks may be held by
// threads that do not exist here.
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

// Every Mac Roman byte has a form in UTF-8. NULs would end the text early.
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
  std::erase_if(onScreen, [&](const Notice& notice) {
    if (!isTheirs(notice)) return false;
    if (helper != nullptr) helper->Remove(notice.number);  // else it is lost already
    return true;
  });
  changed.wait(lock, [&] {
    for (const Calling* call = calling; call != nullptr; call = call->next) {
      if (call->record == record && pthread_equal(call->thread, pthread_self()) == 0) return false;
    }
    return true;
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
  std::list<Notice> shown;  // before the helper has it, because this needs memory
  shown.push_back({message.notice, record, response, TextOf(text)});
  if (helper == nullptr || !helper->Show(message)) {
    helper = HostNoticeHelper::Start({NoticeGone, NoticeLost, Settle});
    if (helper == nullptr || !helper->Show(message)) return false;
  }
  onScreen.splice(onScreen.end(), shown);
  return true;
}

void HostNoticeBoard::Respond(NMRecPtr record, NMUPP response) {
  Calling own = {record, pthread_self(), nullptr};
  {
    const std::lock_guard<std::mutex> lock(mutex);
    if (!records.contains(record)) return;
    if (response == kNMRemoveWhenDone) records.erase(record);
    if (response == kNMRemoveWhenDone || response == nullptr) return;
    own.next = std::exchange(calling, &own);
  }
  // Also when the routine throws.
  struct Return {
    HostNoticeBoard* board;
    const Calling* own;
    ~Return() {
      const std::lock_guard<std::mutex> lock(board->mutex);
      Calling** link = &board->calling;
      while (*link != own) link = &(*link)->next;
      *link = own->next;
      board->changed.notify_all();
    }
  } const atReturn{this, &own};
  response(record);
}

// These run on the thread that listens to the helper.

void HostNoticeBoard::NoticeGone(uint32_t number) { Get().MakeDue(number, false); }

void HostNoticeBoard::NoticeLost(uint32_t number) { Get().MakeDue(number, true); }

void HostNoticeBoard::MakeDue(uint32_t number, bool toLog) {
  const std::lock_guard<std::mutex> lock(mutex);
  const auto notice = std::find_if(onScreen.begin(), onScreen.end(),
                                   [=](const Notice& each) { return each.number == number; });
  if (notice == onScreen.end()) return;  // removed meanwhile
  if (toLog) Log(notice->text);
  due.splice(due.end(), onScreen, notice);
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
      // Without memory for it the next call tries again.
      if (!CFRunLoopContainsTimer(CFRunLoopGetMain(), board.timer, kCFRunLoopCommonModes)) {
        board.ForgetTimerLocked();
      }
      return false;
    }
  }
  board.RunDue();
  return true;
}

void HostNoticeBoard::RunDue() {
  for (;;) {
    std::list<Notice> first;
    {
      const std::lock_guard<std::mutex> lock(mutex);
      ForgetTimerLocked();
      if (due.empty()) return;
      first.splice(first.end(), due, due.begin());
    }
    Respond(first.front().record, first.front().response);
  }
}

void HostNoticeBoard::ForgetTimerLocked() {
  if (timer == nullptr) return;
  CFRunLoopTimerInvalidate(timer);
  CFRunLoopRemoveTimer(CFRunLoopGetMain(), timer, kCFRunLoopCommonModes);
  CFRelease(timer);
  timer = nullptr;
}
