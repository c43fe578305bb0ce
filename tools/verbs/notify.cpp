#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "platform/host/notices/introspect.h"
#include "platform/host/session/introspect.h"
#include "tools/output.h"
#include "tools/values/port_text.h"
#include "tools/verbs/verb.h"

namespace {

constexpr size_t kLongestID = 64;
constexpr int64_t kTick = 1'000'000'000 / 60;  // nanoseconds

// The file with the token of the notice that was shown last under an id. Tokens are of a session's
// desktop, so they are kept with the session.
std::string TokenFile(const std::string& id) {
  return HostDescribeSessionDirectory().path + "/notice-" + id;
}

std::string ReadToken(const std::string& id) {
  std::string token;
  std::getline(std::ifstream(TokenFile(id)), token);
  return token;
}

// Replaces the file as a whole, because another process may read it. A notice whose token cannot be
// kept is shown all the same; the next one of that id will not replace it.
void KeepToken(const std::string& id, const std::string& token) {
  const std::string path = TokenFile(id), fresh = path + ".new";
  std::ofstream file(fresh, std::ios::trunc);
  file << token << "\n";
  file.close();
  if (!file || chmod(fresh.c_str(), 0600) != 0 || rename(fresh.c_str(), path.c_str()) != 0) {
    Say("notify: " + path + ": " + std::strerror(errno) + "; the notice cannot be replaced later");
  }
}

bool IsPlainID(const std::string& id) {
  const char* const plain = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-";
  return !id.empty() && id.size() <= kLongestID && id.find_first_not_of(plain) == std::string::npos;
}

bool ParseNotice(const CommandLine& line, TitledNotice& notice, std::string& problem) {
  notice.title = line.words[0];
  notice.text = line.words[1];
  if (notice.title.empty()) return problem = "the title is empty", false;
  const auto actions = line.repeated.find("--action");
  if (actions != line.repeated.end()) {
    for (const std::string& text : actions->second) {
      const size_t equals = text.find('=');
      if (equals == 0 || equals == std::string::npos || equals + 1 == text.size()) {
        return problem = "--action: " + Quoted(text) + " has not the form KEY=TEXT", false;
      }
      notice.buttons.emplace_back(text.substr(0, equals), text.substr(equals + 1));
    }
  }
  if (line.Has("--id") && !IsPlainID(line.options.at("--id"))) {
    return problem = "--id: " + Quoted(line.options.at("--id")) +
                     " is not 1 to 64 letters, digits, dots, hyphens and underscores",
           false;
  }
  const std::string packet = WriteTitledNotice(notice);
  if (!IsUtf8(packet)) return problem = "the texts are not UTF-8", false;
  // The token is added later.
  constexpr size_t kRoomForToken = 256;
  if (packet.size() + kRoomForToken > kTitledNoticeSize) {
    return problem = "the texts are too long for a notice; they may have 32000 bytes", false;
  }
  return true;
}

const char* OutcomeName(HostNoticeState state, bool hasWaited) {
  switch (state) {
    case HostNoticeState::kOnScreen:
      return hasWaited ? "stillShown" : "shown";
    case HostNoticeState::kInSink:
      return "sink";
    case HostNoticeState::kDismissed:
      return "dismissed";
    case HostNoticeState::kExpired:
      return "expired";
    case HostNoticeState::kClosed:
      return "closed";
    case HostNoticeState::kButton:
      return "action";
    default:
      return "logged";
  }
}

// The message for people, "" for none.
std::string TextFor(const HostNoticeResult& result, bool hasWaited) {
  switch (result.state) {
    case HostNoticeState::kInSink:
      return "the text went to the file " + OneLine(result.detail) + " (VLTHOST_NOTICES)";
    case HostNoticeState::kInLog:
      return "the text went to the system log: " + OneLine(result.detail);
    case HostNoticeState::kDismissed:
      return "the notice was dismissed";
    case HostNoticeState::kExpired:
      return "the desktop removed the notice";
    case HostNoticeState::kClosed:
      return "another program removed the notice";
    case HostNoticeState::kOnScreen:
      return hasWaited ? "the notice is still shown" : "";
    default:
      return "";
  }
}

// Nobody can react to a notice that is not on screen, which matters to those who wait only.
int ExitFor(HostNoticeState state, bool hasWaited) {
  if (!hasWaited) return kExitOk;
  if (state == HostNoticeState::kOnScreen) return kExitTimeout;
  return state == HostNoticeState::kInLog ? int{kExitNotFound} : int{kExitOk};
}

}  // namespace

static int RunNotify(const CommandLine& line) {
  TitledNotice notice;
  std::string problem;
  int ticks = 0;
  if (!ParseNotice(line, notice, problem) ||
      !ParseSecondsOption(line, "--timeout", ticks, problem)) {
    return Say("notify: " + problem), kExitUsage;
  }
  const std::string id = line.Has("--id") ? line.options.at("--id") : "";
  if (!id.empty()) {
    const HostSessionDirectoryInfo session = HostDescribeSessionDirectory();
    if (!session.usable) return Say(session.problem), kExitNoSession;
    notice.replaces = ReadToken(id);
  }
  const bool waits = line.Has("--wait") || !notice.buttons.empty();
  HostTitledNotice shown;
  HostNoticeResult result = shown.Show(notice);
  if (!id.empty() && !result.token.empty()) KeepToken(id, result.token);
  if (result.state == HostNoticeState::kOnScreen) {
    if (!notice.buttons.empty() && !result.hasButtons) Say("notify: the desktop shows no buttons");
    if (waits) result = shown.Wait(ticks > 0 ? ticks * kTick : -1);
  }
  const bool isButton = result.state == HostNoticeState::kButton;
  const std::string text = TextFor(result, waits);
  if (line.Has("--json")) {
    JsonValue model = JsonValue::Object();
    model.Add("outcome", OutcomeName(result.state, waits));
    model.Add("key", isButton ? JsonValue(result.detail) : JsonValue());
    model.Add("text", text.empty() ? JsonValue() : JsonValue(text));
    PrintJson(model);
  } else if (isButton) {
    Print(OneLine(result.detail) + "\n");
  }
  if (!text.empty()) Say("notify: " + text);
  return ExitFor(result.state, waits);
}

Verb NotifyVerb() {
  return {"notify",
          "TITLE TEXT [--id NAME] [--wait] [--action KEY=TEXT ...] [--timeout SECONDS] [--json]",
          "Shows a notice on the desktop.",
          "The notice stays until it is dismissed. A notice with the same --id as an\n"
          "earlier one replaces it. Without a desktop the text goes to the system log,\n"
          "and the command says so.\n"
          "\n"
          "--wait waits until the notice has been dismissed. --action adds a button, waits,\n"
          "and prints the key of the button that was pressed. If nobody can react, because\n"
          "there is no desktop, the exit status is then 3; after --timeout it is 4.\n"
          "\n"
          "Examples: vltctl notify Camera 'The lens cap is on.' --id lens\n"
          "          vltctl notify Update 'Restart?' --action yes=Restart --action no=Later\n"
          "\n"
          "JSON: one object with outcome (shown, dismissed, expired, closed, action,\n"
          "stillShown, logged, sink), key (of the button, or null) and text, the message,\n"
          "or null.\n",
          {{"--id", "NAME", "replace the earlier notice of this name"},
           {"--wait", nullptr, "wait until it has been dismissed"},
           {"--action", "KEY=TEXT", "a button; may be repeated", true},
           {"--timeout", "SECONDS", "the longest time to wait (no limit)", false, "-t"},
           kJsonOption},
          2,
          2,
          RunNotify,
          false};
}
