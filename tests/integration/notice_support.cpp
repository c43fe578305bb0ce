#include "tests/integration/notice_support.h"

#include <stdlib.h>

#include <filesystem>
#include <iterator>
#include <sstream>

#include "util/strings.h"

TestNotice::TestNotice(const std::string& shown) {
  cpstrcpy(text, shown.c_str(), sizeof text);
  record.qType = nmType;
  record.nmStr = text;
  record.nmResp = NewNMUPP(Respond);
  record.nmRefCon = 0;
  record.nmIcon = reinterpret_cast<Handle>(this);
}

void TestNotice::Respond(NMRecPtr record) {
  auto* notice = reinterpret_cast<TestNotice*>(record->nmIcon);
  const std::lock_guard<std::mutex> lock(notice->mutex);
  notice->responses++;
  notice->thread = std::this_thread::get_id();
  notice->changed.notify_all();
}

int TestNotice::Responses() {
  const std::lock_guard<std::mutex> lock(mutex);
  return responses;
}

bool TestNotice::WaitForResponses(int count, std::chrono::milliseconds limit) {
  std::unique_lock<std::mutex> lock(mutex);
  return changed.wait_for(lock, limit, [&] { return responses >= count; });
}

std::thread::id TestNotice::LastThread() {
  const std::lock_guard<std::mutex> lock(mutex);
  return thread;
}

int LinesInLog(const std::string& text) {
  std::istringstream log(TestLogText());
  int count = 0;
  for (std::string line; std::getline(log, line);) count += line.find(text) != std::string::npos;
  return count;
}

std::vector<pid_t> NoticeHelpers() {
  const std::string ours = std::string("XDG_RUNTIME_DIR=") + getenv("XDG_RUNTIME_DIR");
  std::vector<pid_t> found;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    if (ReadFile(entry.path() / "comm") != "vlt-notify\n") continue;
    // Empty for an ended process.
    if (ReadFile(entry.path() / "environ").find(ours) == std::string::npos) continue;
    found.push_back(std::stoi(name));
  }
  return found;
}

namespace {

size_t ThreadsOfThisProcess() {
  const std::filesystem::directory_iterator threads("/proc/self/task");
  return static_cast<size_t>(std::distance(begin(threads), end(threads)));
}

}  // namespace

NoHelpersLeft::NoHelpersLeft() : threads(ThreadsOfThisProcess()) {}

NoHelpersLeft::~NoHelpersLeft() {
  const auto isNothingLeft = [this] {
    return NoticeHelpers().empty() && ThreadsOfThisProcess() == threads;
  };
  EXPECT_TRUE(WaitUntil(isNothingLeft, 20s));
}
